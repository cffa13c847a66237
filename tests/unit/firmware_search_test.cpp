#include "firmware/firmware_search.h"

#include "journal/output.h"
#include "support/directory_double.h"
#include "support/firmware_bytes.h"
#include "support/output_capture.h"
#include "support/temporary_directory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::UnorderedElementsAre;

namespace {

class FirmwareSearch : public testing::Test {
  protected:
    FirmwareSearch() { reset_options(); }

    void use_directory(const std::string& path) {
        snprintf(DirName, sizeof DirName, "%s", path.c_str());
    }
    void use_directory() { use_directory(directory_.path()); }

    static std::vector<std::string> candidates() {
        return {fwfilename, fwfilename + numberOffwfilenames};
    }
    static void set_candidates(const std::vector<std::string>& names) {
        numberOffwfilenames = 0;
        for (const std::string& name : names) {
            snprintf(fwfilename[numberOffwfilenames++], sizeof fwfilename[0], "%s", name.c_str());
        }
    }
    /// Reads a configuration file of this content.
    void configure(const std::string& content) {
        read_config_file(directory_.write("zelflash.cfg", content).c_str());
    }
    static WrittenOutput output_of(const std::function<void()>& call) {
        OutputCapture capture;
        call();
        return capture.take();
    }

    TemporaryDirectory directory_;
};

FirmwareBytes printer_file() {
    return FirmwareBytes("3C020105")
        .record(0xFF, 0, {2})
        .record(0xFF, 2, {2, 5, 1, 0x03, 0x0B})
        .record(0x20, 0, {1})
        .end();
}

}  // namespace

TEST_F(FirmwareSearch, ScanTakesRegularDatFilesInAnyCase) {
    for (const char* name : {"A.DAT", "b.Dat", ".dat", "c.dat.force", "d.cfg", "edat", "f.da"}) {
        directory_.write(name, "");
    }
    std::filesystem::create_directory(directory_.path("directory.dat"));
    ASSERT_EQ(mkfifo(directory_.path("fifo.dat").c_str(), 0600), 0);
    ASSERT_EQ(symlink("A.DAT", directory_.path("link.dat").c_str()), 0);
    use_directory();
    EXPECT_EQ(search_firmware_files(), 0);
    EXPECT_THAT(candidates(), UnorderedElementsAre("A.DAT", "b.Dat", ".dat"));
}

TEST_F(FirmwareSearch, ScanKeepsTheDirectorysOwnOrder) {
    const std::vector<std::string> order = {"m.dat", "z.dat", "a.dat", "B.dat", "b.dat"};
    for (const std::string& name : order) {
        directory_.write(name, "");
    }
    use_directory();
    directory_double_gives(order);
    EXPECT_EQ(search_firmware_files(), 0);
    directory_double_gives({});
    EXPECT_EQ(candidates(), order);
}

TEST_F(FirmwareSearch, ScanAsksTheFileWhereTheDirectoryKeepsNoTypes) {
    directory_.write("a.dat", "");
    std::filesystem::create_directory(directory_.path("directory.dat"));
    ASSERT_EQ(symlink("a.dat", directory_.path("link.dat").c_str()), 0);
    use_directory();
    directory_double_hides_types(true);
    EXPECT_EQ(search_firmware_files(), 0);
    directory_double_hides_types(false);
    EXPECT_THAT(candidates(), ElementsAre("a.dat"));
}

TEST_F(FirmwareSearch, ScanIsLoggedButNotShown) {
    directory_.write("a%s\n.dat", "");
    use_directory();
    const WrittenOutput output = output_of([] { search_firmware_files(); });
    EXPECT_EQ(output.console, "");
    EXPECT_EQ(output.log, "Looking firmware files in directory " + directory_.path() +
                              "\n  Adding file '" + directory_.path() + "/a%s\n.dat' to list\n");
}

TEST_F(FirmwareSearch, UnreadableDirectoryGivesSevenAndDropsTheNames) {
    set_candidates({"left.dat"});
    use_directory(directory_.path("missing"));
    const WrittenOutput output = output_of([] { EXPECT_EQ(search_firmware_files(), 7); });
    EXPECT_EQ(output.log, "");
    EXPECT_EQ(numberOffwfilenames, 0);
}

