#include "warm_child.h"

#include "fork_server/request.h"
#include "guard/terms.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <csignal>
#include <stdexcept>

namespace {

constexpr const char* preload_variable = "LD_PRELOAD";

bool is_pinned = false;

bool assigns(const std::string& assignment, const char* name) {
    return assignment.starts_with(std::string(name) + "=");
}

/// What the loader and the guard need; all else comes with each request.
std::vector<std::string> environment_of_server(const ChildSettings& settings) {
    static std::atomic<unsigned> servers{0};
    std::vector<std::string> environment = {std::string(fork_server::variable) + "=" +
                                            (is_pinned ? std::to_string(servers++) : "")};
    for (const std::string& assignment : settings.environment) {
        if (assigns(assignment, preload_variable)) {
            environment.push_back(assignment + ":" + FORK_SERVER);
        } else if (assigns(assignment, zelfsim::guard::library_variable)) {
            environment.push_back(assignment);
        }
    }
    return environment;
}

class ForkServer {
  public:
    explicit ForkServer(const ChildSettings& settings) {
        std::array<int, 2> ends{};
        if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends.data()) != 0) {
            throw std::runtime_error("no socket for a fork server");
        }
        socket_ = ends[0];
        process_ = start_child({.command = {settings.command[0]},
                                .environment = environment_of_server(settings),
                                .output_file = "/dev/null",
                                .error_file = "/dev/null",
                                .descriptor = std::pair(ends[1], fork_server::descriptor)});
        close(ends[1]);
    }
    ~ForkServer() {
        close(socket_);
        waitpid(process_, nullptr, 0);
    }
    ForkServer(const ForkServer&) = delete;
    ForkServer& operator=(const ForkServer&) = delete;

    ChildEnd run(const ChildSettings& settings) const {
        ask(settings);
        const pid_t process = answer();
        pollfd answered = {socket_, POLLIN, 0};
        const bool in_time = poll(&answered, 1, static_cast<int>(settings.longest.count())) == 1;
        if (!in_time) {
            kill(process, SIGKILL);
        }
        ChildEnd end = end_of(answer());
        end.killed = !in_time;
        return end;
    }

  private:
    void ask(const ChildSettings& settings) const {
        const std::string message = fork_server::encode({.output_file = settings.output_file,
                                                         .error_file = settings.error_file,
                                                         .environment = settings.environment,
                                                         .command = settings.command});
        if (message.size() > fork_server::longest_request ||
            send(socket_, message.data(), message.size(), MSG_NOSIGNAL) < 0) {
            throw std::runtime_error("the fork server takes no request");
        }
    }
    int answer() const {
        int number = 0;
        if (read(socket_, &number, sizeof number) != sizeof number) {
            throw std::runtime_error("the fork server has ended");
        }
        return number;
    }

    int socket_ = -1;
    pid_t process_ = -1;
};

}  // namespace

void pin_warm_children() {
    is_pinned = true;
}

ChildEnd run_warm_child(const ChildSettings& settings) {
    thread_local const ForkServer server(settings);
    return server.run(settings);
}
