// The dissector for Wireshark, as tshark runs it: on captures of traces, and on those of buses.
#include "support/bus_test.h"
#include "support/hexadecimal.h"
#include "trace_bytes.h"
#include "trace_tool.h"
#include "zelfwtrace/pcapng.h"
#include "zelfwtrace/usb_packet.h"

#include <gmock/gmock.h>

#include <random>
#include <regex>

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;

namespace {

constexpr char device_information_query[] = "03 00 00 00 01";
constexpr char odd_checksum[] = "05 00 02 00 00 12 34";

/// tshark with the built dissector, and no other settings than its own.
class Tshark {
  public:
    ToolRun run(const std::string& capture, const std::string& arguments) const {
        ToolRun run = run_tool("HOME=" + quoted(home_.path()) +
                               " tshark -X lua_script:" + quoted(ZELFW_DISSECTOR) + " -r " +
                               quoted(capture) + " " + arguments);
        EXPECT_EQ(run.code, 0) << run.errors;
        EXPECT_THAT(run.errors, Not(HasSubstr("ua:"))) << "an error of the script itself";
        return run;
    }
    /// The fields of every frame that passes the filter, joined by blanks; empty ones too.
    std::vector<std::string> fields(const std::string& capture, const std::string& filter,
                                    const std::vector<std::string>& names,
                                    const std::string& options = "") const {
        std::string arguments =
            options + " -Y " + quoted(filter) + " -T fields -E separator=/s -E occurrence=a";
        for (const std::string& name : names) {
            arguments += " -e " + name;
        }
        return run(capture, arguments).lines();
    }

  private:
    TemporaryDirectory home_;
};

class Dissector : public TraceToolTest {
  protected:
    void SetUp() override {
        if (run_tool("command -v tshark").code != 0) {
            GTEST_SKIP() << "tshark is not installed";
        }
    }
    std::string capture() const { return path("exchange.pcapng"); }
    /// The capture that zelfwtrace makes of a trace.
    void capture_trace(const TraceBytes& trace) {
        set_trace(trace.bytes());
        const ToolRun run = show("pcap -o " + quoted(capture()));
        ASSERT_EQ(run.code, 0) << run.errors;
    }
    std::vector<std::string> fields(const std::string& filter,
                                    const std::vector<std::string>& names,
                                    const std::string& options = "") const {
        return tshark_.fields(capture(), filter, names, options);
    }
    /// What tshark prints with the dissector among the user's plugins.
    std::string run_plugin(const std::string& arguments) const {
        const std::string place = path("home/.local/lib/wireshark/plugins");
        std::filesystem::create_directories(place);
        std::filesystem::copy_file(ZELFW_DISSECTOR, place + "/zelfw.lua");
        const ToolRun run = run_tool("HOME=" + quoted(path("home")) + " tshark " + arguments);
        EXPECT_EQ(run.code, 0) << run.errors;
        return run.output;
    }
    /// The info column of the protocol's frames.
    std::vector<std::string> info(const std::string& filter = "zelfw") const {
        return fields(filter, {"_ws.col.Info"});
    }
    /// The protocol's expert information, in the frames' order.
    std::vector<std::string> experts() const {
        return fields("_ws.expert && zelfw", {"_ws.expert.message"});
    }

    Tshark tshark_;
};

/// Captures of a bus, packet by packet.
class DissectorOnABus : public Dissector {
  protected:
    static constexpr UsbAddress address = {.bus = 3, .device = 9};

    void add(const UsbTransfer& transfer) {
        ++number_;
        for (const bool is_completion : {false, true}) {
            packets_.push_back(usb_packet(transfer, is_completion, number_, 1000 * number_));
        }
    }
    void device(unsigned int vendor, unsigned int product) {
        std::string bytes = device_descriptor(static_cast<std::uint16_t>(product));
        bytes[8] = static_cast<char>(vendor & 0xFF);
        bytes[9] = static_cast<char>(vendor >> 8);
        add(control_in(address, get_device_descriptor, bytes));
    }
    void configuration() {
        add(control_in(address, get_configuration_descriptor, configuration_descriptor()));
    }
    void report_descriptor_of(const std::string& hexadecimal) {
        const std::string bytes = from_hex(hexadecimal);
        add(control_in(address, get_report_descriptor, bytes));
    }
    void sent(const std::string& hexadecimal, std::uint16_t id = 0) {
        UsbRequest request = set_output_report;
        request.value = static_cast<std::uint16_t>(request.value + id);
        const std::string bytes = from_hex(hexadecimal);
        add(control_out(address, request, bytes));
    }
    void status(const std::string& hexadecimal) {
        const std::string bytes = from_hex(hexadecimal);
        add(interrupt_in(address, bytes));
    }
    void write() const {
        std::string file = pcapng_beginning(220);
        for (std::size_t i = 0; i < packets_.size(); ++i) {
            file += pcapng_packet(static_cast<std::int64_t>(i) * 10, packets_[i], {});
        }
        write_file(capture(), file);
    }

