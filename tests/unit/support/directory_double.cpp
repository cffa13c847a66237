#include "support/directory_double.h"

#include <dirent.h>
#include <dlfcn.h>

namespace {

bool types_hidden = false;

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
    return next_entry(real_name, directory);
}
