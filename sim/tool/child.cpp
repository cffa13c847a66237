#include "tool/child.h"

#include "common/file_access.h"
#include "run/program_file.h"

#include <fcntl.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <system_error>

namespace {

/// The actions of a start, with their owner.
struct Actions {
    Actions() { posix_spawn_file_actions_init(&list); }
    ~Actions() { posix_spawn_file_actions_destroy(&list); }
    Actions(const Actions&) = delete;
    Actions& operator=(const Actions&) = delete;
    posix_spawn_file_actions_t list{};
};

}  // namespace

int run_child(const std::vector<std::string>& command, const std::string& output) {
    std::vector<std::string> words = command;
    std::vector<char*> arguments;
    arguments.reserve(words.size() + 1);
    for (std::string& word : words) {
        arguments.push_back(word.data());
    }
    arguments.push_back(nullptr);
    Actions actions;
    posix_spawn_file_actions_addopen(&actions.list, STDOUT_FILENO, output.c_str(),
                                     O_WRONLY | O_CREAT | O_TRUNC, 0600);
    pid_t child = 0;
    const int error =
        posix_spawn(&child, arguments[0], &actions.list, nullptr, arguments.data(), environ);
    if (error != 0) {
        throw std::system_error(error, std::generic_category(), command.front());
    }
    int status = 0;
    while (waitpid(child, &status, 0) < 0) {
        if (errno != EINTR) {
            throw std::system_error(errno, std::generic_category(), "waitpid");
        }
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

std::string own_file() {
    return std::filesystem::read_symlink("/proc/self/exe").string();
}

std::string find_updater(const std::string& named) {
    if (!named.empty()) {
        if (!zelf::exists(named)) {
            throw zelf::FileError(named, 0, "no such program");
        }
        return std::filesystem::absolute(named).string();
    }
    const std::filesystem::path beside = std::filesystem::path(own_file()).parent_path();
    for (const std::filesystem::path& file :
         {beside / "zelfwupdate", beside.parent_path() / "zelfwupdate"}) {
        if (zelf::exists(file.string()) && !zelf::is_directory(file.string())) {
            return file.string();
        }
    }
    std::string found = zelfsim::find_command("zelfwupdate");
    if (found.empty()) {
        throw zelf::FileError("zelfwupdate", 0, "no such program; name it with --updater");
    }
    return found;
}

PrivateDirectory::PrivateDirectory() {
    // First where a directory's files keep the order in which they were made.
    for (std::string name :
         {"/run/zelfwsim-XXXXXX", "/dev/shm/zelfwsim-XXXXXX", "/tmp/zelfwsim-XXXXXX"}) {
        if (mkdtemp(name.data()) != nullptr) {
            directory_ = name;
            return;
        }
    }
    throw std::system_error(errno, std::generic_category(), "/tmp");
}

PrivateDirectory::~PrivateDirectory() {
    std::error_code error;
    std::filesystem::remove_all(directory_, error);
}
