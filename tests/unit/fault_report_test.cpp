#include "process/fault_report.h"

#include "journal/output.h"
#include "journal/zelfwtrace.h"
#include "process/signal_hold.h"
#include "session/zelflash.h"
#include "support/child_process.h"
#include "support/temporary_directory.h"
#include "support/trace_file.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <poll.h>
#include <sys/mman.h>
#include <sys/ucontext.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <thread>
#include <vector>

using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

namespace {

constexpr int segmentation_fault = 12;
constexpr std::size_t page_size = 4096;

/// An address in the first pages, where the kernel lets nothing be mapped, whatever else is.
char* unmapped_address() {
    volatile std::uintptr_t address = 0x102A;
    return reinterpret_cast<char*>(address);
}

/// An address in a page that may only be read.
char* protected_address() {
    void* page = mmap(nullptr, page_size, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    EXPECT_NE(page, MAP_FAILED);
    return static_cast<char*>(page) + 0x2A;
}

std::string as_pointer(const void* address) {
    char text[32];
    std::snprintf(text, sizeof(text), "%p", address);
    return text;
}

siginfo_t fault_information(int code) {
    siginfo_t information = {};
    information.si_signo = SIGSEGV;
    information.si_code = code;
    information.si_errno = 5;
    information.si_addr = reinterpret_cast<void*>(0x1234);
    return information;
}

/// A context whose registers hold 0x100, 0x101 and so on.
ucontext_t numbered_context() {
    ucontext_t context = {};
    context.uc_flags = 0xABCD;
    context.uc_stack.ss_sp = reinterpret_cast<void*>(0x5000);
    context.uc_stack.ss_size = 8192;
    context.uc_stack.ss_flags = 0x2A;
    int value = 0x100;
    for (auto& general_register : context.uc_mcontext.gregs) {
        general_register = value++;
    }
#ifdef __i386__
    context.uc_mcontext.oldmask = 0x200;
    context.uc_mcontext.cr2 = 0x1234;
#else
    context.uc_mcontext.gregs[REG_OLDMASK] = 0x200;
    context.uc_mcontext.gregs[REG_CR2] = 0x1234;
#endif
    return context;
}

constexpr char numbered_registers[] =
#ifdef __i386__
    "\t     GS: 0x100\n"
    "\t     FS: 0x101\n"
    "\t     ES: 0x102\n"
    "\t     DS: 0x103\n"
    "\t    EDI: 0x104\n"
    "\t    ESI: 0x105\n"
    "\t    EBP: 0x106\n"
    "\t    ESP: 0x107\n"
    "\t    EBX: 0x108\n"
    "\t    EDX: 0x109\n"
    "\t    ECX: 0x10a\n"
    "\t    EAX: 0x10b\n"
    "\t TRAPNO: 0x10c\n"
    "\t    ERR: 0x10d\n"
    "\t    EIP: 0x10e\n"
    "\t     CS: 0x10f\n"
    "\t    EFL: 0x110\n"
    "\t   UESP: 0x111\n"
    "\t     SS: 0x112\n"
#else
    "\t     R8: 0x100\n"
    "\t     R9: 0x101\n"
    "\t    R10: 0x102\n"
    "\t    R11: 0x103\n"
    "\t    R12: 0x104\n"
    "\t    R13: 0x105\n"
    "\t    R14: 0x106\n"
    "\t    R15: 0x107\n"
    "\t    RDI: 0x108\n"
    "\t    RSI: 0x109\n"
    "\t    RBP: 0x10a\n"
    "\t    RBX: 0x10b\n"
    "\t    RDX: 0x10c\n"
    "\t    RAX: 0x10d\n"
    "\t    RCX: 0x10e\n"
    "\t    RSP: 0x10f\n"
    "\t    RIP: 0x110\n"
    "\t    EFL: 0x111\n"
    "\t CSGSFS: 0x112\n"
    "\t    ERR: 0x113\n"
    "\t TRAPNO: 0x114\n"
#endif
    "\tOLDMASK: 0x200\n"
    "\t    CR2: 0x1234\n";

std::string expected_report(const std::string& first_line, int signal_number,
                            const std::string& code) {
    return first_line + "si_signo:  " + std::to_string(signal_number) + "\nsi_code:   " + code +
           "\n"
           "si_errno:  5\n"
           "si_pid:    4660\n"
           "si_uid:    0\n"
           "si_addr:   0x1234\n"
           "si_status: 0\n"
           "si_band:   4660\n"
           "uc_flags:  0xabcd\n"
           "ss_sp:     0x5000\n"
           "ss_size:   8192\n"
           "ss_flags:  0x2A\n"
           "General Registers:\n" +
           numbered_registers;
}

/// Reports a fault that did not happen.
ChildEnd reported(siginfo_t information) {
    return run_in_child([&information] {
        ucontext_t registers = numbered_context();
        sigsegv_catcher(SIGSEGV, &information, &registers);
    });
}

/// Uses up the stack, since no frame holds what it looks for.
// NOLINTNEXTLINE(misc-no-recursion)
int use_up_stack(const volatile char* frame_of_caller) {
    volatile char frame[1024] = {};
    return frame_of_caller[0] == 'x' ? 0 : use_up_stack(frame) + frame[0];
}

/// Makes standard output a pipe that is full and that nobody reads.
void fill_console() {
    int full[2] = {};
    if (pipe(full) != 0) {
        _exit(1);
    }
    dup2(full[1], STDOUT_FILENO);
    for (pollfd output = {.fd = STDOUT_FILENO, .events = POLLOUT, .revents = 0};
         poll(&output, 1, 0) == 1;) {
        const char filling[4096] = {};
        if (write(STDOUT_FILENO, filling, sizeof(filling)) < 0) {
            _exit(1);
        }
    }
}

constexpr std::chrono::seconds longest_report(5);

/// Faults of child processes with log and trace.
class Fault : public testing::Test {
  protected:
    void open_journals() const {
        open_log_file(directory_.path("log").c_str());
        trace = std::make_unique<Trace>(directory_.path("trace").c_str(), 0, 0);
    }
    /// A fault at `address`, in the middle of a run.
    ChildEnd fault_at(char* address) const {
        return run_in_child([&] {
            open_journals();
            install_fault_report();
            const auto session = std::make_unique<ZELFLASH>();
            *const_cast<volatile char*>(address) = 'x';
        });
    }
    std::string log() const { return read_file(directory_.path("log")); }

    TemporaryDirectory directory_;
};

}  // namespace

TEST(FaultReport, ShowsEveryRegisterByteForByte) {
    const ChildEnd end = reported(fault_information(1));
    EXPECT_EQ(end.exit_code, segmentation_fault);
    EXPECT_EQ(end.output,
              expected_report("\nSegmentation Fault.. Stopping\n", SIGSEGV, "SEGV_MAPERR"));
    EXPECT_EQ(end.errors, "");
}

TEST(FaultReport, CallsEveryOtherCodeAnAccessError) {
    for (const int code : {2, 0, 3, 4, -6, 128}) {
        EXPECT_EQ(reported(fault_information(code)).output,
                  expected_report("\nSegmentation Fault.. Stopping\n", SIGSEGV, "SEGV_ACCERR"))
            << code;
    }
}

TEST(FaultReport, CallsOnlyASegmentationFaultOne) {
    siginfo_t information = fault_information(1);
    information.si_signo = SIGBUS;
    const ChildEnd end = reported(information);
    EXPECT_EQ(end.exit_code, segmentation_fault);
    EXPECT_EQ(end.output, expected_report("", SIGBUS, "SEGV_MAPERR"));
}

TEST(FaultReport, ShowsWholeRegisters) {
    const ChildEnd end = run_in_child([] {
        siginfo_t information = fault_information(1);
        ucontext_t registers = numbered_context();
        registers.uc_mcontext.gregs[0] = -2;
        sigsegv_catcher(SIGSEGV, &information, &registers);
    });
#ifdef __i386__
    EXPECT_THAT(end.output, HasSubstr("\t     GS: 0xfffffffe\n"));
#else
    EXPECT_THAT(end.output, HasSubstr("\t     R8: 0xfffffffffffffffe\n"));
#endif
}

TEST(FaultReport, EndsWithTheSameCodeWhenItFaultsItself) {
    const ChildEnd end = run_in_child([] {
        install_fault_report();
        siginfo_t information = fault_information(1);
        sigsegv_catcher(SIGSEGV, &information, unmapped_address() - 0x2A);
    });
    EXPECT_EQ(end.exit_code, segmentation_fault);
    EXPECT_THAT(end.output, StartsWith("\nSegmentation Fault.. Stopping\n"));
    EXPECT_THAT(end.output, EndsWith("si_band:   4660\n"));
}

TEST(FaultReport, IsInstalledForSegmentationFaultsWithTheirInformation) {
    install_fault_report();
    struct sigaction action = {};
    ASSERT_EQ(sigaction(SIGSEGV, nullptr, &action), 0);
    EXPECT_EQ(action.sa_sigaction, sigsegv_catcher);
    EXPECT_NE(action.sa_flags & SA_SIGINFO, 0);
    EXPECT_NE(action.sa_flags & SA_ONSTACK, 0);
    EXPECT_EQ(static_cast<unsigned>(action.sa_flags) & (SA_RESETHAND | SA_NODEFER | SA_RESTART),
              0U);
    for (int number = 1; number < NSIG; ++number) {
        EXPECT_EQ(sigismember(&action.sa_mask, number), 0) << number;
    }
}

TEST_F(Fault, AtAnUnmappedAddressIsReported) {
    char* const address = unmapped_address();
    const ChildEnd end = fault_at(address);
    EXPECT_EQ(end.exit_code, segmentation_fault);
    EXPECT_THAT(end.output, StartsWith("\nSegmentation Fault.. Stopping\n"
                                       "si_signo:  11\nsi_code:   SEGV_MAPERR\nsi_errno:  0\n"));
    EXPECT_THAT(end.output, HasSubstr("\nsi_addr:   " + as_pointer(address) + "\n"));
    EXPECT_THAT(end.output, EndsWith("\n\t    CR2: " + as_pointer(address) + "\n"));
}

TEST_F(Fault, AtAProtectedAddressIsAnAccessError) {
    char* const address = protected_address();
    const ChildEnd end = fault_at(address);
    EXPECT_EQ(end.exit_code, segmentation_fault);
    EXPECT_THAT(end.output, HasSubstr("\nsi_code:   SEGV_ACCERR\n"));
    EXPECT_THAT(end.output, EndsWith("\n\t    CR2: " + as_pointer(address) + "\n"));
}

TEST_F(Fault, LeavesTheReportAtTheEndOfTheLog) {
    char* const address = unmapped_address();
    const ChildEnd end = fault_at(address);
    EXPECT_THAT(log(), HasSubstr("USB Flash Started at"));
    EXPECT_THAT(log(), EndsWith(end.output));
    EXPECT_THAT(log(), EndsWith("\n\t    CR2: " + as_pointer(address) + "\n"));
    EXPECT_THAT(log(), Not(HasSubstr("USB Flash ended")));
}

TEST_F(Fault, IsTraced) {
    const ChildEnd end = fault_at(unmapped_address());
    std::string traced;
    for (const std::string& text : trace_texts(directory_.path("trace"))) {
        traced += text;
    }
    EXPECT_THAT(traced, EndsWith(end.output));
}

TEST_F(Fault, IsLoggedButNotShownAtTheQuietLevel) {
    OutputLevel = 0;
    const ChildEnd end = fault_at(unmapped_address());
    EXPECT_EQ(end.exit_code, segmentation_fault);
    EXPECT_EQ(end.output, "");
    EXPECT_THAT(log(), HasSubstr("\nSegmentation Fault.. Stopping\n"));
}

TEST_F(Fault, InsideTheCriticalSectionIsReportedWithoutTheTrace) {
    char* const address = unmapped_address();
    const auto start = std::chrono::steady_clock::now();
    const ChildEnd end = run_in_child([&] {
        open_journals();
        install_fault_report();
        chEnterCritSec();
        *const_cast<volatile char*>(address) = 'x';
    });
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(20));
    EXPECT_EQ(end.exit_code, segmentation_fault);
    EXPECT_THAT(log(), EndsWith("\n\t    CR2: " + as_pointer(address) + "\n"));
    EXPECT_EQ(log(), end.output);
    EXPECT_EQ(trace_texts(directory_.path("trace")), std::vector<std::string>{});
}

