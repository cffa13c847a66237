#include "support/answering_device.h"

#include "settings.h"
#include "support/check.h"
#include "support/virtual_sleep.h"
#include "usb/zelflshhid.h"

#include <algorithm>
#include <cstring>

namespace {

constexpr int output_size = 263;
constexpr int feature_size = 263;

}  // namespace

AnsweringDevice::AnsweringDevice()
    : device_(usb_.add(1, 2, 0x7A01, 0x3C02)), session_(std::make_unique<ZELFLASH>()) {
    make_flash_device(device_, false, output_size, feature_size);
    const std::string path = flash_path(device_);
    session_->hiddev = std::make_unique<HIDDEVICE2>(0, 0, path.c_str());
    check(session_->setup_device_for_reading(path.c_str(), 0, 0) == 0, "the device opens");
    // The fake library would note the claim before each command, for as long as the process lives.
    p_libusb_claim_interface = [](libusb_device_handle*, int) { return 0; };
    // The reader's part is played while the session sleeps.
    session_->use_thread_reading = 1;
    global_reading_information = 1;
}

AnsweringDevice& AnsweringDevice::fresh() {
    static AnsweringDevice device;
    device.usb_.controls.clear();
    device.reports_.clear();
    device.will_give({}, 0);
    device.session_->initialize_device_data(0, "", "", 0x3C02, 0x0100);
    flashEntry& row = device.row();
    row.dev_type = row.dev_id = row.command_set = row.features = 0;
    row.current_ec_level = row.previous_ec_level = 0;
    row.current_build_level = row.previous_build_level = 0;
    device.session_->status_ready = 0;
    std::fill(std::begin(device.session_->last_status), std::end(device.session_->last_status), 0);
    on_sleep = [](long) { device.deliver(); };
    return device;
}

void AnsweringDevice::will_give(const Bytes& data, int rc) {
    device_.feature = data;
    device_.before_class_request = [this, rc](const FakeControl& control) {
        if ((control.type & LIBUSB_ENDPOINT_IN) != 0 && rc < 0) {
            device_.control_rcs = {rc};
        }
    };
}

void AnsweringDevice::deliver() {
    if (!reports_.empty()) {
        std::memcpy(session_->last_status, reports_.front().data(), status_report_size);
        reports_.pop_front();
        session_->status_ready = 1;
    }
}

AnsweringDevice::StatusReport take_report(FuzzInput& input, std::uint8_t usual_flags) {
    AnsweringDevice::StatusReport report{};
    for (std::uint8_t& byte : report) {
        byte = input.byte();
    }
    report[0] = report[0] == 0 ? usual_flags : report[0];
    return report;
}

DataAnswer take_data(FuzzInput& input, std::size_t size) {
    const int rc = std::min<int>(static_cast<std::int8_t>(input.byte()), 0);
    return {rc, input.bytes(size)};
}

void check_components(const flashEntry& row) {
    check(row.component_count >= 0 && row.component_count <= max_components,
          "the components are counted as far as the table goes");
    for (int number = 0; number < max_components; ++number) {
        const component_entry& component = row.component[number];
        check(component.comp_id == 0 || component.comp_id == number,
              "a component stands in the row of its number");
        check(component.ec_level >= 0 && component.ec_level <= 0xFFFF, "a level has 16 bits");
        check(component.build_level >= 0 && component.build_level <= 0xFF,
              "a build level has 8 bits");
        check(component.comp_type >= 0 && component.comp_type <= 7, "a type has 3 bits");
        check(component.version_method == 0 || component.version_method == 1,
              "a version method has one bit");
    }
}
