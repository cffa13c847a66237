// The console of the program under test leads nowhere; the fuzzer's own reports go to standard
// error. With ZELF_FUZZ_SHOW in the environment the console stays, to look into one input.
#include <cstdio>
#include <cstdlib>

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    if (std::getenv("ZELF_FUZZ_SHOW") != nullptr) {
        return 0;
    }
    if (std::freopen("/dev/null", "w", stdout) == nullptr) {
        std::perror("/dev/null");
        std::abort();
    }
    return 0;
}
