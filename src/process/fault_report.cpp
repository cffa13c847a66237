#include "process/fault_report.h"

#include "exit_code.h"
#include "journal/output.h"
#include "journal/zelfwtrace.h"

#include <sys/ucontext.h>
#include <unistd.h>

#include <array>
#include <iterator>

namespace {

#if defined(__i386__)

/// The general registers in the platform's order.
constexpr std::array gregs = {"GS",  "FS",  "ES",  "DS",   "EDI", "ESI",    "EBP",
                              "ESP", "EBX", "EDX", "ECX",  "EAX", "TRAPNO", "ERR",
                              "EIP", "CS",  "EFL", "UESP", "SS"};
static_assert(gregs.size() == NGREG);

unsigned long register_value(const mcontext_t& machine, std::size_t index) {
    return static_cast<unsigned long>(machine.gregs[index]);
}
unsigned long old_mask(const mcontext_t& machine) {
    return machine.oldmask;
}
unsigned long fault_address_register(const mcontext_t& machine) {
    return machine.cr2;
}

#elif defined(__x86_64__)

/// The general registers in the platform's order; the two behind them are printed apart.
constexpr std::array gregs = {"R8",  "R9",  "R10", "R11", "R12",    "R13", "R14",
                              "R15", "RDI", "RSI", "RBP", "RBX",    "RDX", "RAX",
                              "RCX", "RSP", "RIP", "EFL", "CSGSFS", "ERR", "TRAPNO"};
static_assert(gregs.size() == REG_OLDMASK);

unsigned long register_value(const mcontext_t& machine, std::size_t index) {
    return static_cast<unsigned long>(machine.gregs[index]);
}
unsigned long old_mask(const mcontext_t& machine) {
    return register_value(machine, REG_OLDMASK);
}
unsigned long fault_address_register(const mcontext_t& machine) {
    return register_value(machine, REG_CR2);
}

#else
#error "The fault report knows the registers of 32-bit x86 and amd64 only"
#endif

constexpr unsigned int seconds_for_the_trace = 1;

[[noreturn]] void end_at_second_fault(int /*signal_number*/) {
    _exit(EXIT_SEGMENTATION_FAULT);
}

/// The handler of a fault is entered with the signal blocked: a second one would not be reported
/// to anybody.
void end_at_next_fault() {
    struct sigaction action = {};
    action.sa_handler = end_at_second_fault;
    sigemptyset(&action.sa_mask);
    sigaction(SIGSEGV, &action, nullptr);
    sigset_t fault;
    sigemptyset(&fault);
    sigaddset(&fault, SIGSEGV);
    pthread_sigmask(SIG_UNBLOCK, &fault, nullptr);
}

/// The fault may have happened inside the trace's critical section: the report then goes without
/// the trace.
void give_up_busy_trace() {
    if (CritSectSem.Acquire(seconds_for_the_trace) == 0) {
        CritSectSem.Release();
    } else {
        static_cast<void>(trace.release());
    }
}

void report_signal(const siginfo_t& info) {
    if (info.si_signo == SIGSEGV) {
        writelog(1, "\nSegmentation Fault.. Stopping\n");
    }
    writelog(1,
             "si_signo:  %d\nsi_code:   %s\nsi_errno:  %d\nsi_pid:    %d\nsi_uid:    %d\n"
             "si_addr:   %p\nsi_status: %d\nsi_band:   %ld\n",
             info.si_signo, info.si_code == SEGV_MAPERR ? "SEGV_MAPERR" : "SEGV_ACCERR",
             info.si_errno, info.si_pid, static_cast<int>(info.si_uid), info.si_addr,
             info.si_status, info.si_band);
}

void report_context(const ucontext_t& context) {
    writelog(1, "uc_flags:  0x%x\nss_sp:     %p\nss_size:   %d\nss_flags:  0x%X\n",
             static_cast<unsigned int>(context.uc_flags), context.uc_stack.ss_sp,
             static_cast<int>(context.uc_stack.ss_size),
             static_cast<unsigned int>(context.uc_stack.ss_flags));
    const mcontext_t& machine = context.uc_mcontext;
    writelog(1, "General Registers:\n");
    for (std::size_t i = 0; i < gregs.size(); ++i) {
        writelog(1, "\t%7s: 0x%lx\n", gregs[i], register_value(machine, i));
    }
    writelog(1, "\tOLDMASK: 0x%lx\n", old_mask(machine));
    writelog(1, "\t    CR2: 0x%lx\n", fault_address_register(machine));
}

}  // namespace

void sigsegv_catcher(int /*signal_number*/, siginfo_t* info, void* context) {
    end_at_next_fault();
    give_up_busy_trace();
    report_signal(*info);
    report_context(*static_cast<const ucontext_t*>(context));
    close_log_file();
    _exit(EXIT_SEGMENTATION_FAULT);
}

void install_fault_report() {
    struct sigaction action = {};
    action.sa_sigaction = sigsegv_catcher;
    action.sa_flags = SA_SIGINFO;
    sigemptyset(&action.sa_mask);
    sigaction(SIGSEGV, &action, nullptr);
}
