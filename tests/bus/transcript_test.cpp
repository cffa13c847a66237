// Console and log of whole runs, byte for byte. What differs from run to run is replaced: the times
// and the test's directory.
#include "support/bus_test.h"

#include <gmock/gmock.h>

#include <regex>
#include <string>

namespace {

class Transcript : public BusTest {
  protected:
    Transcript() {
        SimDevice printer;
        printer.components = {{.build = 1},
                              {.id = 1, .level = "01.02", .build = 2},
                              {.id = 2, .level = "02.3f", .type = "configuration"},
                              {.id = 3, .level = "00.81", .control = "random", .type = "font"}};
        set_bus({printer, {.name = "scanner", .product = 0x3C36, .serial = "SC-77"}});
    }

    std::string normalised(std::string text) const {
        const std::string directory = path("");
        for (std::size_t at = text.find(directory); at != std::string::npos;
             at = text.find(directory)) {
            text.replace(at, directory.size(), "DIRECTORY/");
        }
        const std::regex time(
            "(USB Flash (Started|ended) at )[A-Z][a-z]{2} [A-Z][a-z]{2} [ 0-9]{2} "
            "[0-9:]{8} [0-9]{4}\n");
        return std::regex_replace(text, time, "$1TIME\n");
    }
    void expect_transcript(const RunResult& result, const std::string& name) const {
        const std::string golden = std::string(GOLDEN_DIRECTORY) + "/" + name;
        EXPECT_EQ(result.exit_code, 0);
        EXPECT_EQ(result.errors, "");
        EXPECT_EQ(normalised(result.console), read_file(golden + ".console.txt"));
        EXPECT_EQ(normalised(result.log), read_file(golden + ".log.txt"));
    }
};

}  // namespace

TEST_F(Transcript, OfAList) {
    expect_transcript(run({"-L"}), "list");
}

TEST_F(Transcript, OfTheFirmwareFilesFound) {
    add_firmware("boot.dat", {.component = 1, .build = 3});
    expect_transcript(run({"-S", "-p", firmware_directory()}), "show");
}

TEST_F(Transcript, OfTheDisplayOfAFirmwareFile) {
    const FirmwareFile file = {
        .component = 3,
        .build = 4,
        .type = 3,
        .random = true,
        .data_records = 2,
        .further_records = {std::string("\x1a\x30\x01\x02", 4) + std::string(26, '\xA5')}};
    expect_transcript(run({"-D", add_firmware("font.dat", file)}), "display");
}

TEST_F(Transcript, OfAnUpdate) {
    add_firmware("boot.dat", {.component = 1, .build = 3});
    expect_transcript(update({"-d", "3C35"}), "update");
}

TEST_F(Transcript, OfAVerboseUpdateFromAConfigurationFile) {
    add_firmware("boot.dat", {.component = 1, .build = 3});
    add_firmware("font.dat", {.level = "0080", .component = 3, .type = 3, .random = true});
    write_file(path("zelflash.cfg"), "# both\nboot.dat\n\nmissing.dat\nfont.dat\n");
    expect_transcript(
        run({"-C", path("zelflash.cfg"), "-p", firmware_directory(), "-n", "1", "-1", "9000"}),
        "update_from_configuration");
}
