// usb_facts SERIAL FLASH-INTERFACE: asks a USB library, opened by name, one thing after the other
// about a device that usbhid holds, and prints each answer. The same is printed on a real kernel
// and on the simulated bus.
#include <libusb-1.0/libusb.h>

#include <dlfcn.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>

namespace {

void* library = nullptr;

/// A function of the library; the program ends when it is missing.
template <typename Function>
Function* bind(const char* name) {
    void* symbol = dlsym(library, name);
    if (symbol == nullptr) {
        std::fprintf(stderr, "%s\n", dlerror());
        std::exit(1);
    }
    return reinterpret_cast<Function*>(symbol);
}

/// Only the declaration of the function is used, so nothing is left to the linker.
#define USB(function) bind<decltype(function)>(#function)

using Handle = libusb_device_handle*;

constexpr unsigned longest_wait = 1000;
constexpr std::array<unsigned char, 4> status_request{0x04, 0x00, 0x00, 0x20};
constexpr std::array<unsigned char, 4> reset_command{0x04, 0x00, 0x00, 0x40};

void tell(const char* what, long answer) {
    std::printf("%s: %ld\n", what, answer);
}

Handle open_device(libusb_context* context, const std::string& serial) {
    libusb_device** list = nullptr;
    const ssize_t count = USB(libusb_get_device_list)(context, &list);
    Handle found = nullptr;
    for (ssize_t index = 0; index < count && found == nullptr; ++index) {
        libusb_device_descriptor descriptor{};
        Handle handle = nullptr;
        if (USB(libusb_get_device_descriptor)(list[index], &descriptor) != 0 ||
            descriptor.iSerialNumber == 0 || USB(libusb_open)(list[index], &handle) != 0) {
            continue;
        }
        std::array<unsigned char, 255> text{};
        USB(libusb_control_transfer)
        (handle, 0x80, 6, static_cast<std::uint16_t>(0x0300 | descriptor.iSerialNumber), 0x0409,
         text.data(), text.size(), longest_wait);
        std::string ascii;
        for (std::size_t at = 2; at < text[0]; at += 2) {
            ascii += static_cast<char>(text.at(at));
        }
        if (ascii == serial) {
            found = handle;
        } else {
            USB(libusb_close)(handle);
        }
    }
    USB(libusb_free_device_list)(list, 1);
    return found;
}

int send(Handle handle, int interface, std::array<unsigned char, 4> command) {
    return USB(libusb_control_transfer)(handle, 0x21, 9, 0x0200,
                                        static_cast<std::uint16_t>(interface), command.data(),
                                        static_cast<std::uint16_t>(command.size()), longest_wait);
}

int ask(Handle handle, std::uint8_t type, std::uint8_t request, std::uint16_t value,
        std::uint16_t index, std::uint16_t length) {
    std::array<unsigned char, 512> data{};
    return USB(libusb_control_transfer)(handle, type, request, value, index, data.data(), length,
                                        longest_wait);
}

std::string read_text(const char* what, Handle handle, unsigned char endpoint, int length,
                      unsigned patience) {
    std::array<unsigned char, 64> data{};
    int count = -1;
    const int code =
        USB(libusb_interrupt_transfer)(handle, endpoint, data.data(), length, &count, patience);
    std::array<char, 128> text{};
    std::snprintf(text.data(), text.size(), "%s: %d, %d bytes, first %02x\n", what, code, count,
                  data[0]);
    return text.data();
}

void read_report(const char* what, Handle handle, unsigned char endpoint, int length,
                 unsigned patience) {
    std::fputs(read_text(what, handle, endpoint, length, patience).c_str(), stdout);
}

void tell_claims(Handle handle, Handle other, int interface) {
    const auto index = static_cast<std::uint16_t>(interface);
    const auto claim = USB(libusb_claim_interface);
    const auto detach = USB(libusb_detach_kernel_driver);
    const auto release = USB(libusb_release_interface);
    tell("driver active at first", USB(libusb_kernel_driver_active)(handle, interface));
    tell("claim under the driver", claim(handle, interface));
    tell("transfer under the driver", send(handle, interface, status_request));
    tell("claim of an interface that is not there", claim(handle, 9));
    tell("detach of one that is not there", detach(handle, 9));
    tell("release without a claim", release(handle, interface));
    tell("detach", detach(handle, interface));
    tell("detach again", detach(handle, interface));
    tell("driver active after that", USB(libusb_kernel_driver_active)(handle, interface));
    tell("claim", claim(handle, interface));
    tell("claim again", claim(handle, interface));
    tell("driver active under a claim", USB(libusb_kernel_driver_active)(handle, interface));
    tell("detach under a claim", detach(handle, interface));
    tell("claim by another handle", claim(other, interface));
    tell("detach by another handle", detach(other, interface));
    tell("report request by another handle", ask(other, 0xA1, 1, 0x0300, index, 261));
    tell("device request by another handle", ask(other, 0x80, 6, 0x0100, 0, 18));
    read_report("report read by another handle", other, 0x81, 64, 100);
    tell("release", release(handle, interface));
    tell("release again", release(handle, interface));
    tell("claim by the other handle now", claim(other, interface));
    tell("release by the other handle", release(other, interface));
    tell("claim in the end", claim(handle, interface));
}

void tell_requests(Handle handle, int interface) {
    const auto index = static_cast<std::uint16_t>(interface);
    int configuration = -1;
    tell("get configuration", USB(libusb_get_configuration)(handle, &configuration));
    tell("configuration", configuration);
    tell("set configuration under a claim", USB(libusb_set_configuration)(handle, 1));
    tell("set alternate setting 0", USB(libusb_set_interface_alt_setting)(handle, interface, 0));
    tell("set alternate setting 1", USB(libusb_set_interface_alt_setting)(handle, interface, 1));
    tell("alternate setting of no interface", USB(libusb_set_interface_alt_setting)(handle, 9, 0));
    tell("clear halt", USB(libusb_clear_halt)(handle, 0x81));
    tell("clear halt of no endpoint", USB(libusb_clear_halt)(handle, 0x8F));
    tell("device descriptor", ask(handle, 0x80, 6, 0x0100, 0, 64));
    tell("string that is not there", ask(handle, 0x80, 6, 0x0363, 0x0409, 255));
    tell("vendor request", ask(handle, 0xC0, 0x77, 0, 0, 4));
    tell("request to no interface", ask(handle, 0xA1, 1, 0x0300, 9, 8));
    tell("report descriptor, cut", ask(handle, 0x81, 6, 0x2200, index, 7));
    tell("report descriptor of a long request", ask(handle, 0x81, 6, 0x2200, index, 512) > 0);
    tell("unknown report", ask(handle, 0xA1, 1, 0x0377, index, 8));
}

void tell_reports(Handle handle, int interface) {
    read_report("read with nothing to come", handle, 0x81, 64, 100);
    tell("command", send(handle, interface, status_request));
    read_report("its status", handle, 0x81, 64, longest_wait);
    tell("command", send(handle, interface, status_request));
    read_report("its status into too small a buffer", handle, 0x81, 4, longest_wait);
    read_report("read after that", handle, 0x81, 64, 100);
    read_report("read of no endpoint", handle, 0x8F, 64, 100);
    tell("command", send(handle, interface, status_request));
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    read_report("a status that waited", handle, 0x81, 64, longest_wait);
}

/// What a blocked read gets when `act` happens meanwhile; the answer of `act` comes first.
template <typename Act>
void tell_blocked(const char* what, Handle handle, const Act& act) {
    std::string pending;
    std::thread reader([&] { pending = read_text("the blocked read", handle, 0x81, 64, 5000); });
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    tell(what, act());
    reader.join();
    std::fputs(pending.c_str(), stdout);
}

void tell_driver(Handle handle, int interface) {
    const auto claim = USB(libusb_claim_interface);
    const auto attach = USB(libusb_attach_kernel_driver);
    tell_blocked("release under a blocked read", handle,
                 [&] { return USB(libusb_release_interface)(handle, interface); });
    tell("attach", attach(handle, interface));
    tell("driver active again", USB(libusb_kernel_driver_active)(handle, interface));
    tell("attach again", attach(handle, interface));
    tell("attach to no interface", attach(handle, 9));
    tell("claim under the driver", claim(handle, interface));
    tell("detach", USB(libusb_detach_kernel_driver)(handle, interface));
    tell("claim", claim(handle, interface));
    tell("attach under a claim", attach(handle, interface));
    tell("command", send(handle, interface, status_request));
    read_report("its status", handle, 0x81, 64, longest_wait);
}

void tell_reset(Handle handle, Handle other, int interface) {
    tell_blocked("reset command", handle, [&] { return send(handle, interface, reset_command); });
    tell("command after the reset", send(handle, interface, status_request));
    read_report("read after the reset", handle, 0x81, 64, 100);
    tell("device request after the reset", ask(handle, 0x80, 6, 0x0100, 0, 18));
    tell("release after the reset", USB(libusb_release_interface)(handle, interface));
    tell("claim after the reset", USB(libusb_claim_interface)(handle, interface));
    tell("detach after the reset", USB(libusb_detach_kernel_driver)(other, interface));
    tell("driver after the reset", USB(libusb_kernel_driver_active)(other, interface));
    tell("clear halt after the reset", USB(libusb_clear_halt)(handle, 0x81));
    tell("library reset after the reset", USB(libusb_reset_device)(handle));
}

}  // namespace

int main(int argc, char** argv) {
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    for (const char* name : {"libusb-1.0.so", "libusb-1.0.so.0"}) {
        library = library == nullptr ? dlopen(name, RTLD_NOW) : library;
    }
    if (argc != 3 || library == nullptr) {
        std::fprintf(stderr, "usage: usb_facts SERIAL FLASH-INTERFACE, with a USB library\n");
        return 1;
    }
    const int interface = std::atoi(argv[2]);  // NOLINT(cert-err34-c): from the test itself
    libusb_context* context = nullptr;
    tell("init", USB(libusb_init)(&context));
    Handle handle = open_device(context, argv[1]);
    Handle other = open_device(context, argv[1]);
    if (handle == nullptr || other == nullptr) {
        std::fprintf(stderr, "no device %s\n", argv[1]);
        return 1;
    }
    tell_claims(handle, other, interface);
    tell_requests(handle, interface);
    tell_reports(handle, interface);
    tell_driver(handle, interface);
    tell_reset(handle, other, interface);
    USB(libusb_close)(other);
    USB(libusb_close)(handle);
    USB(libusb_exit)(context);
    return 0;
}