TEST_F(Fault, OfAnotherThreadIsReported) {
    char* const address = unmapped_address();
    const ChildEnd end = run_in_child([&] {
        open_journals();
        install_fault_report();
        std::thread([&] { *const_cast<volatile char*>(address) = 'x'; }).join();
    });
    EXPECT_EQ(end.exit_code, segmentation_fault);
    EXPECT_THAT(log(), EndsWith("\n\t    CR2: " + as_pointer(address) + "\n"));
}

#ifndef __SANITIZE_THREAD__  // its own _exit flushes standard output, whose lock is held here
TEST_F(Fault, IsReportedThoughItsThreadHoldsEveryLock) {
    char* const address = unmapped_address();
    const auto start = std::chrono::steady_clock::now();
    const ChildEnd end = run_in_child([&] {
        open_journals();
        install_fault_report();
        // From another thread, lest the locks that may be taken twice are.
        std::thread([] {
            flockfile(stdout);
            flockfile(hLogFile);
            pthread_mutex_lock(&CritSectSem.serializer);
        }).join();
        *const_cast<volatile char*>(address) = 'x';
    });
    EXPECT_LT(std::chrono::steady_clock::now() - start, longest_report);
    EXPECT_EQ(end.exit_code, segmentation_fault);
    EXPECT_THAT(end.output, EndsWith("\n\t    CR2: " + as_pointer(address) + "\n"));
    EXPECT_EQ(log(), end.output);
    std::string traced;
    for (const std::string& text : trace_texts(directory_.path("trace"))) {
        traced += text;
    }
    EXPECT_EQ(traced, end.output);
}
#endif

