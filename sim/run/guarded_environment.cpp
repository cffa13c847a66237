#include "run/guarded_environment.h"

#include "guard/terms.h"
#include "run/simulations.h"

namespace zelfsim {

std::map<std::string, std::string> guarded_environment(const std::string& directory,
                                                       const std::string& library,
                                                       const std::vector<std::string>& preloads) {
    std::string list = directory + "/" + guard_file;
    for (const std::string& object : preloads) {
        list += ":" + object;
    }
    return {
        {"LD_PRELOAD", list},
        {guard::library_variable, library.empty() ? directory + "/" + simulation_file : library}};
}

}  // namespace zelfsim
