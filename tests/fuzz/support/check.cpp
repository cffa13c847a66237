#include "support/check.h"

#include <cstdio>
#include <cstdlib>

void check(bool holds, const char* expectation) {
    if (!holds) {
        std::fprintf(stderr, "NOT AS EXPECTED: %s\n", expectation);
        std::abort();
    }
}
