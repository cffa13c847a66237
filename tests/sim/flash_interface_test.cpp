// The flash interface's state machine, driven by reports.
#include "support/bench.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using testing::ElementsAre;
using zelfsim::Bytes;
using zelfsim::Completion;
using zelfsim::FlashPhase;

const Bytes level_or_stop{0x02, 0x00, 0x00, 0x80};
const Bytes extended_list{0x06, 0x00, 0x20, 0x00, 0xFF, 0xFF, 0x00, 0x02};

Bytes version_query(std::uint8_t component) {
    return {0x06, 0x00, 0x20, 0x00, 0x02, static_cast<std::uint8_t>(0xF0 | component), 0x00, 0x01};
}

Bytes read_records(std::uint8_t component) {
    return {0x06, 0x00, 0x21, 0x00, 0xFF, static_cast<std::uint8_t>(component << 4U), 0x00, 0x00};
}

Bytes front(const Bytes& bytes, std::size_t count) {
    return {bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(count)};
}

int first(const Bytes& status) {
    return status.empty() ? -1 : status[0];
}

}  // namespace

TEST(FlashInterface, AnswersTheLevelQueryWithPresentAndPreviousLevels) {
    Bench bench(printer_bus("previous_level = \"01.01\"\nprevious_build = 9\n"));
    EXPECT_THAT(bench.ask(level_or_stop), ElementsAre(0x05, 0x02, 0x01, 0x01, 0x01, 3, 9, 0));
}

TEST(FlashInterface, AnswersDeviceInformationWithDerivedFeatures) {
    Bench bench(printer_bus("device_type = 0x21\ndevice_id = 4\ncommand_set = 7\n"));
    EXPECT_THAT(bench.ask(device_info_query), ElementsAre(0x09, 0x21, 4, 7, 0xD0, 0, 0, 0));
}

TEST(FlashInterface, TakesTheFeaturesOfTheBusFile) {
    Bench bench(printer_bus("features = 0x20\n"));
    EXPECT_EQ(bench.ask(device_info_query)[4], 0x20);
}

TEST(FlashInterface, RejectsQueriesThatTheBusFileSwitchesOff) {
    Bench bench(printer_bus("device_info = false\nec_level = false\nread_records = false\n"));
    EXPECT_EQ(first(bench.ask(device_info_query)), 0x80);
    EXPECT_EQ(first(bench.ask(level_or_stop)), 0x80);
    EXPECT_EQ(first(bench.ask(read_records(0))), 0x80);
}

TEST(FlashInterface, GivesBothListsWhenItHasTheExtendedOne) {
    Bench bench;
    EXPECT_EQ(first(bench.ask(extended_list)), 0x01);
    EXPECT_THAT(front(bench.data(), 17), ElementsAre(1, 0, 10, 0xFF, 0, 2,  //
                                                     0, 0x02, 0x01, 2, 3,   //
                                                     1, 0x10, 0x02, 5, 0, 0));
    EXPECT_EQ(first(bench.ask(plain_list_query)), 0x01);
    EXPECT_THAT(front(bench.data(), 15), ElementsAre(1, 0, 8, 0xFF, 0, 1,  //
                                                     0, 0x02, 0x01, 2,     //
                                                     1, 0x10, 0x02, 5, 0));
    EXPECT_EQ(bench.data().size(), 261U);
}

TEST(FlashInterface, RejectsTheListsItDoesNotHave) {
    Bench plain(printer_bus("list = \"plain\"\n"));
    EXPECT_EQ(first(plain.ask(extended_list)), 0x80);
    EXPECT_EQ(first(plain.ask(plain_list_query)), 0x01);
    Bench none(printer_bus("list = \"none\"\n"));
    EXPECT_EQ(first(none.ask(extended_list)), 0x80);
    EXPECT_EQ(first(none.ask(plain_list_query)), 0x80);
    EXPECT_EQ(first(none.ask(version_query(1))), 0x01);
    EXPECT_THAT(front(none.data(), 8), ElementsAre(1, 0, 2, 0xF1, 0, 1, 0x10, 0x02));
    EXPECT_EQ(first(none.ask(version_query(2))), 0x80);
}

TEST(FlashInterface, RejectsWhatItDoesNotKnow) {
    Bench bench;
    EXPECT_EQ(first(bench.ask({0x04, 0x00, 0x02, 0x00})), 0x80);
    EXPECT_EQ(first(bench.ask({0x04})), 0x80);
    EXPECT_EQ(first(bench.ask({})), 0x80);
    EXPECT_EQ(first(bench.ask({0x04, 0x00, 0x00, 0x20})), 0x01);
}

