/// \file
/// The report of a segmentation fault.
#pragma once

#include <signal.h>

/// Writes the fault and the processor's registers to console, log and trace, closes the log, and
/// ends the process with exit code 12. A second fault ends it at once.
[[noreturn]] void sigsegv_catcher(int signal_number, siginfo_t* info, void* context);

/// Makes `sigsegv_catcher` the handler of SIGSEGV.
void install_fault_report();
