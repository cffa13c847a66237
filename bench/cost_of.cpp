/// \file
/// Runs a command and prints exit code, wall seconds, processor seconds and the largest resident
/// size in MiB. A program of its own, linked statically, because a child's largest size counts from
/// its parent's.
#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

namespace {

double seconds(const timeval& time) {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) * 1e-6;
}

double now() {
    timespec time = {};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) {
        std::fputs("usage: cost_of CONSOLE-FILE COMMAND [ARGUMENT ...]\n", stderr);
        return 2;
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, argv[1], O_WRONLY | O_CREAT | O_TRUNC,
                                     0644);
    const double start = now();
    pid_t child = 0;
    const int error = posix_spawnp(&child, argv[2], &actions, nullptr, argv + 2, environ);
    if (error != 0) {
        std::fprintf(stderr, "%s: %s\n", argv[2], std::strerror(error));
        return 1;
    }
    int status = 0;
    rusage usage = {};
    while (wait4(child, &status, 0, &usage) < 0 && errno == EINTR) {
    }
    const double wall = now() - start;
    std::printf("%d %.6f %.6f %.3f\n", WIFEXITED(status) ? WEXITSTATUS(status) : -1, wall,
                seconds(usage.ru_utime) + seconds(usage.ru_stime),
                static_cast<double>(usage.ru_maxrss) / 1024);
    return 0;
}
