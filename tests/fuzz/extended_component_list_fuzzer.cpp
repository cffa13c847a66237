// The extended component list: a status report, then the data answer.
#include "flash_protocol.h"
#include "support/answering_device.h"
#include "support/check.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzInput input(data, size);
    AnsweringDevice& device = AnsweringDevice::fresh();
    const auto report = take_report(input, status_flag::completed);
    const DataAnswer answer = take_data(input, 260);
    device.will_report(report);
    device.will_give(answer.bytes, answer.rc);

    const int rc = device.session().read_extended_component_list(&device.row(), 0);
    const flashEntry& row = device.row();
    check_components(row);
    if (is_bad_status(report[0])) {
        check(rc == no_component_list, "after a bad status there is no list");
        check(row.component_count == 0, "without a list there are no components");
    } else if (answer.rc == 0 && answer.bytes.size() > 2 && answer.bytes[2] % 5 != 0) {
        check(rc == no_component_list && row.component_count == 0,
              "a list that ends inside an entry is not taken");
    }
    return 0;
}
