// A thread blocked in an interrupt read, and everything that ends it.
#include "support/bench.h"
#include "support/usb_library.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <thread>

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr unsigned day = 86400000;
constexpr milliseconds in_the_end{30000};

class BlockingRead : public testing::Test {
  protected:
    void begin(const std::string& more = "") {
        workspace.use_bus(printer_bus("driver = false\n", more));
        context = std::make_unique<UsbContext>();
        handle = context->open(printer_product);
        ASSERT_EQ(usb.claim_interface(handle, 0), 0);
    }

    void start_read(unsigned timeout) {
        read = std::async(std::launch::async, [this, timeout] {
            Read result = read_interrupt(handle, timeout);
            ended = steady_clock::now();
            return result;
        });
    }
    /// Starts a read that waits for long, and gives it time to block.
    void block() {
        start_read(day);
        ASSERT_EQ(read.wait_for(milliseconds(100)), std::future_status::timeout);
    }

    Read finish() {
        if (read.wait_for(in_the_end) != std::future_status::ready) {
            ADD_FAILURE() << "the read still blocks";
            usb.close(handle);
        }
        return read.get();
    }

    const UsbLibrary& usb = UsbLibrary::get();
    Workspace workspace;
    std::unique_ptr<UsbContext> context;
    libusb_device_handle* handle = nullptr;
    std::future<Read> read;
    steady_clock::time_point ended;
};

}  // namespace

TEST_F(BlockingRead, EndsWithData) {
    begin();
    block();
    EXPECT_EQ(send_command(handle, {0x03, 0, 0, 0, 0x01}), 5);
    const Read result = finish();
    EXPECT_EQ(result.code, 0);
    EXPECT_EQ(result.data.size(), 8U);
    usb.close(handle);
}

TEST_F(BlockingRead, EndsWithItsTimeOut) {
    begin();
    const auto start = steady_clock::now();
    start_read(300);
    EXPECT_EQ(finish().code, LIBUSB_ERROR_TIMEOUT);
    EXPECT_GE(ended - start, milliseconds(299));
    usb.close(handle);
}

TEST_F(BlockingRead, EndsWhenTheInterfaceIsReleased) {
    begin();
    block();
    EXPECT_EQ(usb.release_interface(handle, 0), 0);
    EXPECT_EQ(finish().code, LIBUSB_ERROR_NO_DEVICE);
    usb.close(handle);
}

TEST_F(BlockingRead, EndsWhenTheInterfaceIsReleasedAndClaimedAtOnce) {
    begin();
    block();
    EXPECT_EQ(usb.release_interface(handle, 0), 0);
    EXPECT_EQ(usb.claim_interface(handle, 0), 0);
    EXPECT_EQ(finish().code, LIBUSB_ERROR_NO_DEVICE);
    usb.close(handle);
}

TEST_F(BlockingRead, EndsWhenTheHandleIsClosed) {
    begin();
    block();
    usb.close(handle);
    EXPECT_EQ(finish().code, LIBUSB_ERROR_NO_DEVICE);
}

TEST_F(BlockingRead, EndsWhenTheDeviceResets) {
    begin();
    block();
    EXPECT_EQ(send_command(handle, {0x04, 0, 0, 0x40}), 4);
    EXPECT_EQ(finish().code, LIBUSB_ERROR_NO_DEVICE);
    usb.close(handle);
}

TEST_F(BlockingRead, EndsWhenTheDeviceIsUnpluggedLater) {
    begin("\n[[fault]]\ndevice = \"printer\"\nat = \"erase\"\naction = \"unplug\"\nms = 15\n");
    block();
    EXPECT_EQ(send_command(handle, {0x04, 0, 0x01, 0}), 4);
    EXPECT_EQ(finish().code, LIBUSB_ERROR_NO_DEVICE);
    usb.close(handle);
}

TEST_F(BlockingRead, GetsALateAnswerWhenItIsDue) {
    begin("\n[[fault]]\ndevice = \"printer\"\nat = \"device-info\"\naction = \"late\"\nms = 400\n");
    block();
    const auto start = steady_clock::now();
    EXPECT_EQ(send_command(handle, {0x03, 0, 0, 0, 0x01}), 5);
    EXPECT_EQ(finish().code, 0);
    EXPECT_GE(ended - start, milliseconds(399));
    usb.close(handle);
}

TEST_F(BlockingRead, FindsWhatWasWaitingBeforeIt) {
    begin();
    EXPECT_EQ(send_command(handle, {0x03, 0, 0, 0, 0x01}), 5);
    std::this_thread::sleep_for(milliseconds(20));
    EXPECT_EQ(read_interrupt(handle, 1).code, 0);
    EXPECT_EQ(read_interrupt(handle, 1).code, LIBUSB_ERROR_TIMEOUT);
    usb.close(handle);
}

TEST_F(BlockingRead, DoesNotHoldUpOtherThreads) {
    workspace.use_bus(printer_bus("driver = false\n"));
    const UsbContext shared;
    std::atomic<int> good{0};
    constexpr int thread_count = 4;
    std::vector<std::thread> threads;
    threads.reserve(thread_count);
    for (int number = 0; number < thread_count; ++number) {
        threads.emplace_back([&] {
            const UsbContext own;
            for (int round = 0; round < 20; ++round) {
                libusb_device_handle* mine = own.open(printer_product);
                std::array<unsigned char, 64> text{};
                good += usb.get_string_descriptor_ascii(mine, 3, text.data(), 64) == 3 ? 1 : 0;
                usb.claim_interface(mine, 0);
                read_interrupt(mine, 1);
                usb.close(mine);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(good, 80);
}
