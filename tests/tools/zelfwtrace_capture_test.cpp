// The captures that zelfwtrace writes, as tshark reads them.
#include "support/bus_test.h"
#include "support/hexadecimal.h"
#include "trace_bytes.h"
#include "trace_tool.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <cstring>
#include <sstream>

using testing::ElementsAreArray;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

class ZelfwtraceCapture : public TraceToolTest {
  protected:
    std::string capture() const { return path("exchange.pcapng"); }
    ToolRun write_capture(const std::string& options = "") const {
        return show("pcap -o " + quoted(capture()) + " " + options);
    }
    /// Runs tshark on the capture with a configuration of its own.
    ToolRun tshark(const std::string& arguments) const {
        return run_tool("WIRESHARK_CONFIG_DIR=" + quoted(path("")) + " tshark -r " +
                        quoted(capture()) + " " + arguments);
    }
    /// The fields of every packet that passes the filter, joined by blanks; empty ones too.
    std::vector<std::string> packets(const std::string& filter,
                                     const std::vector<std::string>& fields) const {
        std::string arguments = "-Y " + quoted(filter) + " -T fields -E separator=/s";
        for (const std::string& field : fields) {
            arguments += " -e " + field;
        }
        const ToolRun run = tshark(arguments);
        EXPECT_EQ(run.code, 0) << run.errors;
        return run.lines();
    }
};

class ZelfwtraceInWireshark : public ZelfwtraceCapture {
  protected:
    void SetUp() override {
        if (run_tool("command -v tshark").code != 0) {
            GTEST_SKIP() << "tshark is not installed";
        }
    }
};

class ZelfwtraceRunInWireshark : public BusTest {
  protected:
    TemporaryDirectory scratch_;
};

}  // namespace

TEST_F(ZelfwtraceCapture, LinkTypeIsThatOfUsbmon) {
    set_trace(TraceBytes().sent(erase_report).bytes());
    const ToolRun run = write_capture();
    EXPECT_EQ(run.code, 0) << run.errors;
    EXPECT_THAT(run.output, IsEmpty());
    const std::string bytes = read_file(capture());
    ASSERT_GT(bytes.size(), 48U);
    EXPECT_EQ(to_hex(bytes.substr(0, 28)),
              "0a0d0d0a"
              "1c000000"
              "4d3c2b1a"
              "01000000"
              "ffffffffffffffff"
              "1c000000");
    EXPECT_EQ(to_hex(bytes.substr(28, 20)),
              "01000000"
              "14000000"
              "dc000000"
              "00000000"
              "14000000");
}

TEST_F(ZelfwtraceCapture, BlocksAreWholeAndOfWholeWords) {
    // Lengths that are no multiple of four: a report and two comments.
    set_trace(TraceBytes().text("a").text("bcdefg").data("01 02 03").bytes());
    EXPECT_EQ(write_capture().code, 0);
    const std::string bytes = read_file(capture());
    const auto number = [&bytes](std::size_t at) {
        std::uint32_t value = 0;
        std::memcpy(&value, bytes.data() + at, sizeof value);
        return value;
    };
    int blocks = 0;
    for (std::size_t at = 0; at < bytes.size(); ++blocks) {
        ASSERT_LE(at + 12, bytes.size());
        const std::uint32_t length = number(at + 4);
        ASSERT_EQ(length % 4, 0U);
        ASSERT_LE(at + length, bytes.size());
        ASSERT_EQ(number(at + length - 4), length);
        at += length;
    }
    EXPECT_EQ(blocks,
              10);  // section, interface, three descriptors and the transfer in two packets each
}

TEST_F(ZelfwtraceCapture, GoesToStandardOutputOnRequest) {
    set_trace(TraceBytes().text("x").sent(erase_report).bytes());
    write_capture();
    const ToolRun run = show("pcap -o -");
    EXPECT_EQ(run.code, 0) << run.errors;
    EXPECT_EQ(run.output, read_file(capture()));
}

TEST_F(ZelfwtraceCapture, DamagedTraceGivesACaptureOfWhatIsThere) {
    const std::string bytes = TraceBytes().sent(erase_report).status(completed_report).bytes();
    set_trace(TraceBytes().sent(erase_report).bytes());
    write_capture();
    const std::string whole = read_file(capture());
    set_trace(bytes.substr(0, bytes.size() - 1));
    const ToolRun run = write_capture();
    EXPECT_EQ(run.code, 1);
    EXPECT_THAT(run.errors, HasSubstr("the file ends inside a record"));
    EXPECT_EQ(read_file(capture()), whole);
}