    std::vector<std::string> packets_;

  private:
    std::uint8_t number_ = 0;
};

class DissectorOnARun : public BusTest {
  protected:
    void SetUp() override {
        if (run_tool("command -v tshark").code != 0) {
            GTEST_SKIP() << "tshark is not installed";
        }
    }
    /// The lines of `zelfwtrace show`, and the info column of the capture of the same trace. Their
    /// answer times may differ by a millisecond.
    void expect_the_words_of_the_trace() {
        const std::string trace = quoted(path("trace.bin"));
        const std::string capture = path("run.pcapng");
        ASSERT_EQ(run_tool(quoted(ZELFWTRACE) + " pcap " + trace + " -o " + quoted(capture)).code,
                  0);
        static const std::regex time(R"(, \d+ ms\))");
        const auto timeless = [](std::vector<std::string> lines) {
            for (std::string& line : lines) {
                line = std::regex_replace(line, time, ")");
            }
            return lines;
        };
        std::vector<std::string> shown =
            words_of(run_tool(quoted(ZELFWTRACE) + " show -k sent,status,data " + trace).lines());
        for (std::string& line : shown) {
            line.erase(0, std::string("3c35  ").size());
        }
        ASSERT_FALSE(shown.empty());
        EXPECT_EQ(timeless(tshark_.fields(capture, "zelfw", {"_ws.col.Info"})), timeless(shown));
    }

    Tshark tshark_;
};

/// The boot keyboard of HID 1.11 appendix B.1, cut to its input report.
constexpr char keyboard[] = "05 01 09 06 a1 01 05 07 19 e0 29 e7 15 00 25 01 75 01 95 08 81 02 c0";
/// A flash interface whose reports have the IDs 1, 2 and 3, and one of another page with ID 4.
constexpr char with_ids[] =
    "06 45 ff 0a 00 a0 a1 01 15 00 26 ff 00 75 08"
    "85 01 0a 01 a0 95 40 91 02 85 02 0a 02 a0 95 08 81 02 85 03 0a 03 a0 95 ff b1 02"
    "85 04 0a 77 00 95 08 91 02 c0";

}  // namespace

TEST_F(DissectorOnARun, InfoColumnSaysWhatTheTraceSays) {
    SimDevice device;
    device.components = {{}, {.id = 1}};
    set_bus({device});
    add_firmware("main.dat", {.data_records = 3});
    add_firmware("boot.dat", {.component = 1, .data_records = 3});
    EXPECT_EQ(update().exit_code, 0);
    expect_the_words_of_the_trace();
}

TEST_F(DissectorOnARun, RecordsThatAreReadBackAreShownToo) {
    set_bus({SimDevice{}});
    add_firmware("main.dat", {.data_records = 3});
    const std::string capture = path("run.pcapng");
    const std::vector<std::string> names = {"zelfw.tag", "zelfw.value", "zelfw.payload"};
    EXPECT_EQ(update().exit_code, 0);
    expect_the_words_of_the_trace();
    const std::vector<std::string> sent = tshark_.fields(capture, "zelfw.record", names);
    EXPECT_THAT(sent, SizeIs(5));
    EXPECT_EQ(run({"-G", "0", "-w", path("read.dat"), "-d", "3c35"}).exit_code, 0);
    expect_the_words_of_the_trace();
    EXPECT_THAT(tshark_.fields(capture, "zelfw.last_block == 1", {"_ws.col.Info"}),
                ElementsAre("data: end of the records"));
    // What the device gives back is what it was sent.
    EXPECT_EQ(tshark_.fields(capture, "zelfw.last_block == 0", names), sent);
}

TEST_F(Dissector, RecordShowsItsNumberComponentTagAndPayload) {
    TraceBytes trace;
    trace.sent(erase_report).status(done_report);
    trace.sent("08 00 02 00 02 ff 00 01 aa bb").status(done_report);
    trace.sent("09 00 02 00 03 12 34 56 01 02 03")
        .status(done_report)
        .sent(odd_checksum)
        .status(done_report);
    capture_trace(trace);
    EXPECT_THAT(
        fields("zelfw.record", {"zelfw.command", "zelfw.record", "zelfw.component", "zelfw.length",
                                "zelfw.tag", "zelfw.value", "zelfw.payload"}),
        ElementsAre("record 1  2 0xff 0x0001 aabb", "record 2 1 3 0x12 0x3456 010203"));
    EXPECT_THAT(fields("zelfw.checksum", {"zelfw.command", "zelfw.operation", "zelfw.checksum"}),
                ElementsAre("checksum 0x0002 1234"));
    EXPECT_THAT(info("zelfw.record == 2"),
                ElementsAre("record 2 (component 1, data 123456, 3 bytes)"));
}

