// Files that are not what they should be: each has an outcome that is known, and none stops a run.
#include "support/bus_test.h"

#include <gmock/gmock.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;

namespace {

constexpr char full_disk[] = "/dev/full";
/// Exit code of an update that no firmware file takes part in.
constexpr int no_device_with_a_file = 5;

/// Dates a file 1 January 2040: 32 bits do not hold that.
void date_late(const std::string& path) {
    constexpr long long late = 2208988800;
    const timespec times[] = {{static_cast<time_t>(late), 0}, {static_cast<time_t>(late), 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW), 0);
}

class FileOutcome : public BusTest {
  protected:
    FileOutcome() {
        SimDevice device;
        device.components = {{}, {.id = 1}};
        set_bus({device});
    }
    std::string make_fifo(const std::string& name) {
        EXPECT_EQ(mkfifo(path(name).c_str(), 0666), 0);
        return path(name);
    }
    /// As `run`, with journals of the test's choice: the last of two options holds.
    RunResult run_with_journals(std::vector<std::string> arguments, const std::string& log,
                                const std::string& trace) {
        arguments.insert(arguments.end(), {"-0", "3000", "-l", log, "-t", trace});
        std::filesystem::remove(path("record.tsv"));
        return run_plainly(arguments);
    }
    void expect_updated(const RunResult& result) {
        EXPECT_EQ(result.exit_code, 0);
        EXPECT_EQ(result.errors, "");
        EXPECT_EQ(image("printer", 1), file.body());
    }

    const FirmwareFile file = {.component = 1};
};

class DefaultJournal : public BusTest, public testing::WithParamInterface<const char*> {
  protected:
    DefaultJournal() {
        settings.private_tmp = path("tmp");
        std::filesystem::create_directory(path("tmp"));
        chmod(path("tmp").c_str(), 01777);
        write_file(path("tmp/precious"), "precious");
        planted_ = path("tmp/") + GetParam();
    }
    void expect_new_file() {
        const RunResult result = run_plainly({"-V"});
        if (result.exit_code == no_right_to_mount) {
            GTEST_SKIP() << failed_preparation(result);
        }
        EXPECT_EQ(result.exit_code, 0);
        EXPECT_EQ(read_file(path("tmp/precious")), "precious");
        struct stat about = {};
        ASSERT_EQ(lstat(planted_.c_str(), &about), 0);
        ASSERT_TRUE(S_ISREG(about.st_mode));
        EXPECT_EQ(about.st_uid, geteuid());
        EXPECT_EQ(about.st_nlink, 1U);
        EXPECT_THAT(read_file(planted_), HasSubstr("Version 1.1.3 (i386)\n"));
        EXPECT_THAT(read_file(planted_), Not(HasSubstr("theirs")));
    }

    std::string planted_;
};

std::string name_of_journal(const testing::TestParamInfo<const char*>& info) {
    return std::string(info.param) == "zelfwupdate.log" ? "Log" : "Trace";
}

}  // namespace

INSTANTIATE_TEST_SUITE_P(Each, DefaultJournal, testing::Values("zelfwupdate.log", "zelfwtrace.log"),
                         name_of_journal);

TEST_P(DefaultJournal, TakesThePlaceOfAPlantedLink) {
    std::filesystem::create_symlink("/tmp/precious", planted_);
    expect_new_file();
}

TEST_P(DefaultJournal, TakesThePlaceOfASecondName) {
    std::filesystem::create_hard_link(path("tmp/precious"), planted_);
    expect_new_file();
}

TEST_P(DefaultJournal, TakesThePlaceOfAFifo) {
    ASSERT_EQ(mkfifo(planted_.c_str(), 0666), 0);
    expect_new_file();
}

TEST_P(DefaultJournal, TakesThePlaceOfAForeignFile) {
    write_file(planted_, "theirs");
    constexpr uid_t somebody = 65533;
    if (chown(planted_.c_str(), somebody, somebody) != 0) {
        GTEST_SKIP() << "needs the super-user";
    }
    expect_new_file();
}

