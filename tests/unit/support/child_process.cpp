#include "support/child_process.h"

#include <fcntl.h>
#include <grp.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <stdexcept>

namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr unsigned int longest_run = 280;  // seconds
#else
constexpr unsigned int longest_run = 30;
#endif
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

[[noreturn]] void execute(int program, const std::string& name, const ProgramRun& run) {
    std::vector<std::string> texts = {name};
    texts.insert(texts.end(), run.arguments.begin(), run.arguments.end());
    std::vector<char*> arguments;
    arguments.reserve(texts.size() + 1);
    for (std::string& text : texts) {
        arguments.push_back(text.data());
    }
    arguments.push_back(nullptr);
    for (const std::string& assignment : run.environment) {
        const std::size_t equals = assignment.find('=');
        setenv(assignment.substr(0, equals).c_str(), assignment.substr(equals + 1).c_str(), 1);
    }
    if (run.as_ordinary_user) {
        become_ordinary_user();
    }
    fexecve(program, arguments.data(), environ);
    _exit(could_not_start);
}

}  // namespace

bool is_super_user() {
    return geteuid() == 0;
}

void become_ordinary_user() {
    if (setgroups(0, nullptr) != 0 || setgid(ordinary_user) != 0 || setuid(ordinary_user) != 0) {
        _exit(could_not_start);
    }
}

ChildEnd run_in_child(const std::function<void()>& body) {
    const OwnFile output = temporary_file();
    const OwnFile errors = temporary_file();
    std::fflush(nullptr);
    const pid_t child = fork();
    if (child < 0) {
        throw std::runtime_error("no child process");
    }
    if (child == 0) {
        alarm(longest_run);
        dup2(fileno(output.get()), STDOUT_FILENO);
        dup2(fileno(errors.get()), STDERR_FILENO);
        body();
        std::fflush(nullptr);
        _exit(0);
    }
    int status = 0;
    if (waitpid(child, &status, 0) != child) {
        throw std::runtime_error("lost the child process");
    }
    ChildEnd end;
    end.exit_code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    end.signal = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
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
    const std::string name = path.substr(path.find_last_of('/') + 1);
    ChildEnd end = run_in_child([&] { execute(program, name, run); });
    close(program);
    return end;
}
