#include "tool/serve.h"

#include "model/device/bus.h"
#include "tool/exit_code.h"
#include "usbip/server.h"

#include <sys/signalfd.h>

#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>

namespace {

struct ServeOptions {
    std::string address = "127.0.0.1";
    std::uint16_t port = zelfsim::usbip::default_port;
    bool attach = false;
    zelfsim::BusFiles files;
};

std::string environment(const char* name) {
    const char* value = std::getenv(name);
    return value != nullptr ? value : "";
}

bool parse_port(std::string_view text, std::uint16_t& port) {
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), port);
    return error == std::errc{} && end == text.data() + text.size();
}

std::optional<ServeOptions> parse_serve(std::span<const char* const> arguments) {
    ServeOptions options;
    options.files.state = environment("ZELFWSIM_STATE");
    options.files.record = environment("ZELFWSIM_RECORD");
    std::size_t at = 0;
    for (; at < arguments.size() && arguments[at][0] == '-'; ++at) {
        const std::string_view name = arguments[at];
        const bool has_value = at + 1 < arguments.size();
        if (name == "--attach") {
            options.attach = true;
        } else if (name == "--listen" && has_value) {
            options.address = arguments[++at];
        } else if (name != "--port" || !has_value || !parse_port(arguments[++at], options.port)) {
            return std::nullopt;
        }
    }
    const std::size_t left = arguments.size() - at;
    if (left != 1 && left != 2) {
        return std::nullopt;
    }
    options.files.bus = arguments[at];
    if (left == 2) {
        options.files.state = arguments[at + 1];
    }
    return options;
}

void note(const std::string& line) {
    std::printf("%s\n", line.c_str());
    std::fflush(stdout);
}

/// A file that can be read once one of the signals arrived that end a service.
zelf::FileDescriptor catch_signals() {
    sigset_t signals{};
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGHUP);
    sigprocmask(SIG_BLOCK, &signals, nullptr);
    zelf::FileDescriptor handle(signalfd(-1, &signals, SFD_CLOEXEC));
    if (!handle.is_open()) {
        throw std::system_error(errno, std::generic_category(), "signalfd");
    }
    return handle;
}

}  // namespace

int serve(std::span<const char* const> arguments) {
    const auto options = parse_serve(arguments);
    if (!options) {
        std::fprintf(stderr, "zelfwsim: wrong arguments of serve\nTry: zelfwsim --help\n");
        return wrong_arguments;
    }
    const zelf::FileDescriptor stop = catch_signals();
    zelfsim::Bus bus(options->files);
    zelfsim::usbip::Server server(bus, note);
    if (options->attach) {
        zelfsim::usbip::KernelPorts ports;
        if (!ports.present()) {
            std::fprintf(stderr, "zelfwsim: no virtual host controller; try: modprobe vhci-hcd\n");
            return unusable;
        }
        server.attach_to(ports);
    } else {
        const std::uint16_t port = server.listen(options->address, options->port);
        note("Listening on " + options->address + " port " + std::to_string(port));
    }
    server.run(stop.get());
    return success;
}