TEST_P(DefaultJournal, TakesThePlaceOfADirectory) {
    std::filesystem::create_directory(planted_);
    write_file(planted_ + "/kept", "theirs");
    expect_new_file();
    int kept = 0;
    for (const auto& entry : std::filesystem::directory_iterator(path("tmp"))) {
        kept += std::filesystem::exists(entry.path() / "kept") ? 1 : 0;
    }
    EXPECT_EQ(kept, 1);
}

TEST_P(DefaultJournal, OfALateDateIsKept) {
    write_file(planted_, "earlier run\n");
    date_late(planted_);
    const int kept = open(planted_.c_str(), O_RDONLY | O_CLOEXEC);
    expect_new_file();
    std::string text(4096, ' ');
    const ssize_t size = pread(kept, text.data(), text.size(), 0);
    close(kept);
    ASSERT_GT(size, 0);
    EXPECT_THAT(text.substr(0, static_cast<std::size_t>(size)), HasSubstr("Version 1.1.3 (i386)"));
}

TEST_F(FileOutcome, FilesOfALateDateAreFilesLikeAnyOther) {
    date_late(add_firmware("boot.dat", file));
    write_file(path("zelflash.cfg"), firmware_path("boot.dat") + "\n");
    date_late(path("zelflash.cfg"));
    date_late(path("bus.toml"));
    EXPECT_THAT(run({"-S", "-p", firmware_directory()}).console, HasSubstr("boot.dat"));
    EXPECT_THAT(run({"-D", firmware_path("boot.dat")}).console, Not(HasSubstr("No flash file")));
    expect_updated(run({"-C", path("zelflash.cfg")}));
}

TEST_F(FileOutcome, StateOfTheBusMayHaveALateDate) {
    add_firmware("boot.dat", file);
    expect_updated(update());
    date_late(path("state"));
    for (const auto& entry : std::filesystem::recursive_directory_iterator(path("state"))) {
        date_late(entry.path());
    }
    EXPECT_THAT(run({"-L"}).console, HasSubstr(list_line(0x3C35, 1, "01.05", "PR0001")));
}

TEST_F(FileOutcome, ASecondRunAppendsToTheLogOfTheFirst) {
    // Long enough for the second run to come in between.
    add_firmware("boot.dat", {.component = 1, .data_records = 300});
    const auto first = start({"-U", "-p", firmware_directory()});
    EXPECT_TRUE(first->wait_until(
        [&] { return read_file(path("run.log")).find("%10") != std::string::npos; }));
    ends.expect_open_log();  // of the first run, which goes on
    ProgramProcess second(settings, {"-V", "-l", path("run.log"), "-t", "0"});
    EXPECT_EQ(second.finish().exit_code, 0);
    const RunResult result = first->finish();
    EXPECT_EQ(result.exit_code, 0);
    EXPECT_EQ(result.log.find('\0'), std::string::npos);
    EXPECT_THAT(result.log, HasSubstr("Command line:  zelfwupdate"));
    EXPECT_THAT(result.log,
                HasSubstr("Another run writes to this log, which is not started anew\n"));
    EXPECT_THAT(result.log, HasSubstr("Updated 1 device\n"));
    EXPECT_THAT(run({"-V"}).log, Not(HasSubstr("Updated 1 device")));
}

