// The firmware files that a trace is taken to have carried.
#include "support/check.h"
#include "support/made_trace.h"
#include "support/scratch_directory.h"
#include "zelfwfile/firmware_content.h"
#include "zelfwfile/firmware_from_trace.h"

#include <set>
#include <stdexcept>
#include <string>

namespace {

void check_file(const RebuiltFirmware& file) {
    check(!file.name.empty() && file.name.find('/') == std::string::npos && file.name != "..",
          "a name leads to no other directory");
    if (file.bytes.empty()) {
        check(!file.is_whole && !file.words.empty(), "a file without bytes has a reason");
        return;
    }
    const FirmwareContent content = read_firmware_content(write_scratch_file("image", file.bytes));
    check(content.product >= 0 && content.level > 0, "the header has a product and a level");
    check(content.trouble.empty() == file.is_whole, "a file looks whole when it is");
    check(file.name.ends_with(".part") == !file.is_whole || file.is_whole,
          "a file that is not whole is called so");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzInput input(data, size);
    const std::string trace = write_scratch_file("trace", made_trace(input));
    try {
        std::set<std::string> names;
        for (const RebuiltFirmware& file : rebuilt_firmware(read_sent_images(trace, -1).images)) {
            check_file(file);
            check(file.bytes.empty() || names.insert(file.name).second,
                  "no two files have one name");
        }
    } catch (const std::runtime_error&) {
        // The trace has no run, or too much in one.
    }
    return 0;
}
