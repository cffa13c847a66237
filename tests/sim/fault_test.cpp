// Faults of the bus file, at the model.
#include "support/bench.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>

namespace {

using testing::ElementsAre;
using zelfsim::Completion;
using Request = zelfsim::Setup;

const Request device_descriptor{0x80, 6, 0x0100, 0, 18};

struct TransferFault {
    const char* action;
    Completion completion;
};

void PrintTo(const TransferFault& fault, std::ostream* out) {
    *out << fault.action;
}

class FaultAtTransfer : public testing::TestWithParam<TransferFault> {};

}  // namespace

TEST_P(FaultAtTransfer, EndsTheCommandsTransferAndIsNotCarriedOut) {
    Bench bench(printer_with_fault(std::string("at = \"erase\"\naction = \"") + GetParam().action +
                                   "\"\n"));
    EXPECT_EQ(bench.send({0x04, 0x00, 0x01, 0x00}), GetParam().completion);
    EXPECT_EQ(bench.printer().state().phase, zelfsim::FlashPhase::idle);
    EXPECT_TRUE(bench.status(std::chrono::milliseconds(100)).empty());
}

TEST_P(FaultAtTransfer, EndsAnInterruptRead) {
    Bench bench(printer_with_fault(std::string("at = \"interrupt\"\naction = \"") +
                                   GetParam().action + "\"\n"));
    ASSERT_EQ(bench.send(device_info_query), Completion::ok);
    bench.pass(std::chrono::milliseconds(10));
    const auto reply = bench.printer().interrupt_in(0x81, 64, bench.time());
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->completion, GetParam().completion);
}

INSTANTIATE_TEST_SUITE_P(Actions, FaultAtTransfer,
                         testing::Values(TransferFault{"unplug", Completion::no_device},
                                         TransferFault{"stall", Completion::stall},
                                         TransferFault{"timeout", Completion::timeout},
                                         TransferFault{"io-error", Completion::io_error},
                                         TransferFault{"overflow", Completion::overflow},
                                         TransferFault{"crash", Completion::crash}));

TEST(Fault, StrikesOnceAtTheNumberGiven) {
    Bench bench(printer_with_fault("at = \"device-info\"\nnumber = 2\naction = \"reject\"\n"));
    EXPECT_EQ(bench.ask(device_info_query)[0], 0x09);
    EXPECT_EQ(bench.ask(device_info_query)[0], 0x80);
    EXPECT_EQ(bench.ask(device_info_query)[0], 0x09);
}

TEST(Fault, StrikesFromTheNumberOnWhenAlways) {
    Bench bench(printer_with_fault(
        "at = \"device-info\"\nnumber = 2\naction = \"reject\"\ntimes = \"always\"\n"));
    EXPECT_EQ(bench.ask(device_info_query)[0], 0x09);
    EXPECT_EQ(bench.ask(device_info_query)[0], 0x80);
    EXPECT_EQ(bench.ask(device_info_query)[0], 0x80);
    bench.reload();
    EXPECT_EQ(bench.ask(device_info_query)[0], 0x09) << "counts from the start of the process";
    EXPECT_EQ(bench.ask(device_info_query)[0], 0x80);
}

TEST(Fault, StrikesOnceInTheLifeOfTheState) {
    Bench bench(printer_with_fault("at = \"device-info\"\naction = \"reject\"\n"));
    EXPECT_EQ(bench.ask(device_info_query)[0], 0x80);
    bench.reload();
    EXPECT_EQ(bench.ask(device_info_query)[0], 0x09);
}

TEST(Fault, CountsImageRecordsFromEachErase) {
    Bench bench(printer_with_fault(
        "at = \"record\"\nnumber = 2\naction = \"operation-error\"\ntimes = \"always\"\n"));
    for (int round = 0; round < 2; ++round) {
        bench.erase();
        EXPECT_EQ(bench.send_record({0x10, 0, 0, 1})[0], 0x01);
        EXPECT_EQ(bench.send_record({0x10, 0, 1, 1})[0], 0x40);
    }
}

TEST(Fault, LooksAtTheComponentOfTheImage) {
    Bench bench(printer_with_fault("at = \"record\"\ncomponent = 1\naction = \"reject\"\n"));
    bench.erase();
    EXPECT_EQ(bench.send_record({0x00, 0, 0, 1})[0], 0x01);
    bench.erase();
    EXPECT_EQ(bench.send_record({0xFF, 0, 0, 1})[0], 0x80);
}

