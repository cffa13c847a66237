#include "run/command.h"

#include "common/file_access.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <system_error>

namespace zelfsim {

namespace {

/// Those that a command is ended or told something by, and its own end.
constexpr std::array known_signals = {SIGINT,  SIGTERM, SIGHUP,   SIGQUIT,
                                      SIGUSR1, SIGUSR2, SIGWINCH, SIGCHLD};

/// Blocks the signals for as long as it lives, so that they can be waited for.
class HeldSignals {
  public:
    HeldSignals() {
        sigemptyset(&signals_);
        for (const int number : known_signals) {
            sigaddset(&signals_, number);
        }
        sigprocmask(SIG_BLOCK, &signals_, &before_);
        // Else a caller that ignores it would keep the command's end from us.
        std::signal(SIGCHLD, SIG_DFL);
    }
    ~HeldSignals() {
        // What came too late for the command.
        const timespec none{};
        while (sigtimedwait(&signals_, nullptr, &none) >= 0) {
        }
        release();
    }
    HeldSignals(const HeldSignals&) = delete;
    HeldSignals& operator=(const HeldSignals&) = delete;

    void release() const { sigprocmask(SIG_SETMASK, &before_, nullptr); }
    siginfo_t wait() const {
        siginfo_t info{};
        while (sigwaitinfo(&signals_, &info) < 0 && errno == EINTR) {
        }
        return info;
    }

  private:
    sigset_t signals_{};
    sigset_t before_{};
};

struct Pipe {
    zelf::FileDescriptor reader, writer;
};

Pipe make_pipe() {
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) {
        throw std::system_error(errno, std::generic_category(), "pipe");
    }
    return {zelf::FileDescriptor(ends[0]), zelf::FileDescriptor(ends[1])};
}

std::vector<char*> pointers_to(std::vector<std::string>& texts) {
    std::vector<char*> pointers;
    pointers.reserve(texts.size() + 1);
    for (std::string& text : texts) {
        pointers.push_back(text.data());
    }
    pointers.push_back(nullptr);
    return pointers;
}

/// In the new process. Comes back only when the command cannot be started.
void become(const Command& command, const HeldSignals& signals, pid_t parent) {
    // Nothing goes on when this program is killed.
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) {
        raise(SIGKILL);
    }
    if (command.no_new_rights && prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) {
        return;
    }
    for (const auto& [name, value] : command.environment) {
        setenv(name.c_str(), value.c_str(), 1);
    }
    std::vector<std::string> arguments = command.arguments;
    signals.release();
    execv(command.file.c_str(), pointers_to(arguments).data());
}

pid_t start(const Command& command, const HeldSignals& signals) {
    const pid_t parent = getpid();
    Pipe failure = make_pipe();
    const pid_t child = fork();
    if (child < 0) {
        throw std::system_error(errno, std::generic_category(), "fork");
    }
    int error = 0;
    if (child == 0) {
        become(command, signals, parent);
        error = errno;
        static_cast<void>(!write(failure.writer.get(), &error, sizeof(error)));
        _exit(EXIT_FAILURE);
    }
    failure.writer = zelf::FileDescriptor();
    if (read(failure.reader.get(), &error, sizeof(error)) == sizeof(error)) {
        waitpid(child, nullptr, 0);
        throw std::system_error(error, std::generic_category(), command.file);
    }
    return child;
}

}  // namespace

int run_command(const Command& command) {
    const HeldSignals signals;
    const pid_t child = start(command, signals);
    int status = 0;
    while (waitpid(child, &status, WNOHANG) == 0) {
        const siginfo_t info = signals.wait();
        // A terminal has sent its signals to the command, too.
        const bool sent_to_us_alone = info.si_code <= 0 && info.si_pid != child;
        if (info.si_signo != SIGCHLD && sent_to_us_alone) {
            kill(child, info.si_signo);
        }
    }
    return status;
}

void end_by_signal(int number) {
    // The command has left a core file where one is wanted.
    const rlimit none{};
    setrlimit(RLIMIT_CORE, &none);
    sigset_t one{};
    sigemptyset(&one);
    sigaddset(&one, number);
    std::signal(number, SIG_DFL);
    sigprocmask(SIG_UNBLOCK, &one, nullptr);
    raise(number);
}

}  // namespace zelfsim