TEST_F(Fault, IsLoggedThoughTheConsoleTakesNothing) {
    char* const address = unmapped_address();
    const auto start = std::chrono::steady_clock::now();
    const ChildEnd end = run_in_child([&] {
        open_journals();
        install_fault_report();
        fill_console();
        *const_cast<volatile char*>(address) = 'x';
    });
    EXPECT_LT(std::chrono::steady_clock::now() - start, longest_report);
    EXPECT_EQ(end.exit_code, segmentation_fault);
    EXPECT_THAT(log(), EndsWith("\n\t    CR2: " + as_pointer(address) + "\n"));
}

TEST_F(Fault, IsNotHeldUpByASignalThatIsHeldBack) {
    const auto start = std::chrono::steady_clock::now();
    const ChildEnd end = run_in_child([&] {
        install_fault_report();
        const SignalHold hold({0x3C35, "PR40021", 1});
        raise(SIGTERM);
        raise(SIGALRM);
        fill_console();
        *const_cast<volatile char*>(unmapped_address()) = 'x';
    });
    EXPECT_LT(std::chrono::steady_clock::now() - start, longest_report);
    EXPECT_EQ(end.exit_code, segmentation_fault);
}

TEST_F(Fault, OfAnExhaustedStackIsReported) {
    const ChildEnd end = run_in_child([&] {
        open_journals();
        install_fault_report();
        use_up_stack("");
    });
    EXPECT_EQ(end.exit_code, segmentation_fault);
    EXPECT_THAT(end.output, StartsWith("\nSegmentation Fault.. Stopping\n"));
    EXPECT_EQ(log(), end.output);
}

