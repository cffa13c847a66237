#include "process/fault_report.h"

#include "exit_code.h"
#include "journal/handler_output.h"

#include <sys/ucontext.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstdarg>
#include <cstdio>
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

constexpr unsigned int longest_report = 3;  // seconds
constexpr std::size_t message_size = 512;

/// The thread that reports; 0 when none.
std::atomic<pthread_t> reporter{0};
static_assert(std::atomic<pthread_t>::is_always_lock_free);

[[noreturn]] void end_here(int /*signal_number*/) {
    _exit(EXIT_SEGMENTATION_FAULT);
}

/// Another thread is on its report, or runs out of time with it.
[[noreturn]] void wait_for_end() {
    for (;;) {
        pause();
    }
}

[[noreturn]] void end_at_second_fault(int /*signal_number*/) {
    if (pthread_equal(reporter, pthread_self()) == 0) {
        wait_for_end();
    }
    _exit(EXIT_SEGMENTATION_FAULT);
}

/// The handler of a fault is entered with the signal blocked: a second one would not be reported
/// to anybody. And whatever the fault has left behind, the report takes its time at most.
void make_sure_of_the_end() {
    struct sigaction action = {};
    sigemptyset(&action.sa_mask);
    action.sa_handler = end_at_second_fault;
    sigaction(SIGSEGV, &action, nullptr);
    action.sa_handler = end_here;
    sigaction(SIGALRM, &action, nullptr);
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGSEGV);
    sigaddset(&signals, SIGALRM);
    pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
    alarm(longest_report);
}

/// A part of the report to one output. The C library formats plain conversions, without positions
/// and without grouping, on the stack alone.
__attribute__((format(printf, 2, 3))) void say(HandlerOutput output, const char* format, ...) {
    char text[message_size];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text, sizeof(text), format, arguments);
    va_end(arguments);
    write_in_handler(output, text);
}

void report_signal(HandlerOutput output, const siginfo_t& info) {
    if (info.si_signo == SIGSEGV) {
        say(output, "\nSegmentation Fault.. Stopping\n");
    }
    say(output,
        "si_signo:  %d\nsi_code:   %s\nsi_errno:  %d\nsi_pid:    %d\nsi_uid:    %d\n"
        "si_addr:   %p\nsi_status: %d\nsi_band:   %ld\n",
        info.si_signo, info.si_code == SEGV_MAPERR ? "SEGV_MAPERR" : "SEGV_ACCERR", info.si_errno,
        info.si_pid, static_cast<int>(info.si_uid), info.si_addr, info.si_status, info.si_band);
}

void report_context(HandlerOutput output, const ucontext_t& context) {
    say(output, "uc_flags:  0x%x\nss_sp:     %p\nss_size:   %d\nss_flags:  0x%X\n",
        static_cast<unsigned int>(context.uc_flags), context.uc_stack.ss_sp,
        static_cast<int>(context.uc_stack.ss_size),
        static_cast<unsigned int>(context.uc_stack.ss_flags));
    const mcontext_t& machine = context.uc_mcontext;
    say(output, "General Registers:\n");
    for (std::size_t i = 0; i < gregs.size(); ++i) {
        say(output, "\t%7s: 0x%lx\n", gregs[i], register_value(machine, i));
    }
    say(output, "\tOLDMASK: 0x%lx\n", old_mask(machine));
    say(output, "\t    CR2: 0x%lx\n", fault_address_register(machine));
}

}  // namespace

FaultStack::FaultStack() {
    stack_t stack = {};
    stack.ss_sp = memory_.data();
    stack.ss_size = memory_.size();
    sigaltstack(&stack, &earlier_);
}

FaultStack::~FaultStack() {
    sigaltstack(&earlier_, nullptr);
}

void sigsegv_catcher(int /*signal_number*/, siginfo_t* info, void* context) {
    pthread_t nobody = 0;
    if (!reporter.compare_exchange_strong(nobody, pthread_self())) {
        wait_for_end();
    }
    make_sure_of_the_end();
    // One output after the other: a console that takes nothing must not cost the log.
    for (const auto output : {HandlerOutput::log, HandlerOutput::trace, HandlerOutput::console}) {
        if (is_ready_in_handler(output)) {
            report_signal(output, *info);
            report_context(output, *static_cast<const ucontext_t*>(context));
        }
    }
    close_log_in_handler();
    _exit(EXIT_SEGMENTATION_FAULT);
}

void install_fault_report() {
    static FaultStack stack_of_the_main_thread;
    struct sigaction action = {};
    action.sa_sigaction = sigsegv_catcher;
    action.sa_flags = SA_SIGINFO | SA_ONSTACK;
    sigemptyset(&action.sa_mask);
    sigaction(SIGSEGV, &action, nullptr);
}
