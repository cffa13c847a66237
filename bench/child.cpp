#include "child.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <sstream>
#include <stdexcept>
#include <system_error>

namespace {

void check(int error, const std::string& what) {
    if (error != 0) {
        throw std::system_error(error, std::generic_category(), what);
    }
}

std::vector<std::string> merged_environment(const std::map<std::string, std::string>& added) {
    std::vector<std::string> variables;
    for (char** variable = environ; *variable != nullptr; ++variable) {
        const std::string text = *variable;
        if (added.find(text.substr(0, text.find('='))) == added.end()) {
            variables.push_back(text);
        }
    }
    for (const auto& [name, value] : added) {
        variables.emplace_back(name).append("=").append(value);
    }
    return variables;
}

std::vector<char*> pointers(std::vector<std::string>& texts) {
    std::vector<char*> result;
    result.reserve(texts.size() + 1);
    for (std::string& text : texts) {
        result.push_back(text.data());
    }
    result.push_back(nullptr);
    return result;
}

/// Everything that comes out of `descriptor` before its end.
std::string read_all(int descriptor) {
    std::string text;
    std::array<char, 256> part{};
    for (;;) {
        const ssize_t count = read(descriptor, part.data(), part.size());
        if (count > 0) {
            text.append(part.data(), static_cast<std::size_t>(count));
        } else if (count == 0 || errno != EINTR) {
            return text;
        }
    }
}

}  // namespace

ChildCost run_child(const std::vector<std::string>& command,
                    const std::map<std::string, std::string>& environment,
                    const std::string& console) {
    std::vector<std::string> arguments = {COST_OF, console};
    arguments.insert(arguments.end(), command.begin(), command.end());
    std::vector<std::string> variables = merged_environment(environment);
    std::array<int, 2> report{};
    check(pipe2(report.data(), O_CLOEXEC) == 0 ? 0 : errno, "pipe");
    posix_spawn_file_actions_t actions;
    check(posix_spawn_file_actions_init(&actions), "posix_spawn_file_actions_init");
    posix_spawn_file_actions_adddup2(&actions, report[1], STDOUT_FILENO);
    pid_t child = 0;
    const int error = posix_spawn(&child, arguments[0].c_str(), &actions, nullptr,
                                  pointers(arguments).data(), pointers(variables).data());
    posix_spawn_file_actions_destroy(&actions);
    close(report[1]);
    const std::string text = error == 0 ? read_all(report[0]) : "";
    close(report[0]);
    check(error, arguments[0]);
    while (waitpid(child, nullptr, 0) < 0) {
        check(errno == EINTR ? 0 : errno, "waitpid");
    }
    ChildCost cost;
    std::istringstream figures(text);
    if (!(figures >> cost.exit_code >> cost.wall >> cost.cpu >> cost.memory_mib)) {
        throw std::runtime_error("can't measure " + command[0]);
    }
    return cost;
}