TEST_F(Fault, OfAReadersExhaustedStackIsReported) {
    const ChildEnd end = run_in_child([&] {
        open_journals();
        install_fault_report();
        std::thread([] {
            FaultStack stack;
            use_up_stack("");
        }).join();
    });
    EXPECT_EQ(end.exit_code, segmentation_fault);
    EXPECT_THAT(end.output, StartsWith("\nSegmentation Fault.. Stopping\n"));
    EXPECT_EQ(log(), end.output);
}

TEST_F(Fault, OfManyThreadsIsReportedOnceAndWhole) {
    const ChildEnd end = run_in_child([&] {
        open_journals();
        install_fault_report();
        // The report waits for the trace, and the others fault meanwhile.
        chEnterCritSec();
        std::vector<std::thread> threads;
        for (int i = 0; i < 8; ++i) {
            threads.emplace_back([] { *const_cast<volatile char*>(unmapped_address()) = 'x'; });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
    });
    EXPECT_EQ(end.exit_code, segmentation_fault);
    EXPECT_EQ(log(), end.output);
    EXPECT_THAT(log(), StartsWith("\nSegmentation Fault.. Stopping\n"));
    EXPECT_THAT(log(), EndsWith("\n\t    CR2: " + as_pointer(unmapped_address()) + "\n"));
    EXPECT_EQ(log().find("Stopping", 25), std::string::npos);
}

TEST(FaultStack, IsGivenBack) {
    stack_t before = {};
    sigaltstack(nullptr, &before);
    {
        FaultStack stack;
        stack_t during = {};
        sigaltstack(nullptr, &during);
        EXPECT_GE(reinterpret_cast<char*>(during.ss_sp), reinterpret_cast<char*>(&stack));
        EXPECT_LT(reinterpret_cast<char*>(during.ss_sp), reinterpret_cast<char*>(&stack + 1));
        EXPECT_EQ(during.ss_flags, 0);
    }
    stack_t after = {};
    sigaltstack(nullptr, &after);
    EXPECT_EQ(after.ss_sp, before.ss_sp);
    EXPECT_EQ(after.ss_flags, before.ss_flags);
}
