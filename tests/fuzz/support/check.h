/// \file
/// What a fuzzer expects of the code under test beside that it does not crash.
#pragma once

/// Ends the fuzzer with a report when `holds` is false; `expectation` says what was expected.
void check(bool holds, const char* expectation);