TEST_F(FileOutcome, OneFileForTwoPurposesIsRefused) {
    write_file(path("one"), "precious");
    std::filesystem::create_symlink(path("one"), path("link"));
    const std::vector<std::vector<std::string>> refused = {
        {"-l", path("one"), "-t", path("one")},    {"-l", path("one"), "-r", path("link")},
        {"-t", path("new"), "-w", path("./new")},  {"-r", "new", "-w", path("new")},
        {"-l", path("one"), "-w", path("./link")}, {"-t", path("one"), "-r", path("one")},
    };
    EXPECT_EQ(run_plainly({"-V", "-l", path("one"), "-t", path("one")}).errors,
              "zelfwupdate: options -l and -t: both name the file '" + path("one") + "'\n");
    for (std::vector<std::string> arguments : refused) {
        const std::string expected = std::string("zelfwupdate: options -") + arguments[0][1] +
                                     " and " + arguments[2] + ": both name the file '" +
                                     arguments[3] + "'\n";
        arguments.insert(arguments.begin(), {"-l", "0", "-t", "0", "-G", "1"});
        ProgramProcess process(settings, arguments);
        const RunResult result = process.finish();
        EXPECT_EQ(result.exit_code, 1) << expected;
        EXPECT_EQ(result.errors, expected);
        EXPECT_EQ(result.console, "");
        EXPECT_EQ(read_file(path("one")), "precious");
        EXPECT_FALSE(std::filesystem::exists(path("new")));
    }
}

TEST_F(FileOutcome, WhatKeepsNothingMayBeNamedTwice) {
    add_firmware("boot.dat", file);
    expect_updated(run_with_journals({"-U", "-p", firmware_directory(), "-r", "/dev/null"},
                                     "/dev/null", "/dev/null"));
}

TEST_F(FileOutcome, ResultOfAnEarlierRunDoesNotOutlastTheNext) {
    write_file(path("rma"), "0 \nPID 3c35 EC level: 0001.05: Firmware updated \n");
    settings.library = PARTIAL_LIBRARY_DIRECTORY "/libusb-1.0.so";
    EXPECT_EQ(run({"-L", "-r", path("rma")}).exit_code, 3);
    EXPECT_FALSE(std::filesystem::exists(path("rma")));
    write_file(path("rma"), "0 \n");
    std::filesystem::create_symlink(path("rma"), path("link"));
    EXPECT_EQ(run({"-L", "-r", path("link")}).exit_code, 3);
    EXPECT_TRUE(std::filesystem::is_symlink(path("link")));
    EXPECT_EQ(read_file(path("rma")), "");
}

TEST_F(FileOutcome, VersionLeavesAResultAlone) {
    write_file(path("rma"), "0 \n");
    EXPECT_EQ(run({"-V", "-r", path("rma")}).exit_code, 0);
    EXPECT_EQ(read_file(path("rma")), "0 \n");
}

TEST_F(FileOutcome, RunWithoutStandardDescriptorsKeepsItsFilesApart) {
    add_firmware("boot.dat", file);
    const std::string program = settings.program;
    settings.program = "/bin/sh";
    ProgramProcess process(settings, {"-c", "exec \"$0\" \"$@\" <&- >&- 2>&-", program, "-U", "-p",
                                      firmware_directory(), "-0", "3000", "-l", path("run.log"),
                                      "-t", path("trace.bin"), "-r", path("rma")});
    EXPECT_EQ(process.finish().exit_code, 0);
    EXPECT_EQ(image("printer", 1), file.body());
    const std::string log = read_file(path("run.log"));
    EXPECT_EQ(count_lines(log, "Updated 1 device"), 1) << log;
    EXPECT_FALSE(trace().empty());
    EXPECT_EQ(read_file(path("rma")).find("0 \nPID 3c35"), 0U);
}

TEST_F(FileOutcome, JournalsAndResultOnAFullDiskDoNotHarmAnUpdate) {
    add_firmware("boot.dat", file);
    expect_updated(run_with_journals({"-U", "-p", firmware_directory(), "-r", full_disk}, full_disk,
                                     full_disk));
}

TEST_F(FileOutcome, ConsoleOnAFullDiskDoesNotHarmAnUpdate) {
    add_firmware("boot.dat", file);
    settings.console_file = full_disk;
    const RunResult result = update();
    expect_updated(result);
    EXPECT_THAT(result.log, HasSubstr("Updated 1 device\n"));
}