TEST(FlashInterface, IgnoresPaddingAfterAMessage) {
    Bench bench;
    Bytes padded = device_info_query;
    padded.resize(263, 0xEE);
    EXPECT_EQ(first(bench.ask(padded)), 0x09);
    padded.resize(264, 0xEE);
    EXPECT_EQ(bench.send(padded), Completion::stall);
}

TEST(FlashInterface, SpeaksWithReportIds) {
    Bench bench(printer_bus("report_ids = true\n"));
    EXPECT_THAT(bench.ask(device_info_query), ElementsAre(2, 0x09, 1, 1, 1, 0xD0, 0, 0, 0));
    bench.ask(plain_list_query);
    EXPECT_EQ(bench.data().size(), 262U);
    EXPECT_THAT(front(bench.data(), 4), ElementsAre(3, 1, 0, 8));
}

TEST(FlashInterface, TakesAWholeImage) {
    Bench bench;
    const Image image = make_image(1, {3, 1, 7});
    EXPECT_EQ(first(bench.update(image)), 0x01);
    const auto& state = bench.printer().state();
    EXPECT_EQ(state.phase, FlashPhase::complete);
    EXPECT_EQ(zelfsim::version_text(state.components[1].current.version), "03.01.07");
    EXPECT_EQ(state.components[1].current.type, zelfsim::ComponentType::firmware);
    EXPECT_FALSE(state.components[1].current.random);
    EXPECT_EQ(bench.printer().store().image(1), image.stored());
    EXPECT_THAT(bench.workspace().read("state/devices/printer/history.tsv"),
                testing::HasSubstr("\t1\t02.10.00\t03.01.07\t5\t"));
}

TEST(FlashInterface, RunsNewMainFirmwareOnlyAfterAReset) {
    Bench bench;
    bench.update(make_image(0, {1, 5, 1}));
    EXPECT_THAT(bench.ask(level_or_stop), ElementsAre(0x05, 0x02, 0x01, 0, 0, 3, 0, 0));
    EXPECT_EQ(bench.printer().state().bcd, 0x0102);
    bench.reset();
    EXPECT_THAT(bench.ask(level_or_stop), ElementsAre(0x05, 0x05, 0x01, 0x02, 0x01, 1, 3, 0));
    EXPECT_EQ(bench.printer().state().bcd, 0x0105);
}

TEST(FlashInterface, WantsAnEraseBeforeRecordsAndChecksum) {
    Bench bench;
    const Image image = make_image(1, {3, 1, 0});
    EXPECT_EQ(first(bench.send_record(image.records[0])), 0x80);
    EXPECT_EQ(first(bench.send_checksum(image.checksum)), 0x80);
    bench.erase();
    EXPECT_EQ(first(bench.send_checksum(image.checksum)), 0x80);
    EXPECT_EQ(first(bench.send_record(image.records[0])), 0x01);
}

TEST(FlashInterface, RejectsARecordWhoseLengthsDisagree) {
    Bench bench;
    bench.erase();
    EXPECT_EQ(first(bench.ask({0x08, 0x00, 0x02, 0x00, 0x01, 0x10, 0x00, 0x00, 0xAA})), 0x80);
    EXPECT_EQ(first(bench.ask({0x07, 0x00, 0x02, 0x00, 0x01, 0x10, 0x00, 0x00})), 0x80);
    EXPECT_EQ(first(bench.ask({0x07, 0x00, 0x02, 0x00, 0x01, 0x10, 0x00, 0x00, 0xAA})), 0x01);
}

TEST(FlashInterface, RefusesRecordsOutOfTurn) {
    Bench bench;
    bench.erase();
    EXPECT_EQ(first(bench.send_record({0x10, 0, 1, 0xAA})), 0x40);
    EXPECT_EQ(first(bench.send_record({0x10, 0, 0, 0xAA})), 0x01);
    EXPECT_EQ(first(bench.send_record({0x10, 0, 0, 0xAA})), 0x40);
    EXPECT_EQ(first(bench.send_record({0x10, 0, 2, 0xAA})), 0x40);
    EXPECT_EQ(first(bench.send_record({0x10, 0, 1, 0xAA})), 0x01);
}

TEST(FlashInterface, RefusesOtherComponents) {
    Bench bench;
    bench.erase();
    EXPECT_EQ(first(bench.send_record({0x20, 0, 0, 0xAA})), 0x40) << "not on this device";
    EXPECT_EQ(first(bench.send_record({0xFF, 0, 0, 1})), 0x01);
    EXPECT_EQ(first(bench.send_record({0x00, 0, 0, 0xAA})), 0x40) << "not the image's";
    EXPECT_EQ(first(bench.send_record({0x10, 0, 0, 0xAA})), 0x01);
}