TEST_F(FirmwareSearch, ScanStopsAtItsCapacityAndSaysSoOnce) {
    for (int i = 0; i < 260; ++i) {
        directory_.write("f" + std::to_string(i) + ".dat", "");
    }
    use_directory();
    const WrittenOutput output = output_of([] { EXPECT_EQ(search_firmware_files(), 0); });
    EXPECT_EQ(numberOffwfilenames, 256);
    ASSERT_THAT(output.console, testing::StartsWith("More than 256 firmware files, 'f"));
    EXPECT_EQ(std::count(output.console.begin(), output.console.end(), '\n'), 1);
    EXPECT_THAT(output.log, HasSubstr(output.console));
    const std::string left_out = output.console.substr(30, output.console.find('\'', 30) - 30);
    EXPECT_THAT(candidates(), Not(testing::Contains(left_out)));
    EXPECT_TRUE(std::filesystem::exists(directory_.path(left_out)));
}

TEST_F(FirmwareSearch, ScanOfExactly256FilesIsSilent) {
    for (int i = 0; i < 256; ++i) {
        directory_.write("f" + std::to_string(i) + ".dat", "");
    }
    use_directory();
    EXPECT_EQ(output_of([] { search_firmware_files(); }).console, "");
    EXPECT_EQ(numberOffwfilenames, 256);
}

TEST_F(FirmwareSearch, ScanSkipsANameThatDoesNotFit) {
    const std::string longest = std::string(250, 'n') + ".dat";
    directory_.write(longest, "");
    directory_.write("n" + longest, "");
    use_directory();
    OutputLevel = 3;
    const WrittenOutput output = output_of([] { search_firmware_files(); });
    EXPECT_THAT(candidates(), ElementsAre(longest));
    EXPECT_THAT(output.log, HasSubstr("3:name too long, file 'n" + longest + "' left out\n"));
    EXPECT_EQ(output.console, "");
}

TEST_F(FirmwareSearch, ConfigurationNamesOneFileALine) {
    configure("# comment\n\nzel3C06.dat\n");
    EXPECT_THAT(candidates(), ElementsAre("", "zel3C06.dat"));
}

TEST_F(FirmwareSearch, ConfigurationLinesAreTakenWhole) {
    configure("  a b.dat \n #no comment\n\tc.dat\r\n%s%n.dat\nlast.dat");
    EXPECT_THAT(candidates(),
                ElementsAre("  a b.dat ", " #no comment", "\tc.dat\r", "%s%n.dat", "last.dat"));
}

TEST_F(FirmwareSearch, ConfigurationReplacesTheNamesOfTheCommandLine) {
    set_candidates({"option.dat"});
    configure("");
    EXPECT_THAT(candidates(), IsEmpty());
    set_candidates({"option.dat"});
    const WrittenOutput output =
        output_of([this] { read_config_file(directory_.path("missing.cfg").c_str()); });
    EXPECT_THAT(candidates(), IsEmpty());
    EXPECT_EQ(output.log, "");
}

TEST_F(FirmwareSearch, ConfigurationIsAnnouncedOnTheConsoleOnlyWhenVerbose) {
    const std::string path = directory_.write("zelflash.cfg", "");
    const std::string line = " Reading '" + path + "' for flash configuration\n";
    const auto read = [&path] { read_config_file(path.c_str()); };
    const WrittenOutput normal = output_of(read);
    EXPECT_EQ(normal.console, "");
    EXPECT_EQ(normal.log, line);
    OutputLevel = 2;
    Verbose = 1;
    EXPECT_EQ(output_of(read).console, line);
}

TEST_F(FirmwareSearch, ConfigurationLineTooLongIsSkippedWithItsNumber) {
    const std::string longest(254, 'x');
    const WrittenOutput output = output_of([&] {
        configure("a.dat\n" + longest + "\n" + longest + "y\n" + std::string(5000, 'z') + "\n#" +
                  std::string(600, 'c') + "\nb.dat\n");
    });
    EXPECT_THAT(candidates(), ElementsAre("a.dat", longest, "b.dat"));
    const std::string path = directory_.path("zelflash.cfg");
    EXPECT_EQ(output.console,
              "Line 3 of '" + path + "' is longer than 254 characters, line skipped\n" +
                  "Line 4 of '" + path + "' is longer than 254 characters, line skipped\n");
    EXPECT_THAT(output.log, HasSubstr(output.console));
}

TEST_F(FirmwareSearch, ConfigurationLineWithAZeroByteIsSkipped) {
    const WrittenOutput output =
        output_of([this] { configure(std::string("a.dat\nb\0c.dat\nd.dat\n", 20)); });
    EXPECT_THAT(candidates(), ElementsAre("a.dat", "d.dat"));
    EXPECT_EQ(output.console, "Line 2 of '" + directory_.path("zelflash.cfg") +
                                  "' holds a zero byte, line skipped\n");
}

