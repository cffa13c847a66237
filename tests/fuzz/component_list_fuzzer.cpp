// The plain component list: the first byte swaps level bytes or not, a status report follows, then
// the data answer.
#include "flash_protocol.h"
#include "settings.h"
#include "support/answering_device.h"
#include "support/check.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzInput input(data, size);
    AnsweringDevice& device = AnsweringDevice::fresh();
    sdv_dawu_hw = input.byte() & 1;
    const auto report = take_report(input, status_flag::completed);
    const DataAnswer answer = take_data(input, 260);
    device.will_report(report);
    device.will_give(answer.bytes, answer.rc);

    const int rc = device.session().add_components_to_table(&device.row(), 0);
    const flashEntry& row = device.row();
    check_components(row);
    const bool is_taken = !is_bad_status(report[0]) && (report[0] & status_flag::completed) != 0;
    if (!is_taken) {
        check(rc == no_component_list, "without a good status there is no list");
        check(row.component_count == 0, "without a list there are no components");
    } else if (answer.rc == 0 && answer.bytes.size() > 2 && answer.bytes[2] % 4 != 0) {
        check(rc == no_component_list && row.component_count == 0,
              "a list that ends inside an entry is not taken");
    }
    return 0;
}
