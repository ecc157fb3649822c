// Defaults for the sanitizer runtimes of the programs that load the shipped
// library with dlopen.
//
// LeakSanitizer walks each thread's dynamic TLS blocks as roots. With this
// toolchain (GCC 12 runtime, glibc 2.36) it misreads the block of a dlopen'd
// library that uses thread_local, and its tracer crashes at exit ("Tracer
// caught signal 11", a DTLS range of garbage). Scanning TLS is switched off
// instead; by the time the exit-time check runs, the main thread's
// thread-local objects are destroyed and the loader's own TLS allocations are
// treated as reachable by LSan, so no leak goes unseen for lack of it.
#if defined(__SANITIZE_ADDRESS__)
extern "C" __attribute__((visibility("default"), used)) const char* __lsan_default_options() {
  return "use_tls=0";
}
#endif
