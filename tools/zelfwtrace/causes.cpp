#include "zelfwtrace/causes.h"

#include "flash_protocol.h"

#include <algorithm>
#include <string>

const Cause causes[] = {
    {"device-gone", "The device left the bus: unplugged, without power, or restarting by itself.",
     "Look at plug, cable, hub and power supply; list the device with -L, then run the same update "
     "again."},
    {"no-answer", "The device did not answer in time.",
     "Run the same update again. If it recurs at another place, raise the time-out of that step "
     "(-1 erasing, -2 records, -3 checksum); at the same place, check the file."},
    {"write-time-out", "The device did not take the message within five seconds.",
     "Unplug the device, plug it in again without a hub, and run the same update again."},
    {"time-out", "A transfer of the device's data was not over within five seconds.",
     "Unplug the device, plug it in again, and run the same command again."},
    {"stall", "The device refused the transfer on the wire (stall).",
     "Unplug the device, plug it in again, and run the same update again. If it recurs, the device "
     "does not know this message."},
    {"io-error", "The transfer was garbled on the wire (I/O error).",
     "Exchange cable and port, leave out the hub, and run the same update again."},
    {"overflow", "More arrived on the wire than was asked for (overflow).",
     "Exchange cable and port, leave out the hub, and run the same update again."},
    {"empty-transfer", "The transfer moved no byte.",
     "Unplug the device, plug it in again, and run the same update again."},
    {"not-claimed",
     "The program does not have the device's interface: another program or a driver of the kernel "
     "holds it, or the device went while it was opened.",
     "Stop what else uses the device (a second updater, the till's software), then run the same "
     "command again."},
    {"no-access", "The system refused access to the device.",
     "Run the program as root, outside a container that hides the devices."},
    {"busy", "Another program or a driver of the kernel holds the device's interface.",
     "Stop what else uses the device, then run the same command again."},
    {"not-found", "The USB library did not find what the transfer was for.",
     "Unplug the device, plug it in again, and run the same command again."},
    {"interrupted", "A signal cut the transfer short.", "Run the same command again."},
    {"no-memory", "There was no memory for the transfer.",
     "Close other programs, then run the same command again."},
    {"not-supported", "The system, or the device, does not support what was asked for.",
     "Look whether the file is for this device; update the system's USB library."},
    {"usb-other", "The USB library gave up with a code that tells no reason.",
     "Unplug the device, plug it in again, and look at the kernel's log (dmesg)."},
    {"rejected", "The device rejected the message (status 0x80): not in this state, or malformed.",
     "Run \"zelfwfile check\" on the file, unplug the device, plug it in again, and run the same "
     "update again."},
    {"operation-error",
     "The device understood the message and failed to carry it out (status 0x40).",
     "Run \"zelfwfile check\" on the file and look whether it is for this device and component; "
     "then run the same update again. If it recurs, the device's flash memory is worn out."},
    {"garbled-status", "The device answered with a status that no device gives.",
     "Exchange cable and port, leave out the hub, and run the same update again."},
    {"garbled-data", "The device answered a query with data that make no list.",
     "Unplug the device, plug it in again, and list it with -L."},
    {"data-unreadable",
     "The device did not hand over its data; at this level the log does not say "
     "why.",
     "Run the same command again with -n 2: the log then names the transfer's error."},
    {"query-unanswered", "The device did not answer a query.",
     "List the device with -L. If components are missing there, unplug it and plug it in again."},
    {"not-back", "The device did not come back after its restart.",
     "Unplug the device, plug it in again, and list it with -L; then run the same update again for "
     "its other components."},
    {"reset-ignored", "The device did not restart when it was told to.",
     "Unplug the device and plug it in again, or run -R: the new firmware runs after that."},
    {"device-not-opened", "The device could not be opened for its update: nothing was sent.",
     "Stop what else uses the device, look whether it is still plugged in, and run the same update "
     "again. The exit code of such a run is 0 all the same."},
    {"device-not-found", "No device of the product was found that could be opened.",
     "Look whether the device is plugged in and has power, and stop what else uses it."},
    {"no-reader", "No thread read the device's answers: nothing was sent.",
     "Leave out -o 2; close other programs when there is no memory for a thread."},
    {"answer-lost", "An answer could not be read, and the step counted by the answer before it.",
     "Compare the levels with -L; when in doubt run the same update again with -f."},
    {"answer-surplus",
     "More answers came than messages were sent, so an answer may belong to "
     "another message.",
     "Compare the levels with -L; when in doubt run the same update again with -f."},
    {"file-corrupted", "The firmware file ends before its end mark, or can't be read.",
     "Run \"zelfwfile check\" on the file, get a whole one, and run the same update again."},
    {"file-not-sent", "The firmware file could not be taken as it was listed.",
     "Do not exchange files while the program runs; run the same update again."},
    {"no-file", "There was no firmware file for the component that could be opened.",
     "Look into the directory of -p, or at the files of -F."},
    {"version-mismatch", "The file is of another version line than the device.",
     "Get the file of the device's line. For a broken component add -f -o 4, with exactly one "
     "file."},
    {"message-cut", "The file's records do not fit into the device's report.",
     "Look whether the file is for this device."},
    {"no-report", "The device does not tell of a report for messages.",
     "Unplug the device, plug it in again, and run the same update again."},
    {"no-end-of-data", "The device did not end its data.",
     "Unplug the device, plug it in again, and read the component again."},
    {"output-not-written", "The output file could not be written.",
     "Look for room on the disk and the rights of the directory."},
    {"no-output-file", "No output file was named.", "Add -w and a file."},
    {"no-firmware-files", "No firmware file was found.",
     "Look into the directory of -p, or at the files of -F."},
    {"no-devices", "No device with a flash interface was found.",
     "Look at plug, cable, hub and power supply; stop what else uses the device."},
    {"none-selected", "No device fitted -d and -s.",
     "List the devices with -L and compare product IDs and serial numbers."},
    {"nothing-updated", "No device was updated; the log names no failure.",
     "List the devices with -L and compare levels and product IDs with the files."},
    {"not-root", "The program was not run as root.", "Run it as root."},
    {"no-usb-library", "The USB library could not be loaded.",
     "Install libusb-1.0 of the program's word size."},
    {"exception", "The program met an error that it does not know, such as no memory.",
     "Run the same command again; keep the trace for the maintainers."},
    {"crashed", "The program crashed.",
     "Leave the device plugged in and run the same command again; keep trace and log for the "
     "maintainers."},
    {"stopped-by-signal",
     "The run was stopped in the middle of an image while the wire stood "
     "still.",
     "Leave the device plugged in and run the same update again."},
    {"cut-off",
     "The run has no end in the trace: it was killed, the machine lost power, or it was "
     "still going on.",
     "Leave the device plugged in and run the same update again."},
    {"unknown", "Unknown: no text and no answer tells it.",
     "Look at the last lines, and run the same command again with -n 2."},
};
const std::size_t cause_count = std::size(causes);

