/// \file
/// The environment of a command that is to find the simulation in either word size.
#pragma once

#include "run/program_file.h"

#include <map>
#include <string>
#include <vector>

namespace zelfsim {

/// A temporary directory in which the objects of each word size lie under the same name, so that
/// one path with the loader's $LIB serves programs of both. Removed at the end.
class Stage {
  public:
    /// Throws std::system_error when no directory can be made.
    Stage();
    ~Stage();
    Stage(const Stage&) = delete;
    Stage& operator=(const Stage&) = delete;

    /// The simulation for programs of this word size.
    void set_library(WordSize size, const std::string& file);
    /// An object for programs of this word size, loaded behind those that came before. One that is
    /// added for both goes by one name.
    void preload(WordSize size, const std::string& file);

    /// The variables that put a program onto the simulation.
    std::map<std::string, std::string> environment() const;
    /// What the guard has reported so far, a letter an event.
    std::string report() const;

  private:
    std::string folder(WordSize size) const;
    std::string report_file() const { return directory_ + "/report"; }

    std::string directory_;
    std::vector<std::string> preloads_;
};

}  // namespace zelfsim
