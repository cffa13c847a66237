/// \file
/// Calls of the USB library, made by the program's own code and, beside that, made bare: what the
/// simulated devices cost and what the program adds: library_calls DEVICES [BENCHMARK-OPTION ...]
#include "firmware/firmware_file.h"
#include "flash_protocol.h"
#include "simulation.h"
#include "usb/flshusbintf.h"
#include "usb/zelflshenum.h"
#include "usb/zelhidlib.h"

#include <benchmark/benchmark.h>

#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace {

// USB 2.0, 9.4: standard requests; HID 1.11, 7.2: SET_REPORT.
constexpr std::uint8_t request_get_descriptor = 6;
constexpr std::uint8_t request_set_report = 9;
constexpr std::uint8_t to_host_standard_device = 0x80;
constexpr std::uint8_t to_device_class_interface = 0x21;
constexpr std::uint16_t string_descriptor = 3 << 8;
constexpr std::uint16_t output_report = 2 << 8;
constexpr std::uint16_t english = 0x0409;
constexpr unsigned int transfer_timeout = 1000;  // milliseconds

constexpr int updated_product = 0x3C35;
constexpr std::uint8_t flash_endpoint = LIBUSB_ENDPOINT_IN | 1;

void check(int rc, const char* what) {
    if (rc < 0) {
        throw std::runtime_error(std::string(what) + ": " + std::to_string(rc));
    }
}

/// A context and its devices.
class DeviceList {
  public:
    DeviceList() {
        check(p_libusb_init(&context_), "libusb_init");
        count_ = p_libusb_get_device_list(context_, &devices_);
        check(static_cast<int>(count_), "libusb_get_device_list");
    }
    ~DeviceList() {
        p_libusb_free_device_list(devices_, 1);
        p_libusb_exit(context_);
    }
    DeviceList(const DeviceList&) = delete;
    DeviceList& operator=(const DeviceList&) = delete;

    libusb_device** begin() const { return devices_; }
    libusb_device** end() const { return devices_ + count_; }

  private:
    libusb_context* context_ = nullptr;
    libusb_device** devices_ = nullptr;
    ssize_t count_ = 0;
};

void read_string(libusb_device_handle* handle, int index) {
    std::array<unsigned char, 255> text{};
    p_libusb_control_transfer(handle, to_host_standard_device, request_get_descriptor,
                              static_cast<std::uint16_t>(string_descriptor | index), english,
                              text.data(), text.size(), transfer_timeout);
}

void read_configuration(libusb_device* device, libusb_device_handle* handle) {
    libusb_config_descriptor* config = nullptr;
    check(p_libusb_get_config_descriptor(device, 0, &config), "libusb_get_config_descriptor");
    for (int i = 0; i < config->bNumInterfaces; ++i) {
        read_string(handle, config->interface[i].altsetting[0].iInterface);
    }
    p_libusb_free_config_descriptor(config);
}

void enumerate_bare() {
    const DeviceList list;
    for (libusb_device* device : list) {
        libusb_device_handle* handle = nullptr;
        check(p_libusb_open(device, &handle), "libusb_open");
        libusb_device_descriptor descriptor = {};
        p_libusb_get_device_descriptor(device, &descriptor);
        benchmark::DoNotOptimize(p_libusb_get_bus_number(device));
        benchmark::DoNotOptimize(p_libusb_get_device_address(device));
        if (descriptor.iSerialNumber != 0) {
            read_string(handle, descriptor.iSerialNumber);
        }
        if (descriptor.bDeviceClass != LIBUSB_CLASS_HUB) {
            read_configuration(device, handle);
        }
        p_libusb_close(handle);
    }
}

/// The simulated library reads its bus with the first context: one that stays keeps the reading of
/// the bus file out of the figures.
void run_enumeration(benchmark::State& state, void (*enumerate)()) {
    const DeviceList list;
    for ([[maybe_unused]] const auto iteration : state) {
        enumerate();
    }
    state.counters["devices"] = static_cast<double>(list.end() - list.begin());
}

void enumerate_with_the_program() {
    USBENUM enumerator;
    check(enumerator.buildTreeInformation() == 0 ? 0 : -1, "buildTreeInformation");
    for (int i = 0; i < enumerator.numberOfHidDevices; ++i) {
        const std::unique_ptr<USBHID> owner(enumerator.getHidDevice(i));
    }
}

