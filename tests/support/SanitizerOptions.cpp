// LeakSanitizer walks each thread's dynamic TLS blocks as roots. With GCC 12's runtime and glibc 2.36 it misreads the
// block of a dlopen'd library that uses thread_local and its tracer crashes at exit, so programs that load the
// library skip TLS; by the exit-time check the thread-local objects are gone.
#if defined(__SANITIZE_ADDRESS__)
extern "C" __attribute__((visibility("default"), used)) const char* __lsan_default_options() { return "use_tls=0"; }
#endif
