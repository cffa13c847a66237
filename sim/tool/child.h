/// \file
/// A program whose end is waited for.
#pragma once

#include <string>
#include <vector>

/// Starts the program with its arguments, standard output going to `output`. Gives its exit code,
/// 128 and more where a signal ended it. Throws std::system_error when it cannot be started.
int run_child(const std::vector<std::string>& command, const std::string& output);

/// The file of this program.
std::string own_file();

/// The updater: the one that was named, beside this program, in its build tree, or in PATH.
/// Throws FileError.
std::string find_updater(const std::string& named);

/// A directory that is removed with all in it at the end.
class PrivateDirectory {
  public:
    PrivateDirectory();
    ~PrivateDirectory();
    PrivateDirectory(const PrivateDirectory&) = delete;
    PrivateDirectory& operator=(const PrivateDirectory&) = delete;

    std::string path(const std::string& name) const { return directory_ + "/" + name; }

  private:
    std::string directory_;
};
