// What devices remember from one process to the next.
#include "support/bench.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

namespace {

using testing::HasSubstr;
using zelfsim::FlashPhase;

}  // namespace

TEST(State, KeepsLevelsAndImages) {
    Bench bench;
    const Image image = make_image(1, {3, 1, 7});
    bench.update(image);
    bench.reload();
    EXPECT_EQ(zelfsim::version_text(bench.printer().state().components[1].current.version),
              "03.01.07");
    EXPECT_EQ(bench.printer().store().image(1), image.stored());
    EXPECT_EQ(bench.printer().state().updates, 1U);
}

TEST(State, KeepsAMainImageThatWaitsForItsReset) {
    Bench bench;
    bench.update(make_image(0, {1, 5, 1}));
    bench.reload();
    ASSERT_TRUE(bench.printer().state().components[0].pending);
    bench.reset();
    EXPECT_EQ(bench.printer().state().bcd, 0x0105);
}

TEST(State, TakesUpAnUpdateWhereTheProcessWasKilled) {
    Bench bench;
    const Image image = make_image(1, {3, 1, 7});
    bench.erase();
    for (std::size_t number = 0; number < 3; ++number) {
        bench.send_record(image.records[number]);
    }
    bench.reload();
    EXPECT_EQ(bench.printer().state().phase, FlashPhase::receiving);
    EXPECT_TRUE(bench.printer().state().components[1].broken);
    bench.send_record(image.records[3]);
    bench.send_record(image.records[4]);
    EXPECT_EQ(bench.send_checksum(image.checksum)[0], 0x01);
    EXPECT_EQ(bench.printer().store().image(1), image.stored());
}

TEST(State, CutsOffARecordThatWasHalfWritten) {
    Bench bench;
    const Image image = make_image(1, {3, 1, 7});
    bench.erase();
    bench.send_record(image.records[0]);
    const std::string staging = bench.workspace().path("state/devices/printer/staging.bin");
    const auto whole = std::filesystem::file_size(staging);
    bench.send_record(image.records[1]);
    std::filesystem::resize_file(staging, whole + 3);
    bench.reload();
    EXPECT_EQ(std::filesystem::file_size(staging), whole);
    EXPECT_EQ(bench.send_record(image.records[1])[0], 0x01);
}

TEST(State, GrowsTheStagingFileByJustTheRecord) {
    Bench bench;
    bench.erase();
    const std::string staging = bench.workspace().path("state/devices/printer/staging.bin");
    bench.send_record({0x10, 0, 0, 1, 2, 3});
    EXPECT_EQ(std::filesystem::file_size(staging), 7U);
    bench.send_record({0x10, 0, 1, 1});
    EXPECT_EQ(std::filesystem::file_size(staging), 12U);
}

TEST(State, KeepsAddressAndAbsence) {
    Bench bench;
    bench.send({0x04, 0x00, 0x00, 0x40});
    const int address = bench.printer().address();
    bench.reload();
    EXPECT_EQ(bench.printer().address(), address);
    EXPECT_EQ(bench.printer().state().resets, 1U);
}

TEST(State, GivesOutAddressesThatWereNotUsedBefore) {
    Bench bench;
    bench.reset();
    const int second = bench.printer().address();
    bench.reload();
    bench.reset();
    EXPECT_EQ(bench.printer().address(), second + 1);
}

TEST(State, RemembersADetachedDriverUntilTheDeviceComesBack) {
    Bench bench;
    EXPECT_TRUE(bench.printer().driver_bound(0));
    bench.printer().bind_driver(0, false);
    bench.reload();
    EXPECT_FALSE(bench.printer().driver_bound(0));
    bench.reset();
    EXPECT_TRUE(bench.printer().driver_bound(0));
}

TEST(State, PlugsInAgainWhatWasUnpluggedInTheLastProcess) {
    Bench bench(printer_bus("", R"(
[[fault]]
device = "printer"
at = "erase"
action = "unplug"
)"));
    EXPECT_TRUE(bench.erase().empty());
    EXPECT_TRUE(bench.printer().state().unplugged);
    EXPECT_THAT(bench.workspace().read("state/devices/printer/state.toml"),
                HasSubstr("away_until_ms = -1"));
    bench.reload();
    bench.printer().advance(bench.time());
    EXPECT_TRUE(bench.printer().attached());
    EXPECT_EQ(bench.erase()[0], 0x01) << "the fault has struck once";
}

TEST(State, RefusesADamagedStateFileWithItsLine) {
    Bench bench;
    bench.erase();
    bench.workspace().write("state/devices/printer/state.toml", "format = 1\naddress = 999\n");
    try {
        bench.reload();
        FAIL() << "taken";
    } catch (const zelfsim::FileError& error) {
        EXPECT_THAT(error.what(), HasSubstr("state.toml:2: "));
    }
}

TEST(State, LetsOneProcessAtATimeUseADirectory) {
    Bench bench;
    EXPECT_THROW(
        zelfsim::Bus(zelfsim::BusFiles{bench.workspace().bus(), bench.workspace().state(), ""}),
        zelfsim::FileError);
}

TEST(State, IsNotNeeded) {
    const Workspace workspace;
    workspace.write("bus.toml", printer_bus());
    zelfsim::Bus bus(zelfsim::BusFiles{workspace.bus(), "", ""});
    EXPECT_EQ(bus.present(zelfsim::now()).size(), 2U);
    EXPECT_FALSE(std::filesystem::exists(workspace.state()));
}

TEST(State, ForgetsAUpdateOfAComponentThatTheBusFileNoLongerHas) {
    Bench bench;
    bench.erase();
    bench.send_record({0x10, 0, 0, 1});
    std::string bus = printer_bus();
    bus.erase(bus.rfind("[[device.interface.component]]"));
    bench.workspace().write("bus.toml", bus);
    bench.reload();
    EXPECT_EQ(bench.printer().state().phase, FlashPhase::idle);
    EXPECT_EQ(bench.erase()[0], 0x01);
}