TEST_F(Dissector, CommandIsAFilter) {
    capture_trace(TraceBytes()
                      .sent(device_information_query)
                      .sent(device_information_query)
                      .sent(stop_report)
                      .sent(erase_report)
                      .sent(stop_report)
                      .sent("06 00 21 00 ff 30 00 00")
                      .sent("04 00 77 00"));
    EXPECT_THAT(
        fields("zelfw.command", {"zelfw.command"}),
        ElementsAre("device information query", "device information query", "EC level query",
                    "erase", "stop", "read all records", "unknown message"));
    EXPECT_THAT(info("zelfw.command == \"read all records\" && zelfw.component == 3"),
                ElementsAre("read all records (component 3)"));
}

TEST_F(Dissector, RecordsOfAnImageAreKnownOnceItsChecksumIs) {
    TraceBytes trace;
    trace.sent(erase_report).record(20).record(5).sent(odd_checksum);
    capture_trace(trace);
    EXPECT_THAT(info("zelfw.record"), ElementsAre("record 1 (component 0, data 000000, 20 bytes)",
                                                  "record 2 (component 0, data 000000, 5 bytes)"));
    EXPECT_THAT(fields("zelfw.record", {"_ws.col.Info", "zelfw.records"}, "-2"),
                ElementsAre("record 1 of 2 (component 0, data 000000, 20 bytes) 2",
                            "record 2 of 2 (component 0, data 000000, 5 bytes) 2"));
}

TEST_F(Dissector, LineOfTheLogTellsTheRecordsOfABrokenOffImage) {
    TraceBytes trace;
    trace.sent(erase_report).status(done_report);
    trace.text("Erase completed, now sending 50 firmware update records\n");
    trace.record(20).status(done_report).record(5).sent(stop_report);
    capture_trace(trace);
    const std::string plain = tshark_.run(capture(), "").output;
    EXPECT_THAT(plain, HasSubstr("record 1 of 50 "));
    EXPECT_THAT(plain, HasSubstr("record 2 of 50 "));
}

TEST_F(Dissector, StatusFlagIsAFieldWhereItIsSet) {
    TraceBytes trace;
    trace.sent(erase_report).status("80 00 00 00 00 00 00 00");
    trace.sent(erase_report)
        .status("41 00 00 00 00 00 00 00")
        .sent(erase_report)
        .status(done_report);
    capture_trace(trace);
    EXPECT_THAT(fields("zelfw.status.reject", {"zelfw.status", "zelfw.answered"}),
                ElementsAre("0x80 erase"));
    EXPECT_THAT(fields("zelfw.status.operation_error && zelfw.status.completed",
                       {"zelfw.status", "zelfw.request_in"}),
                ElementsAre("0x41 11"));
    EXPECT_THAT(fields("zelfw.status == 0", {"_ws.col.Info"}),
                ElementsAre("status flags 00 (erase, 0 ms)"));
    EXPECT_THAT(tshark_.run(capture(), "-V -Y zelfw.status.reject").output,
                testing::AllOf(HasSubstr("Reject: True"), HasSubstr("Completed: not set")));
}

TEST_F(Dissector, LevelsAndDeviceInformationHaveFields) {
    TraceBytes trace;
    trace.sent(device_information_query).status("09 21 04 01 d0 00 00 00");
    trace.sent(device_information_query).sent(stop_report).status("05 02 01 07 0a 03 04 00");
    capture_trace(trace);
    EXPECT_THAT(fields("zelfw.device.type", {"zelfw.device.type", "zelfw.device.id",
                                             "zelfw.device.command_set", "zelfw.device.features"}),
                ElementsAre("0x21 0x04 0x01 0xd0"));
    EXPECT_THAT(fields("zelfw.status.ec_level", {"zelfw.level", "zelfw.build",
                                                 "zelfw.previous_level", "zelfw.previous_build"}),
                ElementsAre("01.02 0x03 0a.07 0x04"));
}