TEST_F(ZelfwtraceCapture, NeverReplacesTheTraceItself) {
    const std::string bytes = TraceBytes().sent(erase_report).bytes();
    set_trace(bytes);
    std::filesystem::create_symlink(path("trace.bin"), path("link"));
    for (const char* name : {"trace.bin", "link"}) {
        const ToolRun run = show("pcap -o " + quoted(path(name)));
        EXPECT_EQ(run.code, 1);
        EXPECT_THAT(run.errors, EndsWith(": the capture would replace the trace itself\n"));
        EXPECT_EQ(read_file(path("trace.bin")), bytes);
    }
}

TEST_F(ZelfwtraceCapture, FileThatCannotBeWrittenIsAFailure) {
    set_trace(TraceBytes().sent(erase_report).bytes());
    const ToolRun missing = show("pcap -o " + quoted(path("missing/exchange.pcapng")));
    EXPECT_EQ(missing.code, 1);
    EXPECT_THAT(missing.errors, HasSubstr("No such file or directory"));
    const ToolRun full = show("pcap -o /dev/full");
    EXPECT_EQ(full.code, 1);
    EXPECT_THAT(full.errors, HasSubstr("zelfwtrace: /dev/full: "));
}

TEST_F(ZelfwtraceInWireshark, CommandIsASetReportRequest) {
    set_trace(TraceBytes().at(7).sent(erase_report).bytes());
    write_capture();
    // Submission and completion, which belong together.
    EXPECT_THAT(
        packets("usb.endpoint_address == 0",
                {"usb.urb_id", "frame.time_epoch", "usb.urb_type", "usb.transfer_type",
                 "usb.bus_id", "usb.device_address", "usb.bmRequestType", "usbhid.setup.bRequest",
                 "usbhid.setup.ReportType", "usbhid.setup.ReportID", "usbhid.setup.wIndex",
                 "usbhid.setup.wLength", "usb.data_fragment"}),
        ElementsAreArray({"0x0000000000000004 1700000000.005000000 'S' 0x02 1 1 0x21 0x09 2 "
                          "0 0 4 04000100",
                          "0x0000000000000004 1700000000.005000000 'C' 0x02 1 1       "}));
}

TEST_F(ZelfwtraceInWireshark, StatusIsAnInterruptTransferOfHidData) {
    set_trace(TraceBytes().status("01 02 03 04 05 06 07 08").bytes());
    write_capture();
    EXPECT_THAT(packets("usbhid.data", {"usb.urb_type", "usb.transfer_type", "usb.device_address",
                                        "usb.endpoint_address", "usb.urb_status", "usbhid.data"}),
                ElementsAreArray({"'C' 0x01 1 0x81 0 0102030405060708"}));
}

TEST_F(ZelfwtraceInWireshark, DataAnswerIsAGetReportRequest) {
    set_trace(TraceBytes().data("01 00 02").bytes());
    write_capture();
    EXPECT_THAT(packets("usbhid.setup.bRequest == 1",
                        {"usb.urb_type", "usb.transfer_type", "usb.endpoint_address",
                         "usb.bmRequestType", "usbhid.setup.ReportType", "usbhid.setup.wLength"}),
                ElementsAreArray({"'S' 0x02 0x80 0xa1 3 3"}));
    // It names no field for the bytes of the answer.
    EXPECT_THAT(tshark("-x -Y 'usb.urb_type == URB_COMPLETE && usb.data_len == 3'").output,
                HasSubstr("0040  01 00 02 "));
}

TEST_F(ZelfwtraceInWireshark, LinesOfTheLogAreCommentsOfThePacketThatFollows) {
    TraceBytes trace;
    trace.text("first\n\n")
        .text("\n")
        .text("ta\tb \xff\n")
        .sent(erase_report)
        .status(completed_report);
    trace.text("the end\n");
    set_trace(trace.bytes());
    write_capture();
    EXPECT_THAT(packets("frame.comment", {"usb.urb_type", "usb.endpoint_address", "frame.comment"}),
                ElementsAreArray({"'S' 0x00 first,ta\\tb \\xff", "'C' 0x81 the end"}));
}