TEST_F(FirmwareSearch, ConfigurationStopsAtItsCapacityAndSaysSoOnce) {
    std::string content;
    for (int i = 0; i < 300; ++i) {
        content += "f" + std::to_string(i) + ".dat\n";
    }
    const WrittenOutput output = output_of([&] { configure(content); });
    EXPECT_EQ(numberOffwfilenames, 256);
    EXPECT_STREQ(fwfilename[255], "f255.dat");
    EXPECT_EQ(output.console,
              "More than 256 firmware files, 'f256.dat' and those after it are left out\n");
    EXPECT_THAT(output.log, HasSubstr(output.console));
}

TEST_F(FirmwareSearch, ConfigurationThatIsNoFileGivesNoNames) {
    set_candidates({"option.dat"});
    read_config_file(directory_.path().c_str());
    EXPECT_THAT(candidates(), IsEmpty());
    set_candidates({"option.dat"});
    read_config_file("/dev/zero");
    EXPECT_THAT(candidates(), IsEmpty());
}

TEST_F(FirmwareSearch, NoCandidatesAreReported) {
    use_directory();
    OutputLevel = 3;
    const WrittenOutput output = output_of([] { EXPECT_EQ(read_firmware_files(), 0); });
    EXPECT_EQ(output.console, "No firmware files!\n");
    EXPECT_EQ(output.log, "3:numberOffwfilenames=0 (sirName='" + directory_.path() +
                              "')\nNo firmware files!\n");
    EXPECT_EQ(DirName, directory_.path());
}

TEST_F(FirmwareSearch, ReadableFilesAreListedAndTabled) {
    directory_.write("printer.dat", printer_file());
    directory_.write("plain.bin", FirmwareBytes("3A010a00").end());
    use_directory();
    set_candidates({"printer.dat", "missing.dat", "", "plain.bin"});
    const WrittenOutput output = output_of([] { EXPECT_EQ(read_firmware_files(), 0); });
    EXPECT_EQ(output.console,
              "Firmware files:\n"
              "  printer.dat                 PID: 3c02 COMP: 2 TYPE: FW   EC=01.05.0b, "
              "Version='1'\n"
              "  plain.bin                   PID: 3a01 COMP: 0 TYPE: UNK  EC=0a.00   , "
              "Version='49'\n");
    EXPECT_EQ(output.log, output.console);
    ASSERT_EQ(numberOfusbFlashFiles, 2);
    EXPECT_EQ(files[0].product_id, 0x3C02);
    EXPECT_EQ(files[0].comp_id, 2);
    EXPECT_EQ(files[0].ec_level, 0x0105);
    EXPECT_EQ(files[0].ec_version, 1);
    EXPECT_EQ(files[0].comp_type, 1);
    EXPECT_EQ(files[0].build_level, 0x0B);
    EXPECT_EQ(files[0].version_method, 1);
    EXPECT_STREQ(files[0].filename, "printer.dat");
    EXPECT_EQ(files[0].path, directory_.path() + "/");
    EXPECT_EQ(files[0].fullname, directory_.path("printer.dat"));
    EXPECT_EQ(files[1].comp_type, 0);
    EXPECT_EQ(files[2].product_id, 0);
}

TEST_F(FirmwareSearch, EveryTypeHasItsWord) {
    const auto typed = [](std::uint8_t component, std::uint8_t flags) {
        return FirmwareBytes("3C020105").record(0xFF, 2, {component, 5, 1, flags, 0});
    };
    directory_.write("config.dat", typed(1, 4));
    directory_.write("font.dat", typed(1, 6));
    directory_.write("unspecified.dat", typed(1, 0));
    use_directory();
    set_candidates({"config.dat", "font.dat", "unspecified.dat"});
    const std::string text = output_of([] { read_firmware_files(); }).console;
    EXPECT_THAT(text, HasSubstr("TYPE: CFG  EC"));
    EXPECT_THAT(text, HasSubstr("TYPE: FON  EC"));
    EXPECT_THAT(text, HasSubstr("TYPE: UNS  EC"));
    EXPECT_EQ(files[0].comp_type, 2);
    EXPECT_EQ(files[1].comp_type, 3);
    EXPECT_EQ(files[2].comp_type, 0);
}

TEST_F(FirmwareSearch, StreamThatCannotGoBackIsNotAsListed) {
    const std::string path =
        directory_.write("image.dat", FirmwareBytes("3C020105").record(0x20, 0, {1}).bytes());
    use_directory();
    set_candidates({"image.dat"});
    OutputCapture capture;
    read_firmware_files();
    ASSERT_EQ(numberOfusbFlashFiles, 1);
    using Stream = std::unique_ptr<FILE, int (*)(FILE*)>;
    const Stream file(fopen(path.c_str(), "rbe"), fclose);
    const Stream pipe(popen(("cat " + path).c_str(), "r"), pclose);
    EXPECT_TRUE(is_as_listed(files[0], file.get()));
    EXPECT_FALSE(is_as_listed(files[0], pipe.get()));
}

