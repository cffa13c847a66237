/// \file
/// The environment of a program of one word size that is to find a simulation, and nothing else.
#pragma once

#include <map>
#include <string>
#include <vector>

namespace zelfsim {

/// `directory` holds the guard; `library` is the simulation, if it is another than the one there.
/// `preloads` are loaded behind the guard.
std::map<std::string, std::string> guarded_environment(
    const std::string& directory, const std::string& library = "",
    const std::vector<std::string>& preloads = {});

}  // namespace zelfsim
