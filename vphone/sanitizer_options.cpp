// Compiled into every program that links the virtual phone under the sanitizers. The
// sanitizer's allocator reads CLOCK_MONOTONIC from inside malloc (to pace its release
// of memory to the system), and that read reaches the virtual phone, which serves the
// clock: from the phone's own first allocation it deadlocks, from another thread it is
// a second thread in the phone. Releasing is turned off instead; ASAN_OPTIONS can still
// set it.
extern "C" const char *__asan_default_options() { return "allocator_release_to_os_interval_ms=-1"; }