const EndingText ending_texts[] = {
    {"Write device not connected, rc=-4 (usage=...)", "device-gone"},
    {"Write timed out, rc=-7 (usage=...)", "write-time-out"},
    {"Write pipe error, rc=-9 (usage=...)", "stall"},
    {"Read end point halted, rc=-9", "stall"},
    {"Read device overflow, rc=-8", "overflow"},
    {"Read device not connected, rc=-4", "device-gone"},
    {"Read I/O Error, rc=-1", "io-error"},
    {"Write device not connected, rc=0 (usagePage=..., usage=...)", "device-gone"},
    {"Read no HID device, rc=0", "device-gone"},
    {"Get feature device not connected (usagePage=..., usage=...)", "device-gone"},
    {"Get feature timeout (usagePage=..., usage=...)", "time-out"},
    {"Get feature pipe error (usagePage=..., usage=...)", "stall"},
    {"Read of checksm write status failed", "no-answer"},
    {"Nothing was sent to Product ID ... COMP: ...: it can't be opened", "device-not-opened"},
    {"Nothing was sent to Product ID ... COMP: ...: no thread can be started to read its answers:",
     "no-reader"},
    {"Nothing was sent to Product ID ... COMP: ...: background reading is switched off",
     "no-reader"},
    {"The result is uncertain: ... status report... could not be read", "answer-lost"},
    {"The result is uncertain: ... status report... more than messages sent", "answer-surplus"},
    {"File corrupted, stopping update", "file-corrupted"},
    {"Firmware update file apparently bad", "file-corrupted"},
    {"File '...' is not sent: ...", "file-not-sent"},
    {"No flash file for PID: ... C COMP: ...", "no-file"},
    {"PID: ... COMP: ... - Version mismatch (file=..., device=...)", "version-mismatch",
     Reach::run},
    {"Messages are cut short: record ... needs ... bytes, the device's report holds ... "
     "(records cut short: ...)",
     "message-cut"},
    {"The report for messages to the device is not known: without it nothing is sent", "no-report"},
    {"The device does not end its data after ... blocks", "no-end-of-data"},
    {"Could not write all data to '...'", "output-not-written"},
    {"Could not open '...' for writing", "output-not-written"},
    {"No output file specified", "no-output-file", Reach::run},
    {"No firmware files!", "no-firmware-files", Reach::run},
    {"No devices found", "no-devices", Reach::run},
    {"No devices selected", "none-selected", Reach::run},
    {"No devices updated", "nothing-updated", Reach::run},
    {"Must be 'root' to update firmware devices", "not-root", Reach::run},
    {"Could not load HID libraries (rc=...)", "no-usb-library", Reach::run},
    {"Failed loading libusb-1.0.so, error=...", "no-usb-library", Reach::run},
    {"Failed finding symbol '...'", "no-usb-library", Reach::run},
    {"Flash interface load failed...exception occurred", "exception", Reach::run},
    {"Flash failed...exception occurred", "exception", Reach::run},
    {"The run could not be set up...exception occurred", "exception", Reach::run},
    {"Segmentation Fault.. Stopping", "crashed", Reach::run},
    {"Stopped while nothing moved on the wire: the image of PID: ... COMP: ... (SN='...') is "
     "incomplete. Leave the device plugged in and run the same update again",
     "stopped-by-signal", Reach::run},
};
const std::size_t ending_text_count = std::size(ending_texts);

