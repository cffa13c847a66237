/// \file
/// The ends of a virtual run that are none of the program's own.
#pragma once

#include <string>

namespace zelfsim::virtual_time {

/// Exit codes, away from those of the program and of the tools.
constexpr int deadlock = 116;
constexpr int livelock = 117;
constexpr int refused = 118;

/// "zelfwupdate+0x1234" for an address in a file that is loaded.
std::string place_of(const void* address);

/// Puts a text on standard error by the kernel's own call.
void tell(const std::string& text);

/// Ends the process at once: nothing else of it runs.
[[noreturn]] void end_run(int code);

/// Ends the run: a call that virtual time does not know.
[[noreturn]] void end_refused(const char* call, const void* caller);
/// As above; `why` follows the name of the call.
[[noreturn]] void end_refused(const char* call, const std::string& why, const void* caller);

/// Ends the run: a variable that cannot be read.
[[noreturn]] void end_unusable(const char* variable, const char* text);

}  // namespace zelfsim::virtual_time
