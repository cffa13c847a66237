#include "journal/file_handle.h"
#include "session/zelflash.h"
#include "settings.h"
#include "support/exchange.h"
#include "support/firmware_bytes.h"
#include "support/temporary_directory.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

namespace {

class Image : public Exchange {
  protected:
    Image() { open_directly(device, slot); }

    int send_file(const FirmwareBytes& file) {
        const FileHandle stream(fopen(directory.write("image.dat", file).c_str(), "rb"));
        return flash->send_firmware_file_data(stream.get(), slot);
    }

    TemporaryDirectory directory;
    FlashPeripheral& device = bus.add(0x4123);
};

FirmwareBytes two_records() {
    return FirmwareBytes("41230102")
        .record(0x12, 0x3456, {0xAA, 0xBB})
        .record(0x10, 0x0000, {0x01})
        .end(0xC0, 0xC1);
}

}  // namespace

TEST_F(Image, IsSentRecordByRecordWithItsChecksum) {
    flash->old_percentage = 44;
    EXPECT_EQ(send_file(FirmwareBytes("41230102")
                            .record(0x12, 0x3456, {0xAA, 0xBB})
                            .record(0x10, 0x0000, {0x01})
                            .end(0xC0, 0xC1)),
              0);
    EXPECT_EQ(device.commands(),
              (std::vector<Bytes>{{0x08, 0x00, 0x02, 0x00, 0x02, 0x12, 0x34, 0x56, 0xAA, 0xBB},
                                  {0x07, 0x00, 0x02, 0x00, 0x01, 0x10, 0x00, 0x00, 0x01},
                                  {0x05, 0x00, 0x02, 0x00, 0x00, 0xC0, 0xC1}}));
    EXPECT_EQ(flash->old_percentage, 0);
    EXPECT_EQ(logged("Main part of firmware update done, now sending checksum"), 1);
    EXPECT_EQ(logged("Checksums written"), 1);
}

TEST_F(Image, TheLongestRecordsCountTakesTwoBytes) {
    const std::vector<std::uint8_t> payload(255, 0x5A);
    EXPECT_EQ(send_file(FirmwareBytes("41230102").record(0x10, 1, payload).end()), 0);
    const Bytes sent = device.commands().at(0);
    ASSERT_EQ(sent.size(), 263U);
    EXPECT_EQ(Bytes(sent.begin(), sent.begin() + 9),
              (Bytes{0x05, 0x01, 0x02, 0x00, 0xFF, 0x10, 0x00, 0x01, 0x5A}));
    EXPECT_EQ(sent.back(), 0x5A);
}

TEST_F(Image, WithoutAStreamIsABadFile) {
    flash->old_percentage = 44;
    EXPECT_EQ(flash->send_firmware_file_data(nullptr, slot), 1);
    EXPECT_EQ(flash->old_percentage, 0);
    EXPECT_TRUE(device.commands().empty());
}

TEST_F(Image, ThatEndsWithoutAZeroByteIsCorrupted) {
    EXPECT_EQ(send_file(FirmwareBytes("41230102").record(0x10, 1, {1})), 14);
    EXPECT_EQ(device.commands().size(), 1U);
    EXPECT_EQ(logged("File corrupted, stopping update"), 1);
    EXPECT_EQ(log.count("now sending checksum"), 0);
}

TEST_F(Image, ThatIsNothingButAHeaderIsCorrupted) {
    EXPECT_EQ(send_file(FirmwareBytes("41230102")), 14);
    EXPECT_EQ(send_file(FirmwareBytes("")), 14);
    EXPECT_TRUE(device.commands().empty());
}

TEST_F(Image, ThatEndsRightAfterTheZeroByteIsBad) {
    EXPECT_EQ(send_file(FirmwareBytes("41230102").record(0x10, 1, {1}).raw({0})), 1);
    EXPECT_EQ(send_file(FirmwareBytes("41230102").record(0x10, 1, {1}).raw({0, 0xC0})), 1);
    EXPECT_EQ(device.commands().size(), 2U);
    EXPECT_EQ(logged("Firmware update file apparently bad"), 2);
}

TEST_F(Image, ThatEndsInsideARecordIsCorruptedAndThatRecordIsNotSent) {
    EXPECT_EQ(
        send_file(FirmwareBytes("41230102").record(0x10, 1, {1}).lying_record(9, 0x10, 2, {1, 2})),
        14);
    EXPECT_EQ(device.commands().size(), 1U);
    EXPECT_EQ(logged("File corrupted, stopping update"), 1);
}