TEST_F(FileOutcome, JournalsAndResultThatCannotBeMadeDoNotHarmAnUpdate) {
    add_firmware("boot.dat", file);
    expect_updated(run_with_journals({"-U", "-p", firmware_directory(), "-r", path("none/rma")},
                                     path("none/log"), path("none/trace")));
}

TEST_F(FileOutcome, JournalsAndResultThatAreFifosNobodyReadsAreDoneWithout) {
    add_firmware("boot.dat", file);
    const std::string fifo = make_fifo("fifo");
    expect_updated(run_with_journals({"-U", "-p", firmware_directory(), "-r", fifo}, fifo, fifo));
}

TEST_F(FileOutcome, ReadBackThatCannotBeKeptIsAFailure) {
    for (const std::string& output :
         {std::string(full_disk), path("none/read.dat"), make_fifo("fifo"), firmware_directory()}) {
        const RunResult result = run({"-G", "1", "-w", output});
        EXPECT_EQ(result.exit_code, 8) << output;
        EXPECT_THAT(result.console, EndsWith("Device PID:3c35 Component:1 read failed, rc=-1\n"));
        EXPECT_THAT(result.console, Not(HasSubstr("read successfully")));
    }
}

TEST_F(FileOutcome, ReadBackOnAFullDiskNamesTheFile) {
    EXPECT_THAT(run({"-G", "1", "-w", full_disk}).console,
                HasSubstr("Could not write all data to '/dev/full'\n"));
}

TEST_F(FileOutcome, FirmwareDirectoryThatCannotBeReadHoldsNoFiles) {
    write_file(path("no-directory"), "");
    for (const std::string& directory : {path("none"), path("no-directory")}) {
        const RunResult result = run({"-U", "-p", directory});
        EXPECT_EQ(result.exit_code, no_device_with_a_file);
        EXPECT_EQ(result.console, "No firmware files!\nNo devices found\n") << directory;
        EXPECT_EQ(run({"-S", "-p", directory}).console, "No firmware files!\n");
    }
}

TEST_F(FileOutcome, NamesWithNewlinesAndPercentSignsAreNamesLikeAnyOther) {
    const std::string name = "a\n%s%n %d.dat";
    add_firmware(name, file);
    write_file(firmware_path(name + ".force"), "");
    for (const auto& [level, cause] : {std::pair{"01.05", ""}, {"01.05", "Force update"}}) {
        const RunResult result = update();
        expect_updated(result);
        EXPECT_THAT(result.console, HasSubstr("\nFirmware file found:  " + firmware_path(name)));
        EXPECT_THAT(result.console, HasSubstr(cause));
        EXPECT_EQ(state().component(1).level, level);
    }
    EXPECT_FALSE(std::filesystem::exists(firmware_path(name + ".force")));
    EXPECT_TRUE(std::filesystem::exists(firmware_path(name)));
}

TEST_F(FileOutcome, FilesPastTheTableAreLeftOutWithAMessage) {
    for (int i = 0; i < 300; ++i) {
        add_firmware("font" + std::to_string(i) + ".dat", {.product = 0x4000});
    }
    const RunResult result = run({"-S", "-p", firmware_directory()});
    EXPECT_EQ(result.exit_code, 0);
    EXPECT_THAT(result.console, HasSubstr("More than 256 firmware files, 'font"));
    EXPECT_THAT(result.console, HasSubstr(".dat' and those after it are left out\n"));
    std::size_t listed = 0;
    for (std::size_t at = 0; (at = result.console.find("PID: 4000", at)) != std::string::npos;
         ++at) {
        ++listed;
    }
    EXPECT_EQ(listed, 256U);
}

TEST_F(FileOutcome, FifosAndDevicesAreNoFirmwareFiles) {
    const std::string fifo = make_fifo("fifo.dat");
    std::filesystem::create_symlink("/dev/zero", path("device.dat"));
    for (const std::string& name : {fifo, path("device.dat"), std::string("/dev/zero")}) {
        EXPECT_EQ(run({"-F", name}).exit_code, no_device_with_a_file) << name;
        EXPECT_THAT(run({"-D", name}).console, HasSubstr("No flash file: " + name)) << name;
    }
}

