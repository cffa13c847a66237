#include "support/made_trace.h"

#include "flash_protocol.h"
#include "journal/zelfwtrace.h"

#include <cstring>
#include <iterator>
#include <string>
#include <string_view>

namespace {

constexpr std::uint16_t products[] = {0x3C35, 0x3C12, 0, 0xFFFF};
constexpr std::uint8_t statuses[] = {0x01, 0x00, 0x80, 0x40, 0x04, 0x08, 0x0D, 0xFF};

/// What readers look for, as the program writes it.
constexpr std::string_view lines[] = {
    "Command line:  zelfwupdate -U -o 1 -c 2\n",
    "Command line:  zelfwupdate -U\n",
    "Processing 7a01:3c35:a000-1\n",
    "Processing 7a02:3c12:a000-1\n",
    "\nFirmware file found:  /srv/firmware/printer-main.dat\n",
    "  File   - PID: 3c35  COMP: 00  TYPE: FW   CONTROL: Increasing   EC: 01.05.01\n",
    "  Device - PID: 3c35  COMP: 00  TYPE: FW   CONTROL: Increasing   EC: 01.02.03 "
    "(SN='PR40021')\n",
    "    Starting firmware update of Product ID 3c35 COMP: 0\n",
    "Erase completed, now sending 3 firmware update records from file\n",
    "Write device not connected, rc=-4 (usage=a001)\n",
    "Read device not connected, rc=-4\n",
    "Get Feature Report a003 rc=13\n",
    "Get feature pipe error, rc=-9\n",
    "Resetting device PID: 3c35 (SN='PR40021')\n",
    "Reading data from device PID: 3c12 COMP: 1\n",
    "PID: 3c35  COMP: 00  TYPE: FW   CONTROL: Increasing   EC: 01.02.03 (SN='PR40022')\n",
    "PID: 3c35  COMP: 01  TYPE: CFG  CONTROL: Random       EC: 02.10    (SN='PR40022')\n",
    "Nothing was sent to Product ID 3c35 COMP: 0: it can't be opened\n",
    "HIDDEVICE2(usb#vid_7a01&pid_3c35&mi_00&ec_0102&port_2)\n",
    "Usage=ff45:a001 ReportID: 01 Size=263\n",
    "MaxPacketSize=64 Address=81\n",
};

class TraceWriter {
  public:
    explicit TraceWriter(FuzzInput& input) : input_(input) { add(trace_kind::version, {}); }

    std::vector<std::uint8_t> write() {
        while (input_.left() > 0) {
            add_one();
        }
        return bytes_;
    }

  private:
    using Payload = std::vector<std::uint8_t>;

    void add_one() {
        const unsigned what = input_.below(9);
        switch (what) {
            case 0:
            case 1:
                return add_line();
            case 2:
                return add(trace_kind::report_written, transfer(command()));
            case 3:
            case 4:
                return add(trace_kind::report_written, transfer(image_message()));
            case 5:
                return add(trace_kind::status_read, transfer(status()));
            case 6:
                return add(trace_kind::feature_read, transfer(input_.bytes(input_.byte())));
            case 7:
                return input_.byte() == 7 ? add(trace_kind::version, {}) : spoil();
            default:
                process_ = input_.below(2) + 1;
        }
    }

    void add_line() {
        std::string line(lines[input_.below(std::size(lines))]);
        for (unsigned changes = input_.below(3); changes > 0; --changes) {
            const std::size_t at = input_.byte() % line.size();
            line[at] = static_cast<char>(input_.byte());
        }
        add(trace_kind::text, {line.begin(), line.end()});
    }

    Payload command() {
        const CommandRow& row = command_table[input_.below(std::size(command_table))];
        return {row.message.bytes.begin(), row.message.bytes.begin() + row.message.length};
    }
    Payload image_message() {
        const Payload body = input_.bytes(input_.below(24));
        const bool is_checksum = body.size() < 4;
        const auto length = static_cast<std::uint8_t>(is_checksum ? 0 : body.size() - 3);
        Payload message = {static_cast<std::uint8_t>(length + image_message::count_beside_payload),
                           0, image_message::operation, 0, length};
        message.insert(message.end(), body.begin(), body.end());
        return message;
    }
    Payload status() {
        Payload report = {statuses[input_.below(std::size(statuses))]};
        const Payload more = input_.bytes(input_.below(9));
        report.insert(report.end(), more.begin(), more.end());
        return report;
    }
    Payload transfer(const Payload& report) {
        const std::uint16_t product = products[input_.below(std::size(products))];
        Payload payload = {static_cast<std::uint8_t>(product >> 8),
                           static_cast<std::uint8_t>(product),
                           0xA0,
                           0x01,
                           0,
                           0,
                           0,
                           0};
        payload.insert(payload.end(), report.begin(), report.end());
        return payload;
    }

    void add(std::uint32_t kind, const Payload& payload) {
        traceStruct3 header{};
        const bool is_version = kind == trace_kind::version;
        clock_ += input_.byte();
        header.length =
            is_version ? version_record_length : static_cast<std::uint32_t>(payload.size());
        header.minorCode = kind;
        header.clockTime = clock_;
        header.tid = 1;
        header.pid = process_;
        header.time = 1'700'000'000;
        header.component = is_version ? std::uint8_t{0} : trace_data_component;
        const std::size_t at = bytes_.size();
        bytes_.resize(at + sizeof header);
        std::memcpy(bytes_.data() + at, &header, sizeof header);
        bytes_.insert(bytes_.end(), payload.begin(), payload.end());
    }
    void spoil() {
        const Payload rubbish = input_.bytes(input_.byte());
        bytes_.insert(bytes_.end(), rubbish.begin(), rubbish.end());
    }

    FuzzInput& input_;
    std::vector<std::uint8_t> bytes_;
    std::uint32_t process_ = 1;
    double clock_ = 0;
};

}  // namespace

std::vector<std::uint8_t> made_trace(FuzzInput& input) {
    if (input.byte() == 0) {
        return input.bytes(input.left());
    }
    return TraceWriter(input).write();
}
