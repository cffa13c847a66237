// zelfwfile from-trace: firmware files, rebuilt from the messages of a run.
#include "support/firmware_file.h"
#include "support/temporary_directory.h"
#include "tool_run.h"
#include "trace_bytes.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <random>

using testing::AllOf;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

namespace {

constexpr const char* erase = "04 00 01 00";
constexpr const char* stop = "02 00 00 80";

class ZelfwfileFromTrace : public testing::Test {
  protected:
    std::string path(const std::string& name) const { return directory_.path(name); }

    /// Rebuilds into the directory "out"; standard error goes with standard output.
    ToolRun rebuild(const std::string& trace, const std::string& options = "") const {
        write_file(path("trace"), trace);
        return run_tool("'" ZELFWFILE "' from-trace " + options + " '" + path("trace") + "' -o '" +
                        path("out") + "' 2>&1");
    }
    std::string rebuilt(const std::string& name) const { return read_file(path("out/" + name)); }
    std::vector<std::string> names() const {
        std::vector<std::string> all;
        if (std::filesystem::exists(path("out"))) {
            for (const auto& entry : std::filesystem::directory_iterator(path("out"))) {
                all.push_back(entry.path().filename());
            }
        }
        return all;
    }

    const TemporaryDirectory directory_;
    const FirmwareFile firmware_ = {.product = 0x3C35};
};

/// What the log says in front of an image.
TraceBytes& announce(TraceBytes& trace, const std::string& name, const std::string& level) {
    return trace.text("\nFirmware file found:  /srv/firmware/" + name + "\n")
        .text("  File   - PID: 3c35  COMP: 00  TYPE: FW   CONTROL: Increasing   EC: " + level +
              "\n");
}

/// The first messages of an image, all of them when there are no more.
TraceBytes& send(TraceBytes& trace, const FirmwareFile& file, std::size_t messages = 1000) {
    trace.sent(erase).text("Erase completed, now sending " + std::to_string(file.records().size()) +
                           " firmware update records from file\n");
    const std::vector<std::string> all = file.messages();
    for (std::size_t i = 0; i < std::min(messages, all.size()); ++i) {
        trace.sent(all[i]).status("01 00 00 00 00 00 00 00");
    }
    return trace;
}

TraceBytes run_of(const std::string& command_line) {
    TraceBytes trace;
    trace.version().text("Command line:  " + command_line + "\n");
    return trace;
}

TEST_F(ZelfwfileFromTrace, GivesTheFileAndSaysWhatIsFromWhere) {
    TraceBytes trace = run_of("zelfwupdate -U");
    const ToolRun run = rebuild(send(announce(trace, "main.dat", "01.05.03"), firmware_).bytes());
    EXPECT_EQ(run.code, 0);
    EXPECT_EQ(rebuilt("main.dat"), firmware_.bytes());
    EXPECT_THAT(run.output,
                HasSubstr("/out/main.dat: whole, 7 records, 85 bytes\n"
                          "  from the messages: product 3c35, records, checksum\n"
                          "  from the log: level 01.05, name\n"
                          "  guess: the letters of the header 3c350105 are in lower case\n"));
}

TEST_F(ZelfwfileFromTrace, SaysThatTheLevelIsAGuessWhereTheRunTookThatOfTheRecords) {
    const FirmwareFile other = {.level = "0107"};
    for (const char* option : {"-o 1", "-o1", "-fo 1", "-d 3C35 -fo1"}) {
        TraceBytes trace = run_of(std::string("zelfwupdate -U ") + option);
        const ToolRun run = rebuild(send(announce(trace, "main.dat", "01.07"), other).bytes());
        EXPECT_THAT(run.output, AllOf(HasSubstr("guess: level 01.07 in the header"),
                                      Not(HasSubstr("from the log: level"))))
            << option;
    }
    // These are arguments of other options.
    for (const char* option : {"-o 2", "-l -o 1", "-lo 1", "-p-o 1"}) {
        TraceBytes trace = run_of(std::string("zelfwupdate -U ") + option);
        const ToolRun run = rebuild(send(announce(trace, "main.dat", "01.07"), other).bytes());
        EXPECT_THAT(run.output, HasSubstr("from the log: level 01.07, name")) << option;
    }
}

TEST_F(ZelfwfileFromTrace, TakesTheLevelOfTheRecordsWhereTheLogIsMissing) {
    TraceBytes trace;
    const ToolRun run = rebuild(send(trace.version(), firmware_).bytes());
    EXPECT_EQ(run.code, 0);
    EXPECT_EQ(rebuilt("3c35-0-0105.dat"), firmware_.bytes());
    EXPECT_THAT(run.output, AllOf(HasSubstr("guess: level 01.05 in the header"),
                                  HasSubstr("guess: the file's name")));
    std::filesystem::remove_all(path("out"));
    TraceBytes silent;
    const ToolRun none = rebuild(
        send(silent.version(), FirmwareFile{.product = 0x3C35, .extended_list = false}).bytes());
    EXPECT_EQ(none.code, 1);
    EXPECT_THAT(none.output, HasSubstr("not written: the trace tells its level nowhere"));
    EXPECT_THAT(names(), IsEmpty());
}

TEST_F(ZelfwfileFromTrace, SaysThatTheComponentWasChanged) {
    TraceBytes trace = run_of("zelfwupdate -U -c 2");
    const ToolRun run = rebuild(send(announce(trace, "main.dat", "01.05"), firmware_).bytes());
    EXPECT_THAT(run.output, HasSubstr("guess: component 0: it was changed on the way (-c)"));
}

TEST_F(ZelfwfileFromTrace, NeverMakesAnImageThatWasBrokenOffLookWhole) {
    const std::string whole = firmware_.bytes();
    for (std::size_t messages = 1; messages < firmware_.messages().size(); ++messages) {
        std::filesystem::remove_all(path("out"));
        TraceBytes trace = run_of("zelfwupdate -U");
        send(announce(trace, "main.dat", "01.05"), firmware_, messages);
        const ToolRun run = rebuild(trace.bytes());
        EXPECT_EQ(run.code, 1);
        EXPECT_THAT(run.output, HasSubstr("main.dat.part: NOT WHOLE: " + std::to_string(messages) +
                                          " of 7 records, then the update was broken off\n"));
        EXPECT_THAT(names(), testing::ElementsAre("main.dat.part"));
        const std::string part = rebuilt("main.dat.part");
        EXPECT_TRUE(whole.starts_with(part) && part.size() + 3 <= whole.size());
        EXPECT_THAT(run_tool("'" ZELFWFILE "' check '" + path("out/main.dat.part") + "'").output,
                    HasSubstr("the file ends without an end mark"));
    }
}

TEST_F(ZelfwfileFromTrace, SeesThatMessagesAreMissing) {
    const std::vector<std::string> messages = firmware_.messages();
    for (const bool is_announced : {true, false}) {
        for (std::size_t missing = 0; missing + 1 < messages.size(); ++missing) {
            TraceBytes trace = run_of("zelfwupdate -U");
            announce(trace, "main.dat", "01.05").sent(erase);
            if (is_announced) {
                trace.text("Erase completed, now sending 7 firmware update records from file\n");
            }
            for (std::size_t i = 0; i < messages.size(); ++i) {
                if (i != missing) {
                    trace.sent(messages[i]);
                }
            }
            const ToolRun run = rebuild(trace.bytes());
            EXPECT_EQ(run.code, 1);
            EXPECT_THAT(run.output, HasSubstr("main.dat.part: NOT WHOLE: 6 ")) << missing;
            std::filesystem::remove_all(path("out"));
        }
    }
}

TEST_F(ZelfwfileFromTrace, KeepsAChecksumThatIsNotTheRightOne) {
    const FirmwareFile other = {.right_checksum = false};
    TraceBytes trace = run_of("zelfwupdate -U");
    const ToolRun run = rebuild(send(announce(trace, "main.dat", "01.05"), other).bytes());
    EXPECT_EQ(run.code, 0);
    EXPECT_EQ(rebuilt("main.dat"), other.bytes());
    EXPECT_THAT(run.output, HasSubstr(" as it was sent, but "));
}

TEST_F(ZelfwfileFromTrace, GivesAFileOnceHoweverOftenItWasSent) {
    TraceBytes trace = run_of("zelfwupdate -U -a");
    send(announce(trace, "main.dat", "01.05"), firmware_, 3).sent(stop);
    send(announce(trace, "main.dat", "01.05"), firmware_).sent(stop);
    send(announce(trace, "main.dat", "01.05"), firmware_, 4).sent(stop);
    send(announce(trace, "main.dat", "01.05"), firmware_);
    EXPECT_EQ(rebuild(trace.bytes()).code, 0);
    EXPECT_THAT(names(), testing::ElementsAre("main.dat"));
    EXPECT_EQ(rebuilt("main.dat"), firmware_.bytes());
}

TEST_F(ZelfwfileFromTrace, TellsTwoFilesOfOneNameApart) {
    const FirmwareFile other = {.level = "0107"};
    TraceBytes trace = run_of("zelfwupdate -U");
    send(announce(trace, "main.dat", "01.05"), firmware_);
    send(announce(trace, "main.dat", "01.07"), other);
    EXPECT_EQ(rebuild(trace.bytes()).code, 0);
    EXPECT_EQ(rebuilt("main.dat"), firmware_.bytes());
    EXPECT_EQ(rebuilt("main-2.dat"), other.bytes());
}

TEST_F(ZelfwfileFromTrace, TakesTheRunThatIsAskedFor) {
    const FirmwareFile other = {.level = "0107"};
    TraceBytes trace = run_of("zelfwupdate -U");
    send(announce(trace, "first.dat", "01.05"), firmware_);
    trace.version();
    send(announce(trace, "second.dat", "01.07"), other);
    trace.version().text("Command line:  zelfwupdate -L\n");
    EXPECT_EQ(rebuild(trace.bytes(), "--run 1").code, 0);
    EXPECT_THAT(names(), testing::ElementsAre("first.dat"));
    EXPECT_EQ(rebuild(trace.bytes(), "--run -2").code, 0);
    EXPECT_EQ(rebuilt("second.dat"), other.bytes());
    const ToolRun last = rebuild(trace.bytes());
    EXPECT_EQ(last.code, 1);
    EXPECT_THAT(last.output, HasSubstr("run 3 sent no image; --run takes 1, 2\n"));
    EXPECT_THAT(rebuild(trace.bytes(), "--run 4").output,
                HasSubstr("there is no run 4, the file has 3 runs\n"));
    EXPECT_THAT(rebuild(trace.bytes(), "--run -4").output, HasSubstr("there is no run -4"));
    for (const char* wrong : {"--run 0", "--run x", "--run 1x", "--run"}) {
        const ToolRun run =
            run_tool("'" ZELFWFILE "' from-trace '" + path("trace") + "' " + wrong + " 2>&1");
        EXPECT_EQ(run.code, 2) << wrong;
    }
}

TEST_F(ZelfwfileFromTrace, KeepsProcessesApart) {
    TraceBytes trace;
    trace.process(4).version().process(5).version().process(4);
    announce(trace, "main.dat", "01.05").sent(erase);
    const std::vector<std::string> messages = firmware_.messages();
    for (const std::string& message : messages) {
        trace.process(4).sent(message).process(5).sent(messages.front());
    }
    EXPECT_EQ(rebuild(trace.bytes(), "--run 1").code, 0);
    EXPECT_EQ(rebuilt("main.dat"), firmware_.bytes());
}

TEST_F(ZelfwfileFromTrace, ReplacesNoOtherFile) {
    TraceBytes trace = run_of("zelfwupdate -U");
    send(announce(trace, "main.dat", "01.05"), firmware_);
    std::filesystem::create_directory(path("out"));
    write_file(path("out/main.dat"), "another");
    const ToolRun run = rebuild(trace.bytes());
    EXPECT_EQ(run.code, 1);
    EXPECT_THAT(run.output, HasSubstr("is there with other bytes, and is not replaced"));
    EXPECT_EQ(rebuilt("main.dat"), "another");
    write_file(path("out/main.dat"), firmware_.bytes());
    EXPECT_EQ(rebuild(trace.bytes()).code, 0);
}

TEST_F(ZelfwfileFromTrace, RefusesARedactedTrace) {
    TraceBytes trace = run_of("zelfwupdate -U");
    write_file(path("plain"), send(announce(trace, "main.dat", "01.05"), firmware_).bytes());
    ASSERT_EQ(
        run_tool("'" ZELFWTRACE "' redact '" + path("plain") + "' -o '" + path("copy") + "'").code,
        0);
    const ToolRun run = rebuild(read_file(path("copy")));
    EXPECT_EQ(run.code, 1);
    EXPECT_THAT(run.output,
                testing::EndsWith("trace: is redacted: the bytes of its images are zeros\n"));
    EXPECT_THAT(names(), IsEmpty());
    // An image of zeros is one when they give its checksum.
    const FirmwareFile zeros = {.data_records = 0,
                                .further_records = {std::string("\x04\x00\x00\x00\0\0\0\0", 8)}};
    TraceBytes other = run_of("zelfwupdate -U");
    EXPECT_EQ(rebuild(send(announce(other, "zeros.dat", "01.05"), zeros).bytes()).code, 0);
    EXPECT_EQ(rebuilt("zeros.dat"), zeros.bytes());
}

TEST_F(ZelfwfileFromTrace, LeavesTheDirectoryForNoName) {
    for (const char* name : {"..", ".", "", "-rf", ".hidden", "a\x1b[2J.dat", "\xff.dat"}) {
        std::filesystem::remove_all(path("out"));
        TraceBytes trace = run_of("zelfwupdate -U");
        const ToolRun run = rebuild(send(announce(trace, name, "01.05"), firmware_).bytes());
        EXPECT_EQ(run.code, 0) << name;
        EXPECT_THAT(names(), testing::ElementsAre("3c35-0-0105.dat")) << name;
        EXPECT_THAT(run.output, Not(HasSubstr("\x1b")));
    }
    // Nor is it printed where nothing is written.
    TraceBytes silent = run_of("zelfwupdate -U");
    silent.text("\nFirmware file found:  a\x1b[2J.dat\n").text("  File   - PID: 3c35  COMP: 00\n");
    EXPECT_THAT(
        rebuild(send(silent, FirmwareFile{.product = 0x3C35, .extended_list = false}).bytes())
            .output,
        AllOf(HasSubstr("/3c35-0.dat: not written: "), Not(HasSubstr("\x1b"))));
}

TEST_F(ZelfwfileFromTrace, SaysWhatIsNoTrace) {
    EXPECT_THAT(rebuild("Quenta Firmware Update Utility\nVersion 1.1.3 (i386)\n").output,
                HasSubstr("this is no trace; it looks like the text log"));
    EXPECT_THAT(rebuild("").output, HasSubstr("no run of the updater in it"));
    TraceBytes trace;
    EXPECT_THAT(rebuild(trace.version().bytes()).output, HasSubstr("run 1 sent no image\n"));
    EXPECT_THAT(run_tool("'" ZELFWFILE "' from-trace '" + path("") + "' 2>&1").output,
                HasSubstr("is no regular file"));
    EXPECT_THAT(names(), IsEmpty());
}

TEST_F(ZelfwfileFromTrace, SaysWhereATraceIsDamagedAndTakesNoImageFromThere) {
    TraceBytes trace = run_of("zelfwupdate -U");
    send(announce(trace, "first.dat", "01.05"), firmware_);
    send(announce(trace, "second.dat", "01.05"), firmware_, 3).raw("rubbish");
    for (const std::string& message : firmware_.messages()) {
        trace.sent(message);
    }
    const ToolRun run = rebuild(trace.bytes());
    EXPECT_EQ(run.code, 1);
    EXPECT_THAT(run.output, AllOf(HasSubstr("damaged: offset "), HasSubstr("first.dat: whole"),
                                  HasSubstr("second.dat.part: NOT WHOLE"),
                                  HasSubstr("the trace is damaged among them")));
    EXPECT_EQ(rebuilt("first.dat"), firmware_.bytes());
}

TEST_F(ZelfwfileFromTrace, EndsWhateverTheBytesAre) {
    TraceBytes trace = run_of("zelfwupdate -U");
    send(announce(trace, "main.dat", "01.05"), firmware_);
    std::mt19937 random(7);
    for (int round = 0; round < 60; ++round) {
        std::string bytes = trace.bytes();
        for (unsigned changes = 1 + random() % 4; changes > 0; --changes) {
            bytes[random() % bytes.size()] = static_cast<char>(random());
        }
        bytes.resize(random() % 3 == 0 ? random() % bytes.size() : bytes.size());
        std::filesystem::remove_all(path("out"));
        EXPECT_THAT(rebuild(bytes).code, testing::AnyOf(0, 1)) << round;
        for (const std::string& name : names()) {
            const std::string end = rebuilt(name).substr(8);
            EXPECT_TRUE(name.ends_with(".part") || end.size() > 3) << name;
        }
    }
}

TEST_F(ZelfwfileFromTrace, HoldsABoundedNumberOfImages) {
    TraceBytes trace = run_of("zelfwupdate -U");
    for (int i = 0; i < 4097; ++i) {
        trace.sent(erase);
    }
    EXPECT_THAT(rebuild(trace.bytes()).output, HasSubstr("more than 4096 images in one run"));
    TraceBytes versions = run_of("zelfwupdate -U");
    for (int i = 0; i < 17; ++i) {
        send(announce(versions, "main.dat", "01.05"), FirmwareFile{.build = i});
    }
    EXPECT_THAT(rebuild(versions.bytes()).output,
                HasSubstr("more than 16 different images of one file"));
}

}  // namespace