TEST_F(FileOutcome, DeviceIsNoConfigurationFile) {
    const RunResult result = run({"-C", "/dev/zero"});
    EXPECT_EQ(result.exit_code, no_device_with_a_file);
    EXPECT_THAT(result.console, HasSubstr("No firmware files!\n"));
}

TEST_F(FileOutcome, ConfigurationFifoNobodyWritesToIsEmpty) {
    run_in_real_time();  // for what comes out of a fifo there is no other
    const RunResult result = run({"-C", make_fifo("zelflash.cfg")});
    EXPECT_EQ(result.exit_code, no_device_with_a_file);
    EXPECT_THAT(result.console, HasSubstr("No firmware files!\n"));
}

TEST_F(FileOutcome, FileThatShrinksWhileItIsSentIsSentAsItWas) {
    // More records than a stream reads in advance.
    const FirmwareFile large = {.component = 1, .data_records = 400};
    const std::string name = add_firmware("boot.dat", large);
    const auto process = start({"-U", "-p", firmware_directory()});
    const std::string first = large.messages().front();
    EXPECT_TRUE(process->wait_until([&] {
        const auto sent = commands("printer");
        return std::find(sent.begin(), sent.end(), first) != sent.end();
    }));
    std::filesystem::resize_file(name, 100);
    EXPECT_EQ(process->finish().exit_code, 0);
    EXPECT_EQ(image("printer", 1), large.body());
}

namespace {

/// A device that takes its time before the decision: the file is listed by then.
class ReplacedFile : public FileOutcome {
  protected:
    ReplacedFile() {
        information_timeout = 20000;
        SimDevice device;
        device.components = {{}, {.id = 1}};
        set_bus({device}, fault_text("printer", "ec-level", "late", "ms = 3000"));
        add_firmware("boot.dat", file);
    }
    /// An update during which `change` comes between listing and decision.
    template <typename Change>
    RunResult update_with(Change change) {
        const auto process = start({"-U", "-p", firmware_directory()});
        EXPECT_TRUE(process->wait_until([&] {
            const auto sent = commands("printer");
            return std::find(sent.begin(), sent.end(), ec_level_query) != sent.end();
        }));
        change();
        return process->finish();
    }
    void expect_untouched(const RunResult& result, const std::string& reason) {
        EXPECT_EQ(result.exit_code, 6);
        EXPECT_THAT(result.console,
                    EndsWith("File '" + firmware_path("boot.dat") + "' is not sent: " + reason +
                             "\nNo flash file for PID: 3c35 C COMP: 1\nNo devices updated\n"));
        const auto sent = commands("printer");
        EXPECT_EQ(std::count(sent.begin(), sent.end(), "04000100"), 0);
        EXPECT_EQ(state().component(1).level, "01.02");
    }
    static constexpr char ec_level_query[] = "02000080";
};

}  // namespace

TEST_F(ReplacedFile, ByAnotherDevicesIsNotSent) {
    expect_untouched(update_with([&] {
                         add_firmware("scanner.tmp", {.product = 0x3C36, .level = "0107"});
                         std::filesystem::rename(firmware_path("scanner.tmp"),
                                                 firmware_path("boot.dat"));
                     }),
                     "it is not the file that was listed");
}

TEST_F(ReplacedFile, ByAHugeOneIsNotSent) {
    expect_untouched(update_with([&] {
                         std::filesystem::resize_file(firmware_path("boot.dat"),
                                                      (std::uintmax_t{64} << 20U) + 1);
                     }),
                     "it is larger than 64 MiB");
}

TEST_F(ReplacedFile, ByOneOfTheSameSummaryIsSentWhole) {
    FirmwareFile longer = file;
    longer.data_records = 9;
    EXPECT_EQ(update_with([&] { add_firmware("boot.dat", longer); }).exit_code, 0);
    EXPECT_EQ(image("printer", 1), longer.body());
}
