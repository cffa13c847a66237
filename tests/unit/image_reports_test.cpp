// The reports of an image: answers that are missed or come twice, and a device whose own are short.
#include "support/update_test.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

namespace {

/// Images in which an answer is missed, or comes twice.
class Answers : public Flashing {
  protected:
    Answers() {
        FirmwareBytes content("41230109");
        for (std::uint8_t i = 0; i < 5; ++i) {
            content.record(0x10, i, {i});
        }
        add_file({.level = 0x0109});
        directory.write("f0.dat", content.end());
        attach(device);
    }
    static Bytes nth_record(unsigned char n) {
        return {0x07, 0x00, 0x02, 0x00, 0x01, 0x10, 0x00, n, n};
    }
    static constexpr char doubt[] = "The result is uncertain: ";

    FlashPeripheral& device = bus.add(flash_product);
};

}  // namespace

TEST_F(Answers, OneForEachMessageLeaveNoDoubt) {
    device.next_answers[wire::erase] = {{{0x80}}, {{0x01}}};
    EXPECT_EQ(pass(), 1);
    EXPECT_EQ(device.count(wire::erase), 2);
    EXPECT_EQ(log.count(doubt), 0);
}

TEST_F(Answers, OfABrokenEndpointAreCounted) {
    // Each failed read hands over the report before it: the refused checksum counts as taken.
    device.answers[nth_record(2)] = {};
    device.answers[nth_record(3)] = {};
    device.answers[nth_record(4)] = {};
    device.answers[checksum_message] = {{0x80}};
    device.on_command = [&](const Bytes& command) {
        if (command == nth_record(2)) {
            for (int i = 0; i < 200; ++i) {
                device.report_failure(LIBUSB_ERROR_PIPE);
            }
        }
    };
    EXPECT_EQ(pass(), 1);
    EXPECT_EQ(log.count(doubt), 1);
    EXPECT_NE(log.text().find(" status reports could not be read\n"), std::string::npos);
    const std::string text = log.text();
    EXPECT_LT(text.find(doubt), text.find("COMP: 0 finished, rc=0"));
}

TEST_F(Answers, ThatComeTwiceAreCounted) {
    device.answers[nth_record(3)] = {{0x01}, {0x01}};
    EXPECT_EQ(pass(), 1);
    EXPECT_EQ(logged(std::string(doubt) + "1 status report more than messages sent"), 1);
}

TEST_F(Answers, OfAnImageThatFailedNeedNoDoubt) {
    device.answers[nth_record(3)] = {{0x80}, {0x80}};
    EXPECT_EQ(pass(), -2);
    EXPECT_EQ(log.count(doubt), 0);
}

TEST_F(Answers, OfTheImageBeforeDoNotCount) {
    device.answers[nth_record(3)] = {{0x01}, {0x01}};
    EXPECT_EQ(flash_row(0), 0);
    device.answers.clear();
    EXPECT_EQ(flash_row(0), 0);
    EXPECT_EQ(log.count(doubt), 1);
}

namespace {

/// Images for a device whose output report is short.
class ShortReport : public Flashing {
  protected:
    void set_report(int size, bool with_ids = false) {
        make_flash_device(device.usb(), with_ids, size, 32);
        add_file({.component = 1, .level = 0x0109});
        attach(device);
    }
    std::string told() {
        return console_of(1, 0, [&] { flash_row(0, 1); });
    }
    void write(const std::vector<std::size_t>& lengths) {
        FirmwareBytes content("41230109");
        for (const std::size_t length : lengths) {
            content.record(0x10, 0, std::vector<std::uint8_t>(length, 7));
        }
        directory.write("f0.dat", content.end());
    }

    FlashPeripheral& device = bus.add(flash_product);
};

}  // namespace

TEST_F(ShortReport, CutsLongRecords) {
    set_report(40);
    write({1, 32, 33, 255, 32, 34});
    EXPECT_EQ(told().find("Messages are cut short: record 3 needs 41 bytes, the device's report "
                          "holds 40 (records cut short: 3)\n"),
              0U);
}

TEST_F(ShortReport, HoldsItsSizeBesideTheReportId) {
    erase_timeout = 30;
    set_report(40, true);
    write({32});
    EXPECT_EQ(told().find("cut short"), std::string::npos);
    write({33});
    EXPECT_NE(told().find("record 1 needs 41 bytes"), std::string::npos);
}

TEST_F(ShortReport, DoesNotMatterToARecordThatIsNotSent) {
    set_report(40);
    directory.write("f0.dat", FirmwareBytes("41230109").lying_record(60, 0x10, 0, Bytes(50, 7)));
    EXPECT_EQ(told().find("cut short"), std::string::npos);
}

TEST_F(ShortReport, ThatIsMissingTakesNothing) {
    set_report(40);
    device.usb().report_descriptor.clear();
    EXPECT_EQ(told().find(
                  "The report for messages to the device is not known: without it nothing is sent\n"
                  "Erase of flash image area failed, rc=8\n"),
              0U);
}