const CodeCause usb_codes[] = {
    {0, "empty-transfer"},  {-1, "io-error"},   {-2, "not-claimed"},  {-3, "no-access"},
    {-4, "device-gone"},    {-5, "not-found"},  {-6, "busy"},         {-7, "write-time-out"},
    {-8, "overflow"},       {-9, "stall"},      {-10, "interrupted"}, {-11, "no-memory"},
    {-12, "not-supported"}, {-99, "usb-other"},
};
const std::size_t usb_code_count = std::size(usb_codes);

const CodeCause exchange_codes[] = {
    {7, "no-answer"},        {8, "usb-other"},    {11, "usb-other"},
    {12, "data-unreadable"}, {13, "device-gone"}, {17, "not-supported"},
};
const std::size_t exchange_code_count = std::size(exchange_codes);

const CodeCause status_bits[] = {
    {status_flag::reject, "rejected"},
    {status_flag::operation_error, "operation-error"},
};
const std::size_t status_bit_count = std::size(status_bits);

namespace {

constexpr std::string_view change = "...";

/// Whether the pieces of `pattern` between its changes stand in `line` one after the other, the
/// first one at its beginning.
bool is_text(std::string_view line, std::string_view pattern) {
    std::size_t at = 0;
    for (bool is_first = true;; is_first = false) {
        const std::size_t end = pattern.find(change);
        const std::string_view piece = pattern.substr(0, end);
        const std::size_t found = line.find(piece, at);
        if (found == std::string_view::npos || (is_first && found != 0)) {
            return false;
        }
        at = found + piece.size();
        if (end == std::string_view::npos) {
            return true;
        }
        pattern.remove_prefix(end + change.size());
    }
}

template <typename Rows>
const Cause* find_code(const Rows& rows, int code) {
    const auto* row = std::find_if(std::begin(rows), std::end(rows),
                                   [code](const CodeCause& one) { return one.code == code; });
    return row == std::end(rows) ? nullptr : cause_named(row->cause);
}

}  // namespace

const Cause* cause_named(std::string_view name) {
    const auto* row = std::find_if(std::begin(causes), std::end(causes),
                                   [name](const Cause& cause) { return cause.name == name; });
    return row == std::end(causes) ? nullptr : row;
}

const EndingText* find_ending_text(std::string_view line) {
    const auto* row =
        std::find_if(std::begin(ending_texts), std::end(ending_texts),
                     [line](const EndingText& one) { return is_text(line, one.text); });
    return row == std::end(ending_texts) ? nullptr : row;
}

const Cause* cause_of_usb_code(int code) {
    const Cause* cause = find_code(usb_codes, code);
    return cause != nullptr ? cause : cause_named("usb-other");
}

const Cause* cause_of_exchange_code(int code) {
    return find_code(exchange_codes, code);
}

const Cause* cause_of_status(std::uint8_t flags) {
    constexpr int known = status_flag::reject | status_flag::operation_error |
                          status_flag::completed | status_flag::ec_level |
                          status_flag::device_information;
    if ((flags & ~known) != 0) {
        return cause_named("garbled-status");
    }
    for (const CodeCause& bit : status_bits) {
        if ((flags & bit.code) != 0) {
            return cause_named(bit.cause);
        }
    }
    return nullptr;
}