TEST(FlashInterface, RefusesAWrongChecksumAndLeavesTheComponentBroken) {
    Bench bench;
    Image image = make_image(1, {3, 1, 0});
    image.checksum ^= 1U;
    EXPECT_EQ(first(bench.update(image)), 0x40);
    EXPECT_EQ(bench.printer().state().phase, FlashPhase::idle);
    EXPECT_TRUE(bench.printer().state().components[1].broken);
    bench.ask(version_query(1));
    EXPECT_THAT(front(bench.data(), 8), ElementsAre(1, 0, 2, 0xF1, 0, 1, 0x00, 0x02))
        << "the major level alone";
    EXPECT_EQ(first(bench.ask(read_records(1))), 0x40);
    EXPECT_EQ(first(bench.update(make_image(1, {2, 0x11, 0}))), 0x01) << "recovers";
    EXPECT_FALSE(bench.printer().state().components[1].broken);
}

TEST(FlashInterface, RefusesAnImageWithoutData) {
    Bench bench;
    EXPECT_EQ(first(bench.update(make_image(1, {3, 1, 0}, 0))), 0x40);
    EXPECT_FALSE(bench.printer().state().components[1].broken);
}

TEST(FlashInterface, TakesTheLevelQueryAsStopWhileReceiving) {
    Bench bench;
    bench.erase();
    bench.send_record({0x10, 0, 0, 0xAA});
    EXPECT_THAT(bench.ask(level_or_stop), ElementsAre(0x01, 0, 0, 0, 0, 0, 0, 0));
    EXPECT_EQ(bench.printer().state().phase, FlashPhase::idle);
    EXPECT_EQ(first(bench.ask(level_or_stop)), 0x05);
    EXPECT_EQ(first(bench.send_record({0x10, 0, 1, 0xAA})), 0x80);
    EXPECT_TRUE(bench.printer().state().components[1].broken);
}

TEST(FlashInterface, KeepsTheLevelWhenAnImageCarriesNone) {
    Bench bench;
    Image image;
    image.records = {{0x10, 0, 0, 0xAA}};
    seal(image);
    EXPECT_EQ(first(bench.update(image)), 0x01);
    EXPECT_EQ(zelfsim::version_text(bench.printer().state().components[1].current.version),
              "02.10.00");
}

namespace {

struct LevelRecord {
    const char* name;
    Bytes record;
    const char* version;
};

void PrintTo(const LevelRecord& record, std::ostream* out) {
    *out << record.name;
}

class FlashInterfaceLevel : public testing::TestWithParam<LevelRecord> {};

}  // namespace

TEST_P(FlashInterfaceLevel, IsTakenFromTheImage) {
    Bench bench;
    Image image;
    image.records = {GetParam().record, {0x10, 0, 0, 0xAA}};
    seal(image);
    EXPECT_EQ(first(bench.update(image)), 0x01);
    EXPECT_EQ(zelfsim::version_text(bench.printer().state().components[1].current.version),
              GetParam().version);
}

INSTANTIATE_TEST_SUITE_P(
    Records, FlashInterfaceLevel,
    testing::Values(LevelRecord{"list", {0xFF, 0, 1, 0x01, 5, 4, 1}, "04.05.00"},
                    LevelRecord{"extended list", {0xFF, 0, 2, 1, 5, 4, 2, 6}, "04.05.06"},
                    LevelRecord{"version", {0xF1, 0, 1, 5, 4}, "04.05.00"},
                    LevelRecord{"version with build", {0xF1, 0, 2, 5, 4, 0, 6}, "04.05.06"},
                    LevelRecord{"in-line bytes", {0x1F, 0, 0, 4, 5}, "04.05.00"},
                    LevelRecord{"in-line text", {0x1F, 0, 0, '0', '4', '1', 'f'}, "04.1f.00"},
                    LevelRecord{"bad text", {0x1F, 0, 0, '0', 'x', '1', 'f'}, "02.10.00"},
                    LevelRecord{"short list", {0xFF, 0, 2, 1, 5, 4}, "02.10.00"}));