TEST_F(FirmwareSearch, FileWithoutALevelIsListedWithComponentZero) {
    directory_.write("zero.dat", FirmwareBytes("3C020000").record(0xFF, 0, {7}));
    directory_.write("short.dat", FirmwareBytes("3C"));
    use_directory();
    set_candidates({"zero.dat", "short.dat"});
    const std::string text = output_of([] { read_firmware_files(); }).console;
    EXPECT_THAT(text, HasSubstr("PID: 3c02 COMP: 0 TYPE: FW   EC=00.00   , Version='0'\n"));
    EXPECT_THAT(text, HasSubstr("PID: ffffffff COMP: 0 TYPE: FW   EC=ff.ff   , Version='-48'\n"));
    EXPECT_EQ(numberOfusbFlashFiles, 2);
}

TEST_F(FirmwareSearch, CandidatesWithoutADirectoryAreOpenedAsGiven) {
    const std::string path = directory_.write("printer.dat", printer_file());
    set_candidates({path});
    read_firmware_files();
    ASSERT_EQ(numberOfusbFlashFiles, 1);
    EXPECT_STREQ(files[0].path, "");
    EXPECT_EQ(files[0].fullname, path);
}

TEST_F(FirmwareSearch, ConfigurationNamesAreTakenFromTheDirectory) {
    std::filesystem::create_directory(directory_.path("fw"));
    directory_.write("fw/printer.dat", printer_file());
    configure("\nprinter.dat\n");
    use_directory(directory_.path("fw"));
    const WrittenOutput output = output_of([] { read_firmware_files(); });
    ASSERT_EQ(numberOfusbFlashFiles, 1);
    EXPECT_EQ(files[0].fullname, directory_.path("fw") + "/printer.dat");
    EXPECT_EQ(std::count(output.console.begin(), output.console.end(), '\n'), 2);
}

TEST_F(FirmwareSearch, CandidateWhoseFullNameDoesNotFitIsLeftOut) {
    use_directory(std::string(100, 'd'));
    set_candidates({std::string(200, 'n')});
    OutputLevel = 3;
    const WrittenOutput output = output_of([] { read_firmware_files(); });
    EXPECT_EQ(numberOfusbFlashFiles, 0);
    EXPECT_THAT(output.log, HasSubstr("3:name too long, file '"));
    EXPECT_EQ(output.console, "Firmware files:\n");
}

TEST_F(FirmwareSearch, FullNameMayFillItsField) {
    const std::string path = directory_.path(std::string(20, 'd'));
    std::filesystem::create_directory(path);
    const std::string name(259 - path.size() - 1, 'n');
    directory_.write(std::string(20, 'd') + "/" + name, printer_file());
    use_directory(path);
    set_candidates({name});
    read_firmware_files();
    ASSERT_EQ(numberOfusbFlashFiles, 1);
    EXPECT_EQ(strlen(files[0].fullname), 259U);
}

TEST_F(FirmwareSearch, LongestDirectoryNameIsNotOverrun) {
    use_directory(std::string(255, 'd'));
    set_candidates({"a.dat"});
    read_firmware_files();
    EXPECT_EQ(DirName, std::string(255, 'd'));
    EXPECT_EQ(numberOfusbFlashFiles, 0);
}

TEST_F(FirmwareSearch, TableHoldsEveryCandidateOfAFullList) {
    directory_.write("printer.dat", printer_file());
    use_directory();
    set_candidates(std::vector<std::string>(256, "printer.dat"));
    const WrittenOutput output = output_of([] { read_firmware_files(); });
    EXPECT_EQ(numberOfusbFlashFiles, 256);
    EXPECT_EQ(files[255].product_id, 0x3C02);
}

TEST_F(FirmwareSearch, SecondReadingForgetsTheFirst) {
    directory_.write("printer.dat", printer_file());
    use_directory();
    set_candidates({"printer.dat"});
    read_firmware_files();
    set_candidates({});
    read_firmware_files();
    EXPECT_EQ(numberOfusbFlashFiles, 0);
    device_firmware_match_only = 1;
    EXPECT_EQ(is_there_a_firmware_file_for_device(0x3C02), 0);
}