TEST_F(Image, BadFilesAreToldOnTheConsole) {
    const std::string corrupted =
        console_of(1, 0, [this] { send_file(FirmwareBytes("41230102")); });
    EXPECT_EQ(corrupted, "\nFile corrupted, stopping update\n\n");
    const std::string bad =
        console_of(1, 0, [this] { send_file(FirmwareBytes("41230102").raw({0})); });
    EXPECT_EQ(bad, "\nFirmware update file apparently bad\n");
    EXPECT_EQ(console_of(0, 0, [this] { send_file(FirmwareBytes("41230102")); }), "");
}

TEST_F(Image, GoesOnWhateverAGoodStatusSays) {
    for (const unsigned char status : Bytes{0x00, 0x01, 0x3F}) {
        device.other_answer = {{status}};
        EXPECT_EQ(send_file(FirmwareBytes("41230102").record(0x10, 1, {1}).end()), 0) << +status;
    }
}

TEST_F(Image, StopsAtABadStatus) {
    for (const unsigned char status : Bytes{0xC0, 0x80, 0x40, 0x41}) {
        const size_t before = device.commands().size();
        device.other_answer = {{status}};
        EXPECT_EQ(send_file(two_records()), 2) << +status;
        EXPECT_EQ(device.commands().size(), before + 1);
    }
    EXPECT_EQ(logged("Bad status (c0) on write of record, stopping firmware update"), 1);
    EXPECT_EQ(logged("Bad status (41) on write of record, stopping firmware update"), 1);
}

TEST_F(Image, StopsAtAFailedTransferWithItsCode) {
    device.next_write_results = {LIBUSB_ERROR_NO_DEVICE};
    EXPECT_EQ(send_file(two_records()), 13);
    EXPECT_EQ(device.commands().size(), 1U);
    device.other_answer = {};
    device.report_failure(LIBUSB_ERROR_IO);
    EXPECT_EQ(send_file(two_records()), 7);
    EXPECT_EQ(device.commands().size(), 2U);
    EXPECT_EQ(logged("Read failed on status of command, rc=7"), 1);
}

namespace {

const Bytes checksum_message{0x05, 0x00, 0x02, 0x00, 0x00, 0xC0, 0xC1};

}  // namespace

TEST_F(Image, FailsWhenTheChecksumIsRefused) {
    device.answers[checksum_message] = {{0x80}};
    EXPECT_EQ(send_file(two_records()), 2);
    EXPECT_EQ(logged("Bad status (80) on write of checksum"), 1);
    device.answers[checksum_message] = {{0x40}};
    EXPECT_EQ(send_file(two_records()), 2);
    EXPECT_EQ(logged("Bad status (40) on write of checksum"), 1);
    EXPECT_EQ(log.count("Checksums written"), 0);
}

TEST_F(Image, FailsWhenTheChecksumsStatusCantBeRead) {
    device.answers[checksum_message] = {};
    device.on_command = [this](const Bytes& command) {
        if (command == checksum_message) {
            device.report_failure(LIBUSB_ERROR_IO);
        }
    };
    EXPECT_EQ(send_file(two_records()), 2);
    EXPECT_EQ(logged("Read of checksm write status failed"), 1);
}

TEST_F(Image, ItsBadAnswersAreToldWhenVerbose) {
    const auto failing = [this] { EXPECT_EQ(send_file(two_records()), 2); };
    const std::string records_sent = "\nMain part of firmware update done, now sending checksum\n";
    device.answers[checksum_message] = {{0xC0}};
    EXPECT_EQ(console_of(1, 0, failing), "\n");
    EXPECT_EQ(console_of(2, 1, failing), records_sent + "Bad status (c0) on write of checksum\n");
    device.answers[checksum_message] = {};
    device.on_command = [this](const Bytes& command) {
        if (command == checksum_message) {
            device.report_failure(LIBUSB_ERROR_IO);
        }
    };
    EXPECT_EQ(console_of(1, 0, failing), "\n");
    EXPECT_EQ(console_of(2, 1, failing), records_sent + "Read of checksm write status failed\n");
    device.other_answer = {{0x40}};
    EXPECT_EQ(console_of(1, 0, failing), "\n");
    EXPECT_EQ(console_of(2, 1, failing),
              "Bad status (40) on write of record, stopping firmware update\n\n");
}

