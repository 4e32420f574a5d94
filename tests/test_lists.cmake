# Test executables (file names without extension) with special needs.
list(APPEND QEV_CONCURRENCY_TESTS)
list(APPEND QEV_CORE_PORT_TESTS)
list(APPEND QEV_CONCURRENCY_TESTS sysproxy_requests_test)
list(APPEND QEV_CORE_PORT_TESTS fake_core_test)
list(APPEND QEV_CORE_PORT_TESTS proxy_flow_test)
list(APPEND QEV_CORE_PORT_TESTS relay_http_test)
list(APPEND QEV_CONCURRENCY_TESTS process_runner_test http_session_test controller_client_test readiness_test launcher_test)