TEST(Fault, SendsASignalOnceAndLetsTheTransferGoOn) {
    Bench bench(
        printer_with_fault("at = \"device-info\"\naction = \"signal\"\nsignal = \"SIGTERM\"\n"
                           "ms = 5\n"));
    EXPECT_FALSE(bench.printer().take_signal());
    EXPECT_EQ(bench.ask(device_info_query)[0], 0x09);
    const auto signal = bench.printer().take_signal();
    ASSERT_TRUE(signal);
    EXPECT_EQ(signal->number, SIGTERM);
    EXPECT_EQ(signal->delay, std::chrono::milliseconds(5));
    EXPECT_FALSE(bench.printer().take_signal());
    EXPECT_EQ(bench.ask(device_info_query)[0], 0x09);
    EXPECT_FALSE(bench.printer().take_signal());
}

TEST(Fault, SendsASignalWithTheReportThatIsRead) {
    Bench bench(
        printer_with_fault("at = \"interrupt\"\naction = \"signal\"\nsignal = \"SIGINT\"\n"));
    EXPECT_EQ(bench.ask(device_info_query)[0], 0x09);
    EXPECT_TRUE(bench.printer().take_signal());
}

TEST(Fault, LooksAtTheFirstByteOfACommand) {
    Bench bench(
        printer_with_fault("at = \"command\"\nbyte = 0x06\naction = \"operation-error\"\n"));
    EXPECT_EQ(bench.ask(device_info_query)[0], 0x09);
    EXPECT_EQ(bench.ask(plain_list_query)[0], 0x40);
}

TEST(Fault, GivesTheStatusOfTheFile) {
    Bench bench(
        printer_with_fault("at = \"device-info\"\naction = \"answer\"\nbytes = \"09 FF 01\"\n"));
    EXPECT_THAT(bench.ask(device_info_query), ElementsAre(9, 0xFF, 1));
}

TEST(Fault, GivesTheDataOfTheFile) {
    Bench bench(
        printer_with_fault("at = \"component-list\"\naction = \"data\"\nbytes = \"01 00 0A\"\n"));
    EXPECT_EQ(bench.ask(plain_list_query)[0], 0x01);
    EXPECT_EQ(bench.data()[2], 0x0A);
    EXPECT_EQ(bench.data()[6], 0);
}

TEST(Fault, AnswersLate) {
    Bench bench(printer_with_fault("at = \"device-info\"\naction = \"late\"\nms = 500\n"));
    const auto begin = bench.time();
    EXPECT_EQ(bench.ask(device_info_query)[0], 0x09);
    EXPECT_GE(bench.time() - begin, std::chrono::milliseconds(500));
}

TEST(Fault, SendsAStatusThatNobodyAskedForBehindTheAnswer) {
    Bench bench(
        printer_with_fault("at = \"device-info\"\naction = \"unasked\"\nms = 500\n"
                           "bytes = \"40 77\"\n"));
    const auto begin = bench.time();
    EXPECT_EQ(bench.ask(device_info_query)[0], 0x09);
    EXPECT_LT(bench.time() - begin, std::chrono::milliseconds(500));
    EXPECT_THAT(bench.status(std::chrono::milliseconds(600)), ElementsAre(0x40, 0x77));
    EXPECT_GE(bench.time() - begin, std::chrono::milliseconds(500));
    EXPECT_TRUE(bench.status(std::chrono::milliseconds(600)).empty());
}

TEST(Fault, SendsAStatusThatNobodyAskedForAheadOfTheAnswer) {
    Bench bench(
        printer_with_fault("at = \"erase\"\naction = \"unasked\"\nbytes = \"01 77\"\n"
                           "answer_ms = 700\n"));
    const auto begin = bench.time();
    EXPECT_THAT(bench.erase(), ElementsAre(0x01, 0x77));
    EXPECT_EQ(bench.printer().state().phase, zelfsim::FlashPhase::erased);
    EXPECT_EQ(bench.status(std::chrono::milliseconds(2000))[0], 0x01);
    EXPECT_GE(bench.time() - begin, std::chrono::milliseconds(700));
}

TEST(Fault, NeverAnswers) {
    Bench bench(printer_with_fault("at = \"erase\"\naction = \"no-answer\"\n"));
    EXPECT_TRUE(bench.erase().empty());
    EXPECT_EQ(bench.printer().state().phase, zelfsim::FlashPhase::idle);
}

