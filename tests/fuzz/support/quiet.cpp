// The console of the program under test leads nowhere; the fuzzer's own reports go to standard
// error.
#include <cstdio>
#include <cstdlib>

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    if (std::freopen("/dev/null", "w", stdout) == nullptr) {
        std::perror("/dev/null");
        std::abort();
    }
    return 0;
}