TEST_F(Dissector, ComponentListShowsEachEntry) {
    TraceBytes trace;
    trace.sent("06 00 20 00 ff ff 00 02").status(completed_report);
    trace.data("00 00 0a 00 00 00 00 02 01 02 03 01 10 02 05 00");
    trace.sent("06 00 20 00 ff ff 00 01").status(completed_report);
    trace.data("00 00 04 00 00 00 02 0b 0a 06");
    trace.sent("06 00 20 00 02 f3 00 01").status(completed_report).data("00 00 00 00 00 00 34 12");
    capture_trace(trace);
    EXPECT_THAT(fields("zelfw.list.entry || (zelfw.level && !zelfw.status)",
                       {"_ws.col.Info", "zelfw.component", "zelfw.level", "zelfw.list.flags",
                        "zelfw.list.type", "zelfw.list.control", "zelfw.build"}),
                ElementsAre("data: extended component list, 2 entries 0,1 01.02,02.10 0x02,0x05 "
                            "Firmware,Configuration Increasing,Random 0x03,0x00",
                            "data: component list, 1 entry 2 0a.0b 0x06 Font Increasing ",
                            "data: component version 12.34  12.34    "));
}

TEST_F(Dissector, ListThatClaimsMoreThanThereIsShowsWhatIsThere) {
    TraceBytes trace;
    trace.sent("06 00 20 00 ff ff 00 02").status(completed_report);
    trace.data("00 00 ff 00 00 00 00 02 01 02 03 01 10");
    capture_trace(trace);
    EXPECT_THAT(fields("zelfw.list.length", {"_ws.col.Info", "zelfw.component"}),
                ElementsAre("data: extended component list of 255 bytes 0"));
}

