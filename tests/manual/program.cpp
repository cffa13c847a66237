#include "program.h"

#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <sstream>

namespace {

constexpr uid_t ordinary_user = 65534;
constexpr int could_not_start = 127;

[[noreturn]] void become(std::vector<std::string> arguments,
                         const ProgramSurroundings& surroundings, int output) {
    dup2(output, STDOUT_FILENO);
    dup2(output, STDERR_FILENO);
    for (const std::string& variable : surroundings.environment) {
        const std::size_t equals = variable.find('=');
        setenv(variable.substr(0, equals).c_str(), variable.substr(equals + 1).c_str(), 1);
    }
    if ((!surroundings.directory.empty() && chdir(surroundings.directory.c_str()) != 0) ||
        (surroundings.as_ordinary_user && setuid(ordinary_user) != 0)) {
        _exit(could_not_start);
    }
    std::vector<char*> pointers;
    for (std::string& argument : arguments) {
        pointers.push_back(argument.data());
    }
    pointers.push_back(nullptr);
    execvp(pointers[0], pointers.data());
    _exit(could_not_start);
}

}  // namespace

ProgramOutput run_program(const std::vector<std::string>& arguments,
                          const ProgramSurroundings& surroundings) {
    ProgramOutput result;
    std::array<int, 2> ends{};
    if (pipe(ends.data()) != 0) {
        return result;
    }
    const pid_t child = fork();
    if (child == 0) {
        close(ends[0]);
        become(arguments, surroundings, ends[1]);
    }
    close(ends[1]);
    std::array<char, 4096> buffer{};
    for (ssize_t size = 0; (size = read(ends[0], buffer.data(), buffer.size())) > 0;) {
        result.text.append(buffer.data(), static_cast<std::size_t>(size));
    }
    close(ends[0]);
    int status = 0;
    if (child > 0 && waitpid(child, &status, 0) == child && WIFEXITED(status)) {
        result.code = WEXITSTATUS(status);
    }
    return result;
}

bool has_program(const std::string& name) {
    return run_program({"sh", "-c", "command -v \"$0\"", name}).code == 0;
}

bool is_root() {
    return geteuid() == 0;
}

std::vector<std::string> lines_of(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}
