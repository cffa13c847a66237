#include "support/child_process.h"

#include <fcntl.h>
#include <grp.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <thread>

namespace {

constexpr std::chrono::milliseconds poll_interval(2);
constexpr int could_not_start = 127;

struct FileEnd {
    void operator()(FILE* file) const { static_cast<void>(std::fclose(file)); }
};
using OwnFile = std::unique_ptr<FILE, FileEnd>;

OwnFile temporary_file() {
    OwnFile file(std::tmpfile());
    if (file == nullptr) {
        throw std::runtime_error("no temporary file");
    }
    return file;
}

std::string content_of(FILE* file) {
    std::string whole;
    std::rewind(file);
    char part[4096];
    for (size_t count = 0; (count = std::fread(part, 1, sizeof(part), file)) > 0;) {
        whole.append(part, count);
    }
    return whole;
}

void enter(const ProgramRun& run) {
    for (const std::string& assignment : run.environment) {
        const std::size_t equals = assignment.find('=');
        setenv(assignment.substr(0, equals).c_str(), assignment.substr(equals + 1).c_str(), 1);
    }
    if (!run.directory.empty() && chdir(run.directory.c_str()) != 0) {
        _exit(could_not_start);
    }
    if (run.as_ordinary_user) {
        become_ordinary_user();
    }
    if (run.has_one_output) {
        dup2(STDOUT_FILENO, STDERR_FILENO);
    }
}

std::vector<std::string> command_line(const std::string& name, const ProgramRun& run) {
    std::vector<std::string> texts = {name};
    texts.insert(texts.end(), run.arguments.begin(), run.arguments.end());
    return texts;
}

}  // namespace

ChildProcess::ChildProcess(const std::function<int()>& body)
    : deadline_(std::chrono::steady_clock::now() + std::chrono::seconds(RUN_TIME_LIMIT)) {
    std::fflush(nullptr);
    pid_ = fork();
    if (pid_ < 0) {
        throw std::runtime_error("no child process");
    }
    if (pid_ == 0) {
        const int code = body();
        std::fflush(nullptr);
        _exit(code);
    }
}

ChildProcess::~ChildProcess() {
    if (!ended_) {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
}

bool ChildProcess::has_ended() {
    if (!ended_) {
        ended_ = waitpid(pid_, &wait_status_, WNOHANG) == pid_;
    }
    return ended_;
}

bool ChildProcess::wait_until(const std::function<bool()>& condition) {
    while (!has_ended() && std::chrono::steady_clock::now() < deadline_) {
        if (condition()) {
            return true;
        }
        std::this_thread::sleep_for(poll_interval);
    }
    return false;
}

void ChildProcess::send_signal(int number) {
    if (!has_ended()) {
        kill(pid_, number);
    }
}

ChildEnd ChildProcess::finish() {
    ChildEnd end;
    wait_until([] { return false; });
    if (!ended_) {
        end.timed_out = true;
        kill(pid_, SIGKILL);
        ended_ = waitpid(pid_, &wait_status_, 0) == pid_;
    }
    end.exit_code = WIFEXITED(wait_status_) ? WEXITSTATUS(wait_status_) : -1;
    end.signal = WIFSIGNALED(wait_status_) ? WTERMSIG(wait_status_) : 0;
    return end;
}

ChildEnd run_in_child(const std::function<void()>& body) {
    const OwnFile output = temporary_file();
    const OwnFile errors = temporary_file();
    ChildProcess child([&] {
        dup2(fileno(output.get()), STDOUT_FILENO);
        dup2(fileno(errors.get()), STDERR_FILENO);
        body();
        return 0;
    });
    ChildEnd end = child.finish();
    end.output = content_of(output.get());
    end.errors = content_of(errors.get());
    return end;
}

ChildEnd run_as_ordinary_user(const std::function<void()>& body) {
    return run_in_child([&body] {
        become_ordinary_user();
        body();
    });
}

ChildEnd run_program(const std::string& path, const ProgramRun& run) {
    // Opened here: an ordinary user may be allowed to run it and not to reach it.
    const int program = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (program < 0) {
        throw std::runtime_error("no program " + path);
    }
    std::vector<std::string> texts = command_line(path.substr(path.find_last_of('/') + 1), run);
    ChildEnd end = run_in_child([&] {
        enter(run);
        fexecve(program, pointers_to(texts).data(), environ);
        _exit(could_not_start);
    });
    close(program);
    return end;
}

ChildEnd run_command(const std::vector<std::string>& words, ProgramRun run) {
    run.has_one_output = true;
    std::vector<std::string> texts = words;
    return run_in_child([&] {
        enter(run);
        execvp(texts[0].c_str(), pointers_to(texts).data());
        _exit(could_not_start);
    });
}

ChildEnd run_shell(const std::string& command) {
    return run_program("/bin/sh", {.arguments = {"-c", command}});
}

std::string quoted(const std::string& word) {
    return "'" + word + "'";
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

void become_ordinary_user() {
    if (setgroups(0, nullptr) != 0 || setgid(ordinary_user) != 0 || setuid(ordinary_user) != 0) {
        _exit(could_not_start);
    }
}

bool is_super_user() {
    return geteuid() == 0;
}

bool has_program(const std::string& name) {
    return run_command({"sh", "-c", "command -v \"$0\"", name}).exit_code == 0;
}
