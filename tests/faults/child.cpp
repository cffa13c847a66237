#include "child.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <stdexcept>

namespace {

using Clock = std::chrono::steady_clock;

class FileActions {
  public:
    FileActions() { posix_spawn_file_actions_init(&actions_); }
    ~FileActions() { posix_spawn_file_actions_destroy(&actions_); }
    FileActions(const FileActions&) = delete;
    FileActions& operator=(const FileActions&) = delete;

    void open(int descriptor, const char* name, int flags) {
        constexpr mode_t mode = 0644;
        posix_spawn_file_actions_addopen(&actions_, descriptor, name, flags, mode);
    }
    void hand_over(int descriptor, int number) {
        posix_spawn_file_actions_adddup2(&actions_, descriptor, number);
    }
    const posix_spawn_file_actions_t* get() const { return &actions_; }

  private:
    posix_spawn_file_actions_t actions_{};
};

/// The signals of the cases end the program as they do on a terminal, also under nohup.
class SpawnAttributes {
  public:
    SpawnAttributes() {
        sigset_t signals;
        sigemptyset(&signals);
        for (const int number : {SIGHUP, SIGINT, SIGTERM}) {
            sigaddset(&signals, number);
        }
        posix_spawnattr_init(&attributes_);
        posix_spawnattr_setsigdefault(&attributes_, &signals);
        posix_spawnattr_setflags(&attributes_, POSIX_SPAWN_SETSIGDEF);
    }
    ~SpawnAttributes() { posix_spawnattr_destroy(&attributes_); }
    SpawnAttributes(const SpawnAttributes&) = delete;
    SpawnAttributes& operator=(const SpawnAttributes&) = delete;
    const posix_spawnattr_t* get() const { return &attributes_; }

  private:
    posix_spawnattr_t attributes_{};
};

std::vector<char*> pointers_to(const std::vector<std::string>& texts) {
    std::vector<char*> pointers;
    pointers.reserve(texts.size());
    for (const std::string& text : texts) {
        pointers.push_back(const_cast<char*>(text.c_str()));
    }
    return pointers;
}

/// Waits until the process has ended; false when it has not in time.
bool wait_for_end(pid_t pid, std::chrono::milliseconds longest) {
    const int descriptor = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
    if (descriptor < 0) {
        throw std::runtime_error("this kernel cannot wait for a process with a time-out");
    }
    pollfd end = {descriptor, POLLIN, 0};
    const int ready = poll(&end, 1, static_cast<int>(longest.count()));
    close(descriptor);
    return ready == 1;
}

}  // namespace

ChildEnd end_of(int wait_status) {
    ChildEnd end;
    end.exit_code = WIFEXITED(wait_status) ? WEXITSTATUS(wait_status) : -1;
    end.signal = WIFSIGNALED(wait_status) ? WTERMSIG(wait_status) : 0;
    return end;
}

pid_t start_child(const ChildSettings& settings) {
    FileActions actions;
    constexpr int fresh = O_WRONLY | O_CREAT | O_TRUNC | O_APPEND;
    actions.open(STDIN_FILENO, "/dev/null", O_RDONLY);
    actions.open(STDOUT_FILENO, settings.output_file.c_str(), fresh);
    actions.open(STDERR_FILENO, settings.error_file.c_str(), fresh);
    if (settings.descriptor) {
        actions.hand_over(settings.descriptor->first, settings.descriptor->second);
    }
    std::vector<char*> arguments = pointers_to(settings.command);
    arguments.push_back(nullptr);
    std::vector<char*> environment = pointers_to(settings.environment);
    for (char** entry = environ; *entry != nullptr; ++entry) {
        environment.push_back(*entry);
    }
    environment.push_back(nullptr);
    pid_t pid = -1;
    if (posix_spawn(&pid, arguments[0], actions.get(), SpawnAttributes().get(), arguments.data(),
                    environment.data()) != 0) {
        throw std::runtime_error("could not start " + settings.command[0]);
    }
    return pid;
}

ChildEnd run_child(const ChildSettings& settings) {
    const Clock::time_point begin = Clock::now();
    const pid_t pid = start_child(settings);
    const bool in_time = wait_for_end(pid, settings.longest);
    if (!in_time) {
        kill(pid, SIGKILL);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    ChildEnd end = end_of(status);
    end.killed = !in_time;
    end.duration = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - begin);
    return end;
}
