#include "model/device/descriptors.h"

#include "model/bus_file/bus_file.h"
#include "support/bench.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using testing::ElementsAre;
using testing::ElementsAreArray;
using zelfsim::Bytes;
using zelfsim::Completion;
using Request = zelfsim::Setup;

zelfsim::DeviceDescription device_of(const std::string& text) {
    const Workspace workspace;
    const auto bus = zelfsim::read_bus_file(workspace.write("bus.toml", text));
    return bus.devices.at(1);
}

constexpr const char* keyboard = R"(
[[device]]
name = "keyboard"
vendor = 0x7A01
product = 0x3C02
serial = "K€1"
[[device.interface]]
kind = "keyboard"
[[device.interface]]
kind = "flash"
report_ids = true
out_packet = 16
number = 5
feature_usage = 0x1603
[[device.interface.component]]
id = 0
level = "01.07"
)";

}  // namespace

TEST(Descriptors, DescribeTheDevice) {
    EXPECT_THAT(zelfsim::device_descriptor(device_of(keyboard), 0x0107),
                ElementsAre(18, 1, 0x10, 0x01, 0, 0, 0, 64, 0x01, 0x7A, 0x02, 0x3C, 0x07, 0x01, 1,
                            2, 3, 1));
}

TEST(Descriptors, DescribeTheConfigurationWithHidAndEndpoints) {
    const auto device = device_of(keyboard);
    const std::size_t keys = zelfsim::report_descriptor(device, device.interfaces[0]).size();
    const std::size_t flash = zelfsim::report_descriptor(device, device.interfaces[1]).size();
    const Bytes expected{
        9,  2,    66,   0,    2,  1, 0,    0x80,
        50,  //
        9,  4,    0,    0,    1,  3, 1,    1,
        0,  //
        9,  0x21, 0x11, 0x01, 0,  1, 0x22, static_cast<std::uint8_t>(keys),
        0,                                //
        7,  5,    0x81, 3,    8,  0, 10,  //
        9,  4,    5,    0,    2,  3, 0,    0,
        5,  //
        9,  0x21, 0x11, 0x01, 0,  1, 0x22, static_cast<std::uint8_t>(flash),
        0,                                //
        7,  5,    0x82, 3,    64, 0, 10,  //
        7,  5,    0x02, 3,    16, 0, 10,
    };
    EXPECT_EQ(zelfsim::configuration_descriptor(device), expected);
}

TEST(Descriptors, DescribeTheFlashReports) {
    const auto device = device_of(keyboard);
    EXPECT_THAT(
        zelfsim::report_descriptor(device, device.interfaces[1]),
        ElementsAreArray(Bytes{0x06, 0x45, 0xFF, 0x0A, 0x00, 0xA0, 0xA1, 0x01, 0x15, 0x00, 0x26,
                               0xFF, 0x00, 0x75, 0x08,                                      //
                               0x85, 0x01, 0x0A, 0x01, 0xA0, 0x96, 0x07, 0x01, 0x91, 0x02,  //
                               0x85, 0x02, 0x0A, 0x02, 0xA0, 0x96, 0x08, 0x00, 0x81, 0x02,  //
                               0x85, 0x03, 0x0A, 0x03, 0x16, 0x96, 0x05, 0x01, 0xB1, 0x02, 0xC0}));
}

TEST(Descriptors, GiveStringsInEnglishOnly) {
    const auto device = device_of(keyboard);
    EXPECT_THAT(*zelfsim::string_descriptor(device, 0, 0), ElementsAre(4, 3, 0x09, 0x04));
    EXPECT_THAT(*zelfsim::string_descriptor(device, 3, 0x0409),
                ElementsAre(8, 3, 'K', 0, 0xAC, 0x20, '1', 0));
    EXPECT_FALSE(zelfsim::string_descriptor(device, 3, 0x0407));
    EXPECT_FALSE(zelfsim::string_descriptor(device, 4, 0x0409)) << "the keys have no string";
    EXPECT_TRUE(zelfsim::string_descriptor(device, 5, 0x0409));
    EXPECT_FALSE(zelfsim::string_descriptor(device, 6, 0x0409));
    EXPECT_FALSE(zelfsim::string_descriptor(device, 255, 0x0409));
}

namespace {

/// How the device answers a request from the host.
zelfsim::Reply request(Bench& bench, Request setup, const Bytes& out = {}) {
    return bench.printer().control(setup, out, std::chrono::seconds(1), bench.time());
}

}  // namespace

TEST(Requests, GiveDescriptorsCutToTheLengthAskedFor) {
    Bench bench;
    EXPECT_EQ(request(bench, {0x80, 6, 0x0100, 0, 8}).data.size(), 8U);
    EXPECT_EQ(request(bench, {0x80, 6, 0x0200, 0, 255}).data.size(), 34U);
    EXPECT_EQ(request(bench, {0x81, 6, 0x2100, 0, 255}).data.size(), 9U);
    EXPECT_EQ(request(bench, {0x80, 6, 0x0300, 0, 255}).data.size(), 4U);
}

TEST(Requests, StallWhatTheDescriptorsDoNotPromise) {
    Bench bench;
    const std::vector<Request> unknown{
        {0x80, 6, 0x0600, 0, 10},  {0x80, 6, 0x0201, 0, 9},   {0x80, 6, 0x0363, 0x0409, 255},
        {0x81, 6, 0x2200, 3, 100}, {0x81, 6, 0x2300, 0, 100}, {0xA1, 1, 0x0301, 0, 100},
        {0xA1, 1, 0x0300, 1, 100}, {0xA1, 7, 0x0300, 0, 100}, {0x21, 9, 0x0300, 0, 0},
        {0x21, 9, 0x0201, 0, 0},   {0x21, 9, 0x0200, 1, 0},   {0x40, 1, 0, 0, 0},
        {0xC0, 1, 0, 0, 8},        {0x00, 9, 2, 0, 0},
    };
    for (const Request& setup : unknown) {
        EXPECT_EQ(request(bench, setup).completion, Completion::stall)
            << std::hex << int{setup.type} << ' ' << int{setup.request} << ' ' << setup.value;
    }
}

TEST(Requests, AnswerTheOrdinaryOnes) {
    Bench bench;
    EXPECT_THAT(request(bench, {0x80, 8, 0, 0, 1}).data, ElementsAre(1));
    EXPECT_THAT(request(bench, {0x80, 0, 0, 0, 2}).data, ElementsAre(0, 0));
    EXPECT_THAT(request(bench, {0x81, 10, 0, 0, 1}).data, ElementsAre(0));
    EXPECT_EQ(request(bench, {0x00, 9, 1, 0, 0}).completion, Completion::ok);
    EXPECT_EQ(request(bench, {0x21, 10, 0, 0, 0}).completion, Completion::ok);
}

TEST(Requests, StallTheDataReportUnderAnotherUsage) {
    Bench bench(printer_bus("feature_usage = 0x1603\n"));
    const Bytes report = request(bench, {0x81, 6, 0x2200, 0, 255}).data;
    const Bytes usage{0x0A, 0x03, 0x16};
    EXPECT_NE(std::search(report.begin(), report.end(), usage.begin(), usage.end()), report.end());
    EXPECT_EQ(request(bench, {0xA1, 1, 0x0300, 0, 261}).data.size(), 261U);
}
