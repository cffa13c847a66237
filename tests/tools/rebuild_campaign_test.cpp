// A firmware file that was sent in a run is the same, byte for byte, when zelfwfile rebuilds it
// from that run's trace: for made-up files of all shapes, whole ones and those that a fault broke
// off.
#include "support/firmware_bytes.h"
#include "support/workspace.h"
#include "zelfwfile/firmware_image.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

namespace {

using testing::HasSubstr;
using testing::Not;

class Rebuilt : public testing::Test {
  protected:
    Rebuilt() { std::filesystem::create_directory(workspace_.path("files")); }

    int number(int least, int most) {
        return std::uniform_int_distribution<>(least, most)(random_);
    }

    FirmwareDescription made_up() {
        FirmwareDescription file;
        file.product = 0x3C35;
        file.component = number(0, 2);
        file.level = 0x0200 + number(0, 255);
        file.build = number(0, 255);
        file.type = static_cast<FirmwareFileType>(number(0, 3));
        file.control = number(0, 1) == 0 ? VERSION_INCREASING : VERSION_RANDOM;
        file.name = std::string(static_cast<std::size_t>(number(1, 32)), 'n');
        // The updater reads the component from the first record.
        const std::vector<InformationRecord> all = all_information_records();
        file.information = {InformationRecord::component_list};
        for (int more = number(0, 4); more > 0; --more) {
            file.information.push_back(
                all[static_cast<std::size_t>(number(1, static_cast<int>(all.size()) - 1))]);
        }
        for (int records = number(1, 40); records > 0; --records) {
            file.records.emplace_back(static_cast<std::size_t>(number(1, 250)));
            for (std::uint8_t& byte : file.records.back()) {
                byte = static_cast<std::uint8_t>(number(0, 255));
            }
        }
        return file;
    }

    static std::string bytes_of(const FirmwareDescription& file) {
        const auto bytes = firmware_file_bytes(file);
        return {bytes.begin(), bytes.end()};
    }

    /// Sends the file in a run on the bus, and rebuilds it from the trace. The files stand in
    /// "out".
    Outcome sent_and_rebuilt(const std::string& file, const std::string& fault = "",
                             const std::string& options = "") {
        workspace_.write("files/image.dat", file);
        workspace_.write("bus.toml", one_bus + fault);
        std::filesystem::remove_all(workspace_.path("out"));
        std::filesystem::remove(workspace_.path("trace"));
        sent_ = run("cd " + workspace_.path("") +
                    " && timeout 50 " ZELFWSIM_TOOL " run --virtual bus.toml -- " ZELFWUPDATE
                    " -U -f -p files " +
                    options + " -l log -t trace");
        return run(ZELFWFILE " from-trace " + workspace_.path("trace") + " -o " +
                   workspace_.path("out"));
    }
    bool exists(const std::string& name) const {
        return std::filesystem::exists(workspace_.path("out/" + name));
    }

    static constexpr const char* one_bus = R"(
[[device]]
name = "printer"
vendor = 0x7A01
product = 0x3C35
[[device.interface]]
kind = "flash"
output_size = 300
[[device.interface.component]]
id = 0
level = "02.00"
[[device.interface.component]]
id = 1
level = "02.00"
[[device.interface.component]]
id = 2
level = "02.00"
)";
    const Workspace workspace_;
    Outcome sent_;
    std::mt19937 random_{11};
};

TEST_F(Rebuilt, IsTheFileThatWasSent) {
    for (int round = 0; round < 40; ++round) {
        const std::string file = bytes_of(made_up());
        const Outcome made = sent_and_rebuilt(file);
        ASSERT_THAT(sent_.output, HasSubstr("Updated 1 device")) << round;
        EXPECT_EQ(made.code, 0) << made.output;
        EXPECT_THAT(made.output, Not(HasSubstr("guess: level"))) << made.output;
        EXPECT_TRUE(workspace_.read("out/image.dat") == file) << round << "\n" << made.output;
    }
}

TEST_F(Rebuilt, DiffersInNothingButWhatIsNamedAsAGuess) {
    // The header's letters, and a level in it that the records do not name.
    FirmwareDescription description = made_up();
    description.level = 0x02AB;
    description.information = {InformationRecord::component_list, InformationRecord::extended_list};
    std::string file = bytes_of(description);
    file.replace(0, 8, "3C3502AB");
    const Outcome letters = sent_and_rebuilt(file);
    EXPECT_THAT(letters.output, HasSubstr("guess: the letters of the header 3c3502ab"));
    EXPECT_EQ(workspace_.read("out/image.dat"), "3c3502ab" + file.substr(8));

    file.replace(0, 8, "3c350299");
    const Outcome given = sent_and_rebuilt(file);
    EXPECT_THAT(given.output, Not(HasSubstr("guess: level")));
    EXPECT_EQ(workspace_.read("out/image.dat"), file);

    const Outcome guessed = sent_and_rebuilt(file, "", "-o 1");
    EXPECT_THAT(guessed.output, HasSubstr("guess: level 02.ab in the header"));
    EXPECT_EQ(workspace_.read("out/image.dat"), "3c3502ab" + file.substr(8));
}

TEST_F(Rebuilt, NamesTheComponentThatWasChangedAsAGuess) {
    FirmwareDescription description = made_up();
    description.component = 0;
    description.information = {InformationRecord::component_list, InformationRecord::extended_list};
    const std::string file = bytes_of(description);
    const Outcome made = sent_and_rebuilt(file, "", "-c 2");
    EXPECT_THAT(made.output, HasSubstr("guess: component 2: it was changed on the way (-c)"));
    std::string rebuilt =
        workspace_.read(exists("image.dat") ? "out/image.dat" : "out/image.dat.part");
    ASSERT_GT(rebuilt.size(), 17U);
    // The component list, and the tag of each data record.
    EXPECT_EQ(rebuilt.substr(0, 12), file.substr(0, 12));
    EXPECT_EQ(rebuilt[12], 2);
}

TEST_F(Rebuilt, EndsWhereAFaultBrokeItOff) {
    FirmwareDescription description = made_up();
    description.records.resize(12, {1, 2, 3});
    const std::string file = bytes_of(description);
    const std::size_t records = description.information.size() + description.records.size();
    for (const char* action : {"stall", "reject", "no-answer", "unplug"}) {
        for (const std::size_t at : {std::size_t{1}, std::size_t{7}, records}) {
            const Outcome made = sent_and_rebuilt(
                file,
                std::string("\n[[fault]]\ndevice = \"printer\"\nat = \"record\"\naction = \"") +
                    action + "\"\nnumber = " + std::to_string(at) + "\n");
            EXPECT_EQ(made.code, 1);
            EXPECT_THAT(made.output, HasSubstr("NOT WHOLE: " + std::to_string(at) + " of " +
                                               std::to_string(records) + " records"))
                << action;
            EXPECT_FALSE(exists("image.dat"));
            const std::string part = workspace_.read("out/image.dat.part");
            EXPECT_TRUE(file.starts_with(part)) << action << at;
            EXPECT_EQ(part.size() + 3 == file.size(), at == records);
        }
    }
    // A checksum message that failed was made from the file all the same.
    for (const char* action : {"stall", "reject"}) {
        const Outcome made = sent_and_rebuilt(
            file, std::string("\n[[fault]]\ndevice = \"printer\"\nat = \"checksum\"\naction = \"") +
                      action + "\"\n");
        EXPECT_EQ(made.code, 0) << made.output;
        EXPECT_TRUE(workspace_.read("out/image.dat") == file);
    }
}

}  // namespace
