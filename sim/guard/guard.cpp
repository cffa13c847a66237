// Stands before the loader's dlopen: whatever libusb-1.0 a program asks for, by whatever name and
// path, it gets the simulation, or is ended before it could send anything.
#include "guard/terms.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <link.h>
#include <unistd.h>

#include <array>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

using namespace zelfsim::guard;

constexpr std::size_t most_found = 8;

/// The next definition of a function. Its type is known only to the caller.
template <typename Function>
Function next(const char* name) {
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

void* pass_dlopen(const char* name, int flags) {
    static const auto real = next<void* (*)(const char*, int)>("dlopen");
    return real(name, flags);
}

bool is_usb_library(const char* name) {
    constexpr const char* stem = "libusb-1.0";
    const char* slash = std::strrchr(name, '/');
    return std::strncmp(slash != nullptr ? slash + 1 : name, stem, std::strlen(stem)) == 0;
}

void report(char event) {
    const char* file = std::getenv(report_variable);
    if (file == nullptr) {
        return;
    }
    const int descriptor = open(file, O_WRONLY | O_APPEND | O_CLOEXEC);
    if (descriptor >= 0) {
        static_cast<void>(!write(descriptor, &event, 1));
        close(descriptor);
    }
}

[[noreturn]] void refuse(const char* library, const char* reason) {
    report(refused);
    std::array<char, 1024> text{};
    std::snprintf(text.data(), text.size(), "zelfwsim: %s: %s; nothing was sent\n", library,
                  reason != nullptr ? reason : "cannot be opened");
    static_cast<void>(!write(STDERR_FILENO, text.data(), std::strlen(text.data())));
    _exit(refused_exit);
}

bool is_simulation(void* library) {
    return dlsym(library, simulation_mark) != nullptr;
}

void* open_simulation(int flags) {
    const char* library = std::getenv(library_variable);
    if (library == nullptr) {
        refuse(library_variable, "not set; it names the simulation");
    }
    report(asked);
    void* handle = pass_dlopen(library, flags);
    if (handle == nullptr) {
        refuse(library, dlerror());
    }
    if (!is_simulation(handle)) {
        refuse(library, "not a simulation");
    }
    report(opened);
    return handle;
}

struct Found {
    std::array<const char*, most_found> names{};
    std::size_t count = 0;
};

int note_usb_library(dl_phdr_info* object, std::size_t, void* argument) {
    auto& found = *static_cast<Found*>(argument);
    if (object->dlpi_name != nullptr && is_usb_library(object->dlpi_name) &&
        found.count < most_found) {
        found.names[found.count++] = object->dlpi_name;
    }
    return 0;
}

/// For a library that came along because something else needs it.
void refuse_loaded_libraries() {
    Found found;
    dl_iterate_phdr(note_usb_library, &found);
    for (std::size_t index = 0; index < found.count; ++index) {
        void* library = pass_dlopen(found.names[index], RTLD_LAZY | RTLD_NOLOAD);
        if (library == nullptr || !is_simulation(library)) {
            refuse(found.names[index], "loaded, but not a simulation");
        }
        dlclose(library);
    }
}

__attribute__((constructor)) void begin() {
    report(guarded);
    refuse_loaded_libraries();
}

}  // namespace

extern "C" {

#define ZELF_VISIBLE __attribute__((visibility("default")))

ZELF_VISIBLE void* dlopen(const char* name, int flags) {
    if (name != nullptr && is_usb_library(name)) {
        return open_simulation(flags);
    }
    void* library = pass_dlopen(name, flags);
    refuse_loaded_libraries();
    return library;
}

ZELF_VISIBLE void* dlmopen(Lmid_t space, const char* name, int flags) {
    static const auto real = next<void* (*)(Lmid_t, const char*, int)>("dlmopen");
    if (name != nullptr && is_usb_library(name)) {
        return open_simulation(flags);
    }
    return real(space, name, flags);
}

}  // extern "C"
