/// \file
/// The report of a segmentation fault.
#pragma once

#include <signal.h>

#include <array>
#include <cstddef>

/// A stack on which a fault of this thread can be reported when its own is exhausted.
class FaultStack {
  public:
    FaultStack();
    ~FaultStack();
    FaultStack(const FaultStack&) = delete;
    FaultStack& operator=(const FaultStack&) = delete;

  private:
    static constexpr std::size_t size = 65536;
    stack_t earlier_{};
    alignas(std::max_align_t) std::array<std::byte, size> memory_{};
};

/// Writes the fault and the processor's registers to log, trace and console, closes the log, and
/// ends the process with exit code 12. A second fault ends it at once, and so do three seconds:
/// nothing here needs what the fault may have left locked or broken.
[[noreturn]] void sigsegv_catcher(int signal_number, siginfo_t* info, void* context);

/// Makes `sigsegv_catcher` the handler of SIGSEGV, for the calling thread on a stack of its own.
void install_fault_report();