TEST(FlashInterface, TakesAnImageThatIsRedirectedToAnotherComponent) {
    Bench bench;
    Image image = make_image(0, {3, 1, 0});
    for (Bytes& record : image.records) {
        if (record[0] == 0xFF) {
            record[3] = static_cast<std::uint8_t>((record[3] & 0xF0) | 1);
        } else {
            record[0] = static_cast<std::uint8_t>(0x10 | (record[0] & 0x0F));
        }
    }
    EXPECT_EQ(first(bench.update(image)), 0x01);
    EXPECT_EQ(zelfsim::version_text(bench.printer().state().components[1].current.version),
              "03.01.00");
}

TEST(FlashInterface, ReadsBackWhatItWasSent) {
    Bench bench;
    const Image image = make_image(1, {3, 1, 0});
    bench.update(image);
    EXPECT_EQ(first(bench.ask(read_records(1))), 0x01);
    Bytes joined;
    Bytes block;
    do {
        block = bench.data();
        const std::size_t size = block[2] == 0 ? 3 : 4U + block[2];
        joined.insert(joined.end(), block.begin() + 2,
                      block.begin() + 2 + static_cast<std::ptrdiff_t>(size));
    } while ((block[0] & 1) == 0);
    EXPECT_EQ(joined, image.stored());
}

TEST(FlashInterface, ReadsBackAFactoryImageThatItTakesAgain) {
    Bench bench;
    ASSERT_EQ(first(bench.ask(read_records(1))), 0x01);
    Image image;
    Bytes block = bench.data();
    while ((block[0] & 1) == 0) {
        image.records.emplace_back(block.begin() + 3, block.begin() + 6 + block[2]);
        block = bench.data();
    }
    EXPECT_EQ(image.records.size(), 10U);
    image.checksum = static_cast<std::uint16_t>(block[3] * 256 + block[4]);
    EXPECT_EQ(first(bench.update(image)), 0x01);
    EXPECT_EQ(bench.printer().store().image(1), image.stored());
}

TEST(FlashInterface, ListsAnAllZeroEntryLast) {
    Bench bench(R"(
[[device]]
name = "printer"
vendor = 1
product = 2
[[device.interface]]
kind = "flash"
[[device.interface.component]]
id = 0
level = "00.00"
type = "unspecified"
[[device.interface.component]]
id = 1
level = "01.00"
)");
    bench.ask(extended_list);
    EXPECT_EQ(bench.data()[6], 1);
    EXPECT_EQ(bench.data()[11], 0);
}

TEST(FlashInterface, TakesItsTime) {
    Bench bench;
    const auto begin = bench.time();
    bench.erase();
    EXPECT_GE(bench.time() - begin, std::chrono::milliseconds(30));
    EXPECT_LE(bench.time() - begin, std::chrono::milliseconds(35));
}

TEST(FlashInterface, KeepsTheHostWaitingWhileItErases) {
    Bench bench;
    bench.send({0x04, 0x00, 0x01, 0x00});
    const auto begin = bench.time();
    EXPECT_EQ(bench.send(device_info_query), Completion::ok);
    EXPECT_GE(bench.time() - begin, std::chrono::milliseconds(29));
}

TEST(FlashInterface, LosesAnUnfinishedImageInAReset) {
    Bench bench;
    bench.erase();
    bench.send_record({0x00, 0, 0, 0xAA});
    bench.reset();
    EXPECT_EQ(bench.printer().state().phase, FlashPhase::idle);
    EXPECT_EQ(bench.printer().state().bcd, 0x0100);
    EXPECT_EQ(first(bench.send_record({0x00, 0, 1, 0xAA})), 0x80);
    EXPECT_THAT(bench.workspace().read("state/devices/printer/history.tsv"),
                testing::HasSubstr("\tlost\n"));
}

TEST(FlashInterface, ComesBackFromAResetUnderAnotherAddress) {
    Bench bench;
    const int before = bench.printer().address();
    bench.send({0x04, 0x00, 0x00, 0x40});
    EXPECT_FALSE(bench.printer().attached());
    EXPECT_EQ(bench.send(device_info_query), Completion::no_device);
    bench.pass(std::chrono::milliseconds(90));
    bench.printer().advance(bench.time());
    EXPECT_FALSE(bench.printer().attached());
    bench.pass(std::chrono::milliseconds(20));
    bench.printer().advance(bench.time());
    EXPECT_TRUE(bench.printer().attached());
    EXPECT_NE(bench.printer().address(), before);
    EXPECT_EQ(bench.printer().connection(), 2U);
}

TEST(FlashInterface, FailsTheResetCommandWhenToldSo) {
    Bench bench(printer_bus("reset_answer = \"gone\"\n"));
    EXPECT_EQ(bench.send({0x04, 0x00, 0x00, 0x40}), Completion::no_device);
}
