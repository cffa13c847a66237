// Preloaded behind the objects of a run in virtual time: the program is loaded once, with the
// simulation, and stops in front of its main. Each request forks a process that goes on from there.
#include "fork_server/request.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstddef>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

using Main = int (*)(int, char**, char**);

constexpr int could_not_start = 127;

/// The C library's own: virtual time stands before it, and knows of no other processes.
template <typename Function>
Function next(const char* name) {
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

[[noreturn]] void end_server(const char* reason) {
    static_cast<void>(!write(STDERR_FILENO, reason, std::char_traits<char>::length(reason)));
    _exit(could_not_start);
}

void redirect(int stream, const std::string& file, int flags) {
    constexpr mode_t mode = 0644;
    const int opened = open(file.c_str(), flags, mode);
    if (opened < 0 || dup2(opened, stream) < 0) {
        _exit(could_not_start);
    }
    close(opened);
}

/// One thread of the program runs at a time, and waking the next is quickest where the last one
/// was.
void stay_on_one_processor(std::size_t number) {
    cpu_set_t allowed;
    if (sched_getaffinity(0, sizeof allowed, &allowed) != 0) {
        return;
    }
    std::size_t left = number % static_cast<std::size_t>(CPU_COUNT(&allowed));
    for (std::size_t processor = 0; processor < CPU_SETSIZE; ++processor) {
        if (CPU_ISSET(processor, &allowed) && left-- == 0) {
            cpu_set_t chosen;
            CPU_ZERO(&chosen);
            CPU_SET(processor, &chosen);
            sched_setaffinity(0, sizeof chosen, &chosen);
            return;
        }
    }
}

/// In the new process: what starting it by itself would have given it.
void become(const fork_server::Request& request) {
    constexpr int fresh = O_WRONLY | O_CREAT | O_TRUNC | O_APPEND;
    close(fork_server::descriptor);
    redirect(STDIN_FILENO, "/dev/null", O_RDONLY);
    redirect(STDOUT_FILENO, request.output_file, fresh);
    redirect(STDERR_FILENO, request.error_file, fresh);
    unsetenv(fork_server::variable);
    for (const std::string& assignment : request.environment) {
        const std::size_t equals = assignment.find('=');
        setenv(assignment.substr(0, equals).c_str(), assignment.substr(equals + 1).c_str(), 1);
    }
    if (const auto begin_again =
            reinterpret_cast<void (*)()>(dlsym(RTLD_DEFAULT, "zelfwsim_time_begin_again"))) {
        begin_again();
    }
}

/// Comes back in each process that is to be the program; the server ends with its socket.
std::vector<std::string> serve() {
    const auto real_fork = next<pid_t (*)()>("fork");
    const auto real_wait = next<pid_t (*)(pid_t, int*, int)>("waitpid");
    std::vector<char> message(fork_server::longest_request);
    const auto answer = [](int number) {
        if (write(fork_server::descriptor, &number, sizeof number) != sizeof number) {
            _exit(EXIT_SUCCESS);
        }
    };
    while (true) {
        const ssize_t length = read(fork_server::descriptor, message.data(), message.size());
        if (length <= 0) {
            _exit(EXIT_SUCCESS);
        }
        const auto request =
            fork_server::decode({message.data(), static_cast<std::size_t>(length)});
        const pid_t process = real_fork();
        if (process == 0) {
            become(request);
            return request.command;
        }
        if (process < 0) {
            end_server("fork server: no process\n");
        }
        answer(process);
        int status = 0;
        real_wait(process, &status, 0);
        answer(status);
    }
}

/// Kept for good: whoever opens it in a forked process finds it there.
void load_simulation() {
    const char* library = std::getenv("ZELFWSIM_LIBRARY");
    if (library == nullptr || dlopen(library, RTLD_NOW) == nullptr) {
        end_server("fork server: there is no simulation\n");
    }
}

}  // namespace

// The name is the C library's.
extern "C" __attribute__((visibility("default"))) int __libc_start_main(Main main, int argc,
                                                                        char** argv, void (*init)(),
                                                                        void (*fini)(),
                                                                        void (*loader_fini)(),
                                                                        void* stack_end) {
    static std::vector<std::string> command;
    static std::vector<char*> arguments;
    if (const char* number = std::getenv(fork_server::variable)) {
        if (*number != '\0') {
            stay_on_one_processor(std::strtoul(number, nullptr, 10));
        }
        load_simulation();
        command = serve();
        for (std::string& text : command) {
            arguments.push_back(text.data());
        }
        argc = static_cast<int>(arguments.size());
        arguments.push_back(nullptr);
        argv = arguments.data();
    }
    return next<int (*)(Main, int, char**, void (*)(), void (*)(), void (*)(), void*)>(
        "__libc_start_main")(main, argc, argv, init, fini, loader_fini, stack_end);
}