TEST_F(FirmwareSearch, DeviceNeedsAFileOnlyWhenFilesAreToMatch) {
    EXPECT_EQ(is_there_a_firmware_file_for_device(0x3C02), 1);
    device_firmware_match_only = 2;
    EXPECT_EQ(is_there_a_firmware_file_for_device(0x3C02), 1);
    device_firmware_match_only = 1;
    EXPECT_EQ(is_there_a_firmware_file_for_device(0x3C02), 0);
    files[255].product_id = 0x3C02;
    EXPECT_EQ(is_there_a_firmware_file_for_device(0x3C02), 1);
}

TEST_F(FirmwareSearch, ForceMarkerIsFoundAndDeletedBesideItsFile) {
    const std::string firmware = directory_.path("zel3524.dat");
    EXPECT_FALSE(force_marker_exists(firmware.c_str()));
    directory_.write("zel3524.dat.force", "");
    EXPECT_TRUE(force_marker_exists(firmware.c_str()));
    directory_.write("zel3524.dat", "x");
    delete_force_marker(firmware.c_str());
    EXPECT_FALSE(force_marker_exists(firmware.c_str()));
    EXPECT_TRUE(std::filesystem::exists(firmware));
}

TEST_F(FirmwareSearch, ForceMarkerIsARegularFile) {
    std::filesystem::create_directory(directory_.path("a.dat.force"));
    ASSERT_EQ(mkfifo(directory_.path("b.dat.force").c_str(), 0600), 0);
    EXPECT_FALSE(force_marker_exists(directory_.path("a.dat").c_str()));
    EXPECT_FALSE(force_marker_exists(directory_.path("b.dat").c_str()));
    EXPECT_FALSE(force_marker_exists(std::string(5000, 'n').c_str()));
}

TEST_F(FirmwareSearch, ConfigurationMayComeThroughAPipe) {
    const std::string path = directory_.path("pipe.cfg");
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    // One that writes late, and in two parts.
    std::thread writer([&path] {
        const auto pause = std::chrono::milliseconds(100);
        std::this_thread::sleep_for(pause);
        std::ofstream file(path);
        std::this_thread::sleep_for(pause);
        file << "a.dat\nb." << std::flush;
        std::this_thread::sleep_for(pause);
        file << "dat\n";
    });
    read_config_file(path.c_str());
    writer.join();
    EXPECT_THAT(candidates(), ElementsAre("a.dat", "b.dat"));
}

TEST_F(FirmwareSearch, ConfigurationOfAPipeNobodyWritesToIsEmpty) {
    const std::string path = directory_.path("pipe.cfg");
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    const WrittenOutput output = output_of([&path] { read_config_file(path.c_str()); });
    EXPECT_THAT(candidates(), IsEmpty());
    EXPECT_THAT(output.console, testing::HasSubstr("Nothing came from '" + path +
                                                   "' for 2 seconds, it counts as ended\n"));
}

TEST_F(FirmwareSearch, ConfigurationOfAPipeEndsWhereItsWriterFallsSilent) {
    const std::string path = directory_.path("pipe.cfg");
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    for (const std::string written : {"", "a.dat\nb.dat"}) {
        // Open to the end, and silent.
        const int writer = open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
        ASSERT_GE(writer, 0);
        ASSERT_EQ(write(writer, written.data(), written.size()),
                  static_cast<ssize_t>(written.size()));
        const WrittenOutput output = output_of([&path] { read_config_file(path.c_str()); });
        close(writer);
        if (written.empty()) {
            EXPECT_THAT(candidates(), IsEmpty());
        } else {
            EXPECT_THAT(candidates(), ElementsAre("a.dat", "b.dat"));
        }
        EXPECT_THAT(output.log, testing::HasSubstr("Nothing came from '" + path +
                                                   "' for 2 seconds, it counts as ended\n"));
    }
}

TEST_F(FirmwareSearch, ConfigurationOfAPipeThatIsClosedAtOnceIsEmptyWithoutALine) {
    const std::string path = directory_.path("pipe.cfg");
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    std::thread writer([&path] { const std::ofstream file(path); });
    const WrittenOutput output = output_of([&path] { read_config_file(path.c_str()); });
    writer.join();
    EXPECT_THAT(candidates(), IsEmpty());
    EXPECT_THAT(output.log, testing::Not(testing::HasSubstr("Nothing came")));
}

TEST_F(FirmwareSearch, MarkerThatCannotBeDeletedIsNamedOnTheConsole) {
    const WrittenOutput output =
        output_of([this] { delete_force_marker(directory_.path("none.dat").c_str()); });
    const std::string line = "Could not delete '" + directory_.path("none.dat.force") +
                             "', the next run forces this update again\n";
    EXPECT_EQ(output.console, line);
    EXPECT_EQ(output.log, line);
}