TEST(Fault, UnplugsLaterAndReplugs) {
    Bench bench(
        printer_with_fault("at = \"erase\"\naction = \"unplug\"\nms = 20\nreplug_ms = 50\n"));
    const int address = bench.printer().address();
    EXPECT_EQ(bench.send({0x04, 0x00, 0x01, 0x00}), Completion::ok);
    EXPECT_EQ(bench.printer().state().phase, zelfsim::FlashPhase::erased);
    ASSERT_TRUE(bench.printer().next_event());
    bench.pass(std::chrono::milliseconds(25));
    bench.printer().advance(bench.time());
    EXPECT_FALSE(bench.printer().attached());
    bench.pass(std::chrono::milliseconds(50));
    bench.printer().advance(bench.time());
    EXPECT_TRUE(bench.printer().attached());
    EXPECT_NE(bench.printer().address(), address);
}

TEST(Fault, TakesTheDevicesOfAHubAlong) {
    Bench bench(printer_bus("",
                            "\n[[fault]]\ndevice = \"root\"\nat = \"get-descriptor\"\n"
                            "action = \"unplug\"\nreplug_ms = 50\n"));
    zelfsim::Bus bus(zelfsim::BusFiles{bench.workspace().bus(), "", ""});
    const auto time = zelfsim::now();
    bus.find("root")->control(device_descriptor, {}, std::chrono::seconds(1), time);
    EXPECT_TRUE(bus.present(time).empty());
    EXPECT_EQ(bus.present(time + std::chrono::milliseconds(60)).size(), 2U);
}

TEST(Fault, ShortensAndEmptiesWhatIsRead) {
    Bench shortened(
        printer_with_fault("at = \"get-descriptor\"\naction = \"short\"\nlength = 5\n"));
    EXPECT_EQ(shortened.printer()
                  .control(device_descriptor, {}, std::chrono::seconds(1), shortened.time())
                  .data.size(),
              5U);
    Bench emptied(printer_with_fault("at = \"interrupt\"\naction = \"empty\"\n"));
    emptied.send(device_info_query);
    emptied.pass(std::chrono::milliseconds(10));
    const auto reply = emptied.printer().interrupt_in(0x81, 64, emptied.time());
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->completion, Completion::ok);
    EXPECT_TRUE(reply->data.empty());
}

TEST(Fault, ReplacesADescriptor) {
    Bench bench(
        printer_with_fault("at = \"report-descriptor\"\naction = \"answer\"\nbytes = \"0102\"\n"));
    const Request setup{0x81, 6, 0x2200, 0, 100};
    EXPECT_THAT(bench.printer().control(setup, {}, std::chrono::seconds(1), bench.time()).data,
                ElementsAre(1, 2));
}

TEST(Fault, HaltsTheEndpointUntilItIsCleared) {
    Bench bench(printer_with_fault("at = \"interrupt\"\naction = \"stall\"\n"));
    bench.send(device_info_query);
    bench.send(device_info_query);
    bench.pass(std::chrono::milliseconds(10));
    EXPECT_EQ(bench.printer().interrupt_in(0x81, 64, bench.time())->completion, Completion::stall);
    EXPECT_EQ(bench.printer().interrupt_in(0x81, 64, bench.time())->completion, Completion::stall);
    bench.printer().clear_halt(0x81);
    EXPECT_EQ(bench.printer().interrupt_in(0x81, 64, bench.time())->completion, Completion::ok);
}

TEST(Fault, OverflowsWhenAReportDoesNotFit) {
    Bench bench;
    bench.send(device_info_query);
    bench.pass(std::chrono::milliseconds(10));
    EXPECT_EQ(bench.printer().interrupt_in(0x81, 4, bench.time())->completion,
              Completion::overflow);
}

TEST(Fault, IsRecorded) {
    Bench bench(printer_with_fault("at = \"record\"\nnumber = 1\naction = \"reject\"\n"));
    bench.erase();
    bench.send_record({0x10, 0, 0, 1});
    const auto lines = read_record(bench.workspace().record());
    ASSERT_EQ(count_kind(lines, "fault"), 1);
    for (const Transfer& line : lines) {
        if (line.kind == "fault") {
            EXPECT_EQ(line.setup, "record#1:reject");
            EXPECT_EQ(line.device, "printer");
        }
    }
}