TEST_F(Image, PassesAFailedWriteOfTheChecksumOn) {
    device.next_write_results = {0, 0, LIBUSB_ERROR_NO_DEVICE};
    EXPECT_EQ(send_file(two_records()), 13);
    EXPECT_EQ(log.count("checksm"), 0);
}

TEST_F(Image, TakesTheTimeOutsOfRecordsAndChecksum) {
    flash->use_thread_reading = 1;
    flash->ThreadTable[slot].device_closed = 0;
    command_timeout = 45;
    EXPECT_EQ(send_file(two_records()), 7);
    EXPECT_EQ(sleeps.count(15), 3);
    checksum_timeout = 75;
    EXPECT_EQ(send_file(FirmwareBytes("41230102").end()), 2);
    EXPECT_EQ(sleeps.count(15), 8);
}

TEST_F(Image, ForgetsEarlierReportsBeforeEachMessage) {
    flash->use_thread_reading = 1;
    flash->ThreadTable[slot].device_closed = 0;
    flash->status_ready = 1;
    int messages = 0;
    device.on_command = [this, &messages](const Bytes&) {
        ++messages;
        EXPECT_EQ(flash->status_ready, 0);
        flash->last_status[0] = 0x01;
        flash->status_ready = 1;
    };
    EXPECT_EQ(send_file(two_records()), 0);
    EXPECT_EQ(messages, 3);
}

TEST_F(Image, RecordsAreRewrittenForAnotherComponent) {
    comp_update_id = 3;
    EXPECT_EQ(send_file(FirmwareBytes("41230102")
                            .record(0x12, 0x3456, {0xAA})
                            .record(0xFF, 0x0001, {0x5A, 0x77})
                            .record(0xFF, 0x0102, {0x5A})
                            .end()),
              0);
    const std::vector<Bytes> sent = device.commands();
    ASSERT_EQ(sent.size(), 4U);
    EXPECT_EQ(sent[0], (Bytes{0x07, 0, 2, 0, 1, 0x32, 0x34, 0x56, 0xAA}));
    // A record about the whole file: its fourth byte behind the length names the component.
    EXPECT_EQ(sent[1], (Bytes{0x08, 0, 2, 0, 2, 0xFF, 0x00, 0x01, 0x53, 0x77}));
    EXPECT_EQ(sent[2], (Bytes{0x07, 0, 2, 0, 1, 0x3F, 0x01, 0x02, 0x5A}));
    EXPECT_EQ(sent[3], (Bytes{0x05, 0, 2, 0, 0, 0xAB, 0xCD}));
}

TEST_F(Image, RecordsStayAsTheyAreForComponentZero) {
    for (const int component : {-1, 0}) {
        comp_update_id = component;
        EXPECT_EQ(send_file(FirmwareBytes("41230102").record(0x12, 0x3456, {0xAA}).end()), 0);
    }
    EXPECT_EQ(device.commands().at(2), device.commands().at(0));
    EXPECT_EQ(device.commands().at(0).at(5), 0x12);
}

TEST_F(Image, ShowsTheOldProgress) {
    old_progress = 1;
    const auto action = [this] {
        EXPECT_EQ(
            send_file(FirmwareBytes("41230102").record(0x10, 0, {1}).record(0x10, 0, {1}).end()),
            0);
    };
    EXPECT_EQ(console_of(1, 0, action), "rwrw\n");
    EXPECT_EQ(console_of(0, 0, action), "");
}

TEST_F(Image, ShowsThePercentageOfItsRecords) {
    flash->send_count = 4;
    const auto action = [this] {
        EXPECT_EQ(send_file(FirmwareBytes("41230102")
                                .record(0x10, 0, {1})
                                .record(0x10, 0, {1})
                                .record(0x10, 0, {1})
                                .record(0x10, 0, {1})
                                .end()),
                  0);
    };
    EXPECT_EQ(console_of(1, 0, action), ". %50  complete\n. %100 complete\n\n");
    EXPECT_EQ(console_of(0, 0, action), "");
}

TEST_F(Image, TellsItsStagesOnTheConsoleWhenVerbose) {
    const auto good = [this] { EXPECT_EQ(send_file(FirmwareBytes("41230102").end()), 0); };
    EXPECT_EQ(console_of(1, 0, good), "\n");
    EXPECT_EQ(console_of(2, 1, good),
              "\nMain part of firmware update done, now sending checksum\nChecksums written\n");
}
