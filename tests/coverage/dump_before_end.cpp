// The coverage build's own: counts are kept where a process ends without its exit handlers.
#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

namespace {

/// Counts that can't be kept are no output of the program.
[[gnu::constructor]] void silence_profiler() {
    setenv("GCOV_ERROR_FILE", "/dev/null", 1);
}

}  // namespace

extern "C" {

// GCC's names for the profiler's interface.
void __gcov_dump();
void __gcov_reset();

// The linker puts these two in front of the real ones.
[[noreturn]] void __real__exit(int code);
int __real_raise(int signal_number);

[[noreturn]] void __wrap__exit(int code) {
    // A dump allocates. Behind a fault inside the allocator it waits until the alarm of the fault
    // report ends the run once more.
    static volatile sig_atomic_t is_dumping = 0;
    if (is_dumping == 0) {
        is_dumping = 1;
        __gcov_dump();
    }
    __real__exit(code);
}

int __wrap_raise(int signal_number) {
    __gcov_dump();
    // What follows, should the process live on, is counted from 0 and added at the next dump.
    __gcov_reset();
    return __real_raise(signal_number);
}
}