TEST_F(Dissector, RejectErrorAndSilenceAreExpertInformation) {
    TraceBytes trace;
    trace.sent(erase_report).status("80 00 00 00 00 00 00 00");
    trace.sent(erase_report).seconds(1'700'000'001).status("40 00 00 00 00 00 00 00");
    trace.sent(erase_report).seconds(1'700'000'003).status(done_report);
    // Nobody waits for the answer to a stop.
    trace.sent(stop_report)
        .seconds(1'700'000'009)
        .sent(erase_report)
        .seconds(1'700'000'012)
        .sent(stop_report);
    capture_trace(trace);
    EXPECT_THAT(experts(), ElementsAre("erase: status rejected", "erase: status operation error",
                                       "2.000 seconds of silence after erase",
                                       "3.000 seconds of silence after erase"));
    EXPECT_THAT(fields("zelfw.silence > 2", {"zelfw.silence", "zelfw.command"}),
                ElementsAre("3 stop"));
    EXPECT_THAT(fields("zelfw.expert.reject || zelfw.expert.operation_error || "
                       "zelfw.expert.silence",
                       {"zelfw.answer_time"}),
                ElementsAre("0", "1", "2", ""));
}

TEST_F(DissectorOnABus, InterfaceIsRecognizedByItsReportDescriptor) {
    device(0x1234, 0x5678);
    configuration();
    add(control_in(address, get_report_descriptor, report_descriptor()));
    sent(erase_report);
    status(done_report);
    write();
    EXPECT_THAT(
        fields("zelfw", {"_ws.col.Info", "zelfw.recognized"}),
        ElementsAre("erase report descriptor", "status flags 00 (erase, 30 ms) report descriptor"));
}

TEST_F(DissectorOnABus, SameBytesOfAnotherInterfaceAreLeftAlone) {
    device(0x7A01, 0x3C35);
    configuration();
    report_descriptor_of(keyboard);
    sent(erase_report);
    status(done_report);
    write();
    EXPECT_THAT(info(), IsEmpty());
}

TEST_F(DissectorOnABus, WithoutReportDescriptorOnlyAKnownVendorIsRecognized) {
    device(0x7A02, 0x3C12);
    status(done_report);
    sent("77");  // Not a message: another interface's output report.
    sent(erase_report);
    status(done_report);
    write();
    EXPECT_THAT(fields("zelfw", {"_ws.col.Info", "zelfw.recognized"}),
                ElementsAre("erase vendor 7a02", "status flags 00 (erase, 30 ms) vendor 7a02"));
    packets_.clear();
    device(0x1234, 0x3C12);
    sent(erase_report);
    status(done_report);
    write();
    EXPECT_THAT(info(), IsEmpty());
}

TEST_F(DissectorOnABus, AddressOfAnotherDeviceIsRecognizedAnew) {
    device(0x7A01, 0x3C35);
    configuration();
    add(control_in(address, get_report_descriptor, report_descriptor()));
    sent(erase_report);
    device(0x1234, 0x3C35);
    sent(stop_report);
    write();
    EXPECT_THAT(info(), ElementsAre("erase"));
}

TEST_F(DissectorOnABus, ReportIdsAreNoPartOfTheMessages) {
    device(0x7A01, 0x3C35);
    configuration();
    report_descriptor_of(with_ids);
    sent("01 04 00 01 00", 1);
    status("02 80 00 00 00 00 00 00 00");
    sent("04 04 00 01 00", 4);             // another usage's
    status("05 80 00 00 00 00 00 00 00");  // no report that is known
    write();
    EXPECT_THAT(info(), ElementsAre("erase", "status rejected (erase, 30 ms)"));
}

TEST_F(DissectorOnABus, FailedTransferIsShownAndItsMessageNotAnswered) {
    device(0x7A01, 0x3C35);
    configuration();
    add(control_in(address, get_report_descriptor, report_descriptor()));
    sent(erase_report);
    packets_.back().replace(28, 4, from_hex("e0 ff ff ff"));  // the status: -32, stalled
    status(done_report);
    write();
    EXPECT_THAT(info(),
                ElementsAre("erase", "erase was not taken (transfer -32)", "status flags 00"));
    EXPECT_THAT(fields("zelfw.transfer_status", {"zelfw.transfer_status"}), ElementsAre("-32"));
}

TEST_F(DissectorOnABus, DamagedPacketsCauseNoErrors) {
    device(0x7A01, 0x3C35);
    configuration();
    add(control_in(address, get_report_descriptor, report_descriptor()));
    const std::vector<std::string> messages = {erase_report,
                                               stop_report,
                                               odd_checksum,
                                               device_information_query,
                                               "08 00 02 00 02 01 00 01 aa bb",
                                               "06 00 20 00 ff ff 00 01",
                                               "06 00 20 00 ff ff 00 02",
                                               "06 00 20 00 02 f0 00 01",
                                               "06 00 21 00 ff 30 00 00",
                                               "ff ff ff",
                                               "04"};
    const std::vector<std::string> answers = {"01 00 00 00 00 00 00 00", "ff 01 02 03 04 05 06 07",
                                              "0d 01", "04", "88 01 02 03 04 05 06 07"};
    const std::vector<std::string> data = {"00 00 0a 00 00 00 00 02 01 02 03 01 10 02 05 00",
                                           "01 00 02 01 00 01 aa bb", "01 00 00 12", "00"};
    for (std::size_t i = 0; i < 2 * messages.size() * answers.size(); ++i) {
        sent(messages[i % messages.size()]);
        status(answers[i % answers.size()]);
        const std::string bytes = from_hex(data[i % data.size()]);
        add(control_in(address, get_feature_report, bytes));
    }
    // Descriptors too; what is behind the first ones begins anew each time.
    const std::vector<std::string> whole = packets_;
    std::mt19937 random(20261122);
    for (int round = 0; round < 8; ++round) {
        for (std::string packet : whole) {
            const std::size_t size = packet.size();
            switch (random() % 3) {
                case 0:
                    packet.resize(random() % (size + 1));
                    break;
                case 1:
                    packet[random() % size] = static_cast<char>(random());
                    break;
                default:
                    break;
            }
            packets_.push_back(packet);
        }
    }
    write();
    const std::string tree = tshark_.run(capture(), "-V -O zelfw").output;
    EXPECT_THAT(tree, HasSubstr("Flash interface of a USB peripheral: "));
    EXPECT_THAT(tree, Not(HasSubstr("Lua Error")));
    EXPECT_THAT(tshark_.run(capture(), "-2 -V -O zelfw").output, Not(HasSubstr("Lua Error")));
    EXPECT_GT(info().size(), whole.size());
}

TEST_F(Dissector, FieldsOfTheManualExist) {
    const std::string page = read_file(ZELFWTRACE_PAGE);
    const std::string exist = run_plugin("-G fields");
    static const std::regex name(R"(zelfw\.(?!lua)[a-z_]+(\.[a-z_]+)*)");
    int fields = 0;
    for (std::sregex_iterator at(page.begin(), page.end(), name), end; at != end; ++at, ++fields) {
        EXPECT_THAT(exist, HasSubstr("\t" + at->str() + "\t"));
    }
    EXPECT_GT(fields, 10);
}

TEST_F(Dissector, PluginOfTheUserIsFoundByItsPlace) {
    capture_trace(TraceBytes().sent(erase_report));
    EXPECT_EQ(
        run_plugin("-r " + quoted(capture()) + " -Y zelfw.command -T fields -e zelfw.command"),
        "erase\n");
}
