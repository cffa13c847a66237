#include "run/hidden_devices.h"

#include "run/program_file.h"

#include <sched.h>
#include <sys/mount.h>

#include <array>
#include <cerrno>
#include <filesystem>
#include <set>
#include <string>
#include <system_error>

namespace zelfsim {

namespace {

constexpr std::array<const char*, 2> nodes = {"/dev/bus/usb", "/proc/bus/usb"};
constexpr std::array<const char*, 3> names = {"libusb-1.0.so", "libusb-1.0.so.0",
                                              "libusb-1.0.so.0.0.0"};
constexpr std::array<const char*, 10> folders = {
    "/lib",       "/lib32",         "/lib/x86_64-linux-gnu",     "/lib/i386-linux-gnu",
    "/usr/lib",   "/usr/lib32",     "/usr/lib/x86_64-linux-gnu", "/usr/lib/i386-linux-gnu",
    "/usr/lib64", "/usr/local/lib",
};

[[noreturn]] void fail(const std::string& what) {
    throw std::system_error(errno, std::generic_category(), what);
}

/// The files behind all names that the loader knows by itself, without simulations.
std::set<std::string> real_libraries() {
    std::set<std::string> files;
    for (const char* folder : folders) {
        for (const char* name : names) {
            std::error_code error;
            const auto file = std::filesystem::canonical(std::string(folder) + "/" + name, error);
            if (!error && !is_simulation(file)) {
                files.insert(file);
            }
        }
    }
    return files;
}

}  // namespace

bool has_device_nodes() {
    for (const char* folder : nodes) {
        std::error_code error;
        if (std::filesystem::directory_iterator(folder, error) !=
            std::filesystem::directory_iterator()) {
            return true;
        }
    }
    return false;
}

void hide_devices() {
    if (unshare(CLONE_NEWNS) != 0) {
        fail("a mount namespace");
    }
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        fail("a private mount namespace");
    }
    for (const char* folder : nodes) {
        constexpr unsigned long flags = MS_RDONLY | MS_NOSUID | MS_NODEV | MS_NOEXEC;
        std::error_code error;
        if (std::filesystem::is_directory(folder, error) &&
            mount("tmpfs", folder, "tmpfs", flags, "mode=755") != 0) {
            fail(folder);
        }
    }
    // An empty file is no library. Without nodes a real one does no harm, only a rehearsal with it
    // would be none: so this may fail.
    for (const std::string& file : real_libraries()) {
        static_cast<void>(mount("/dev/null", file.c_str(), nullptr, MS_BIND, nullptr));
    }
}

void hide_devices_if_any() {
    try {
        hide_devices();
    } catch (const std::system_error&) {
        if (has_device_nodes()) {
            throw;
        }
    }
}

}  // namespace zelfsim