class FlashInterface {
  public:
    FlashInterface() {
        for (libusb_device* device : list_) {
            libusb_device_descriptor descriptor = {};
            p_libusb_get_device_descriptor(device, &descriptor);
            if (handle_ == nullptr && descriptor.idProduct == updated_product) {
                check(p_libusb_open(device, &handle_), "libusb_open");
            }
        }
        check(handle_ != nullptr ? 0 : -1, "no printer on the bus");
        p_libusb_detach_kernel_driver(handle_, 0);
        check(p_libusb_claim_interface(handle_, 0), "libusb_claim_interface");
    }
    ~FlashInterface() { p_libusb_close(handle_); }
    FlashInterface(const FlashInterface&) = delete;
    FlashInterface& operator=(const FlashInterface&) = delete;

    /// Sends a report and waits for the device's status, which must be a good one.
    void exchange(std::vector<unsigned char>& report) {
        const auto length = static_cast<std::uint16_t>(report.size());
        check(p_libusb_control_transfer(handle_, to_device_class_interface, request_set_report,
                                        output_report, 0, report.data(), length, transfer_timeout),
              "SET_REPORT");
        std::array<unsigned char, 64> status{};
        int received = 0;
        check(p_libusb_interrupt_transfer(handle_, flash_endpoint, status.data(), status.size(),
                                          &received, transfer_timeout),
              "status report");
        check(is_bad_status(status[0]) ? -1 : 0, "status");
    }

  private:
    DeviceList list_;
    libusb_device_handle* handle_ = nullptr;
};

std::vector<unsigned char> erase_report() {
    const CommandMessage command = flash_command(FlashCommand::erase);
    return {command.bytes.begin(), command.bytes.begin() + command.length};
}

/// The records of a firmware file, as the program sends them.
std::vector<std::vector<unsigned char>> record_reports(const std::string& file_name) {
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(file_name.c_str(), "rb"),
                                                               std::fclose);
    check(file != nullptr ? 0 : -1, "firmware file");
    check(std::fseek(file.get(), firmware_header_size, SEEK_SET), "firmware file");
    FirmwareRecordReader records(file.get());
    FirmwareRecord record;
    std::vector<std::vector<unsigned char>> reports;
    while (records.next(record) == RecordResult::whole) {
        const auto bytes = record.read_bytes();
        const std::size_t count = bytes.size() + 2;
        reports.push_back({static_cast<unsigned char>(count & 0xFF),
                           static_cast<unsigned char>(count >> 8), 0x02, 0});
        reports.back().insert(reports.back().end(), bytes.begin(), bytes.end());
    }
    return reports;
}

/// With `count` records to an erase.
void send_records_bare(benchmark::State& state, int count) {
    const Simulation files;
    auto records = record_reports(files.make_firmware("records", count) + "/printer.dat");
    std::vector<unsigned char> erase = erase_report();
    FlashInterface device;
    std::size_t next = 0;
    for ([[maybe_unused]] const auto iteration : state) {
        if (next == 0) {
            state.PauseTiming();
            device.exchange(erase);
            state.ResumeTiming();
        }
        device.exchange(records[next]);
        next = (next + 1) % records.size();
    }
}

void add_enumeration(const char* name, void (*enumerate)()) {
    benchmark::RegisterBenchmark(name, run_enumeration, enumerate)
        ->UseRealTime()
        ->Unit(benchmark::kMicrosecond);
}

/// The process's time, since a device that takes its time does so by sleeping in several threads.
benchmark::internal::Benchmark* add_records(const char* name, int count) {
    return benchmark::RegisterBenchmark(name, send_records_bare, count)
        ->MeasureProcessCPUTime()
        ->Unit(benchmark::kMicrosecond);
}

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    const int devices = argc > 1 ? static_cast<int>(std::strtol(argv[1], nullptr, 10)) : 0;
    const bool at_full_speed = argc == 3 && std::string_view(argv[2]) == "full-speed";
    if (devices < 1 || argc > (at_full_speed ? 3 : 2)) {
        std::cerr << "usage: library_calls DEVICES [full-speed] [BENCHMARK-OPTION ...]\n";
        return 2;
    }
    try {
        const Simulation simulation;
        const std::string bus =
            simulation.make_bus("bus.toml", devices, at_full_speed ? full_speed : instant);
        for (const auto& [name, value] : simulation.environment(bus)) {
            setenv(name.c_str(), value.c_str(), 1);
        }
        check(lt_dlinit() == 0 ? LoadHidDlls() : -1, "the simulated USB library");
        if (at_full_speed) {
            constexpr int records = 256;
            add_records("records/bare", records)->Iterations(records);
        } else {
            add_enumeration("enumeration/program", enumerate_with_the_program);
            add_enumeration("enumeration/bare", enumerate_bare);
            add_records("records/bare", 1024);
        }
        benchmark::RunSpecifiedBenchmarks();
    } catch (const std::exception& error) {
        std::cerr << "library_calls: " << error.what() << '\n';
        return 1;
    }
    return 0;
}
