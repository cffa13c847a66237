// Preloaded into the program: notes, one a line in the file NOTED_CALLS, the calls that set a run
// up and wind it up. NOTED_USER is the user that the program then sees itself run by; NOTED_LIBRARY
// set to "none" hides the USB library.
#include <ltdl.h>

#include <dlfcn.h>
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

void note(const std::string& call) {
    const char* const path = getenv("NOTED_CALLS");
    const int file = path == nullptr ? -1 : open(path, O_WRONLY | O_CREAT | O_APPEND, 0666);
    if (file >= 0) {
        const std::string line = call + '\n';
        [[maybe_unused]] const ssize_t written = write(file, line.data(), line.size());
        close(file);
    }
}

bool is_set_to(const char* variable, const char* value) {
    const char* const text = getenv(variable);
    return text != nullptr && strcmp(text, value) == 0;
}

template <typename Function>
Function* next(Function*, const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

/// The written files that are open.
struct OpenFile {
    FILE* stream;
    std::array<char, 300> name;
};
std::array<OpenFile, 16> open_files;

std::string path_of(int descriptor) {
    const std::string link = "/proc/self/fd/" + std::to_string(descriptor);
    std::array<char, 4096> path = {};
    const ssize_t length = readlink(link.c_str(), path.data(), path.size());
    return {path.data(), static_cast<std::size_t>(length < 0 ? 0 : length)};
}

FILE* noted_stream(FILE* stream, const char* path, const char* mode) {
    if (stream == nullptr || mode[0] == 'r') {
        return stream;
    }
    for (OpenFile& file : open_files) {
        if (file.stream == nullptr) {
            file.stream = stream;
            snprintf(file.name.data(), file.name.size(), "%s", path);
            break;
        }
    }
    note(std::string("open ") + path);
    return stream;
}

}  // namespace

extern "C" {

FILE* fdopen(int descriptor, const char* mode) noexcept {
    return noted_stream(next(fdopen, "fdopen")(descriptor, mode), path_of(descriptor).c_str(),
                        mode);
}

int fclose(FILE* stream) {
    for (OpenFile& file : open_files) {
        if (file.stream == stream) {
            file.stream = nullptr;
            note(std::string("close ") + file.name.data());
        }
    }
    return next(fclose, "fclose")(stream);
}

uid_t getuid() noexcept {
    note("getuid");
    const char* const user = getenv("NOTED_USER");
    return user == nullptr ? next(getuid, "getuid")()
                           : static_cast<uid_t>(strtoul(user, nullptr, 10));
}

int sigaction(int number, const struct sigaction* action, struct sigaction* before) noexcept {
    if (number == SIGSEGV && action != nullptr) {
        note("handle faults");
    }
    return next(sigaction, "sigaction")(number, action, before);
}

int lt_dlinit() {
    note("lt_dlinit");
    return next(lt_dlinit, "lt_dlinit")();
}

int lt_dladdsearchdir(const char* path) {
    note(std::string("lt_dladdsearchdir ") + path);
    return next(lt_dladdsearchdir, "lt_dladdsearchdir")(path);
}

lt_dlhandle lt_dlopen(const char* name) {
    // The loader opens parts of its own this way too.
    const bool is_usb_library = strncmp(name, "libusb", 6) == 0;
    if (is_usb_library) {
        note(std::string("lt_dlopen ") + name);
    }
    const bool is_hidden = is_usb_library && is_set_to("NOTED_LIBRARY", "none");
    return is_hidden ? nullptr : next(lt_dlopen, "lt_dlopen")(name);
}

int lt_dlexit() {
    note("lt_dlexit");
    return next(lt_dlexit, "lt_dlexit")();
}
}