TEST_F(ZelfwtraceInWireshark, MoreLinesThanAPacketTakesAreCounted) {
    TraceBytes trace;
    const std::string longest(40000, 'x');
    for (int i = 0; i < 30; ++i) {
        trace.text(longest);
    }
    set_trace(trace.sent(erase_report).bytes());
    EXPECT_EQ(write_capture().code, 0);
    const auto all = packets("frame.comment", {"frame.comment"});
    ASSERT_THAT(all, SizeIs(1));
    EXPECT_THAT(all[0], EndsWith(",(4 more lines of the log)"));
}

TEST_F(ZelfwtraceInWireshark, CommentLongerThanAnOptionIsCutBetweenCharacters) {
    std::string text;
    for (int i = 0; i < 20000; ++i) {
        text += "\xff";  // four characters each
    }
    set_trace(TraceBytes().text(text).sent(erase_report).bytes());
    EXPECT_EQ(write_capture().code, 0);
    const auto all = packets("frame.comment", {"frame.comment"});
    ASSERT_THAT(all, SizeIs(1));
    EXPECT_EQ(all[0].size(), 0xFFFFU);
}

TEST_F(ZelfwtraceInWireshark, EachProductHasAnAddressAndDescriptors) {
    TraceBytes trace;
    trace.sent(erase_report).product(0x3C02).sent(erase_report).product(0x3C35).sent(erase_report);
    set_trace(trace.bytes());
    write_capture();
    EXPECT_THAT(packets("usb.idProduct || usb.bEndpointAddress || usb.data_fragment",
                        {"usb.device_address", "usb.idProduct", "usb.bEndpointAddress",
                         "usb.data_fragment"}),
                ElementsAreArray({"1 0x3c35  ", "1  0x81 ", "1   04000100", "2 0x3c02  ",
                                  "2  0x81 ", "2   04000100", "1   04000100"}));
}

TEST_F(ZelfwtraceInWireshark, AddressesGoOnOnTheNextBus) {
    TraceBytes trace;
    for (unsigned int product = 1; product <= 128; ++product) {
        trace.product(product).sent(erase_report);
    }
    set_trace(trace.bytes());
    write_capture();
    const auto all = packets("usb.data_fragment", {"usb.bus_id", "usb.device_address"});
    ASSERT_THAT(all, SizeIs(128));
    EXPECT_EQ(all[126], "1 127");
    EXPECT_EQ(all[127], "2 1");
}

TEST_F(ZelfwtraceInWireshark, FiltersHoldForTheCapture) {
    TraceBytes trace;
    trace.text("x").sent(erase_report).status(completed_report).product(0x3C02).sent(erase_report);
    set_trace(trace.bytes());
    write_capture("-d 3c35 -k sent");
    EXPECT_THAT(packets("usb.data_fragment || usbhid.data", {"usb.data_fragment"}),
                ElementsAreArray({"04000100"}));
}

TEST_F(ZelfwtraceRunInWireshark, TransfersAreThoseOfTheBus) {
    if (run_tool("command -v tshark").code != 0) {
        GTEST_SKIP() << "tshark is not installed";
    }
    set_bus({SimDevice{}});
    add_firmware("main.dat", {.data_records = 3});
    EXPECT_EQ(update().exit_code, 0);
    const ToolRun written = run_tool(quoted(ZELFWTRACE) + " pcap -o " + quoted(path("run.pcapng")) +
                                     " " + quoted(path("trace.bin")));
    EXPECT_EQ(written.code, 0) << written.errors;
    const auto fields = [this](const std::string& filter, const std::string& field) {
        return run_tool("WIRESHARK_CONFIG_DIR=" + quoted(scratch_.path()) + " tshark -r " +
                        quoted(path("run.pcapng")) + " -Y " + quoted(filter) + " -T fields -e " +
                        field)
            .lines();
    };
    EXPECT_THAT(fields("usbhid.setup.bRequest == 9", "usb.data_fragment"),
                ElementsAreArray(commands("printer")));
    std::vector<std::string> reports;
    for (const Transfer& one : record().of_kind("printer", "interrupt")) {
        if (one.result == 0) {
            reports.push_back(one.data);
        }
    }
    EXPECT_THAT(fields("usbhid.data", "usbhid.data"), ElementsAreArray(reports));
    EXPECT_THAT(fields("_ws.malformed", "frame.number"), IsEmpty());
}
