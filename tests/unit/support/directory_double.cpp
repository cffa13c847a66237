#include "support/directory_double.h"

#include <dirent.h>
#include <dlfcn.h>

#include <cstdio>
#include <deque>

namespace {

bool types_hidden = false;
bool has_given_entries = false;
std::deque<std::string> given_entries;

dirent* next_given_entry() {
    static dirent entry;
    if (given_entries.empty()) {
        return nullptr;
    }
    entry = {};
    entry.d_type = DT_REG;
    std::snprintf(entry.d_name, sizeof(entry.d_name), "%s", given_entries.front().c_str());
    given_entries.pop_front();
    return &entry;
}

dirent* next_entry(const char* symbol, DIR* directory) {
    using Function = dirent* (*)(DIR*);
    static const auto function = reinterpret_cast<Function>(dlsym(RTLD_NEXT, symbol));
    dirent* entry = function(directory);
    if (entry != nullptr && types_hidden) {
        entry->d_type = DT_UNKNOWN;
    }
    return entry;
}

}  // namespace

void directory_double_gives(const std::vector<std::string>& names) {
    has_given_entries = !names.empty();
    given_entries.assign(names.begin(), names.end());
}

void directory_double_hides_types(bool hide) {
    types_hidden = hide;
}

// With 64-bit file offsets on a 32-bit system `readdir` is compiled to a call of `readdir64`.
#ifdef __i386__
constexpr const char real_name[] = "readdir64";
#else
constexpr const char real_name[] = "readdir";
#endif

extern "C" dirent* readdir(DIR* directory) {
    return has_given_entries ? next_given_entry() : next_entry(real_name, directory);
}
