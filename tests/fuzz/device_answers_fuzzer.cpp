// Device information, EC level and the version of component 1: three status reports, then the data
// answer to the version.
#include "flash_protocol.h"
#include "support/answering_device.h"
#include "support/check.h"

namespace {

using StatusReport = AnsweringDevice::StatusReport;

void check_device_information(AnsweringDevice& device, const StatusReport& report) {
    device.will_report(report);
    const int rc = device.session().get_device_info(&device.row(), 0);
    const flashEntry& row = device.row();
    if (is_bad_status(report[0])) {
        check(rc != 0, "a bad status is a failure");
    } else if ((report[0] & status_flag::device_information) != 0) {
        check(rc == 0 && row.dev_type == report[1] && row.dev_id == report[2] &&
                  row.command_set == report[3] && row.features == report[4],
              "the row takes the information");
        return;
    }
    check(row.dev_type == 0 && row.features == 0, "the row stays as it was");
}

void check_level(AnsweringDevice& device, const StatusReport& report) {
    device.will_report(report);
    const int rc = device.session().get_ec_level(&device.row(), 0);
    const flashEntry& row = device.row();
    if (is_bad_status(report[0])) {
        check(rc != 0, "a bad status is a failure");
    } else if ((report[0] & status_flag::ec_level) != 0) {
        const bool has_builds = (row.features & device_feature::extended_versioning) != 0;
        check(rc == 0 && row.current_ec_level == report[2] * 256 + report[1] &&
                  row.previous_ec_level == report[4] * 256 + report[3],
              "the row takes the levels, low byte first");
        check(row.current_build_level == (has_builds ? report[5] : 0) &&
                  row.previous_build_level == (has_builds ? report[6] : 0),
              "the row takes build levels from a device that has them");
        return;
    }
    check(row.current_ec_level == 0 && row.current_build_level == 0, "the row stays as it was");
}

void check_component_version(AnsweringDevice& device, const StatusReport& report,
                             const DataAnswer& answer) {
    device.will_report(report);
    device.will_give(answer.bytes, answer.rc);
    const int rc = device.session().add_component_x_version_info(&device.row(), 1, 1, 0);
    const component_entry& component = device.row().component[1];
    check_components(device.row());
    const bool is_taken = !is_bad_status(report[0]) && (report[0] & status_flag::completed) != 0;
    check(is_taken || component.ec_level == 0, "without a completed command there is no version");
    if (is_taken && answer.rc == 0 && answer.bytes.size() >= 8) {
        check(rc == 0 && component.comp_id == 1 &&
                  component.ec_level == answer.bytes[7] * 256 + answer.bytes[6],
              "component 1 takes the version, low byte first");
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzInput input(data, size);
    AnsweringDevice& device = AnsweringDevice::fresh();
    check_device_information(device, take_report(input, status_flag::device_information));
    check_level(device, take_report(input, status_flag::ec_level));
    const auto report = take_report(input, status_flag::completed);
    check_component_version(device, report, take_data(input, 260));
    return 0;
}
