// cpp-httplib comes prebuilt without instrumentation, so the thread sanitizer cannot see how its
// worker threads hand buffers to each other and reports the server's own internals. Linked into
// every test program of the thread-sanitizer build.
extern "C" const char* __tsan_default_suppressions() {
  return "called_from_lib:libcpp-httplib.so\nrace:libcpp-httplib.so\n";
}
