# Test executables (file names without extension) with special needs.
list(APPEND QEV_CONCURRENCY_TESTS)
list(APPEND QEV_CORE_PORT_TESTS)
list(APPEND QEV_CONCURRENCY_TESTS sysproxy_requests_test)
