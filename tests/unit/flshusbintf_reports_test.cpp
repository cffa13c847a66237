// A claimed interface: its endpoints, and the reports of its report descriptor.
#include "support/usb_interface.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

using testing::ElementsAre;

TEST_F(UsbInterface, LearnsEndpointsAndReportsOfAClaimedInterface) {
    claim(flash_device());
    EXPECT_EQ(intf().intfnum, 0);
    EXPECT_EQ(intf().EndpointIndex, 1);
    EXPECT_EQ(intf().Endpoints[0].Address, 0x81);
    EXPECT_EQ(intf().Endpoints[0].Attributes, 3);
    EXPECT_EQ(intf().Endpoints[0].MaxPacketSize, 64);
    EXPECT_EQ(intf().InterruptEndpointIn, 0x81);
    EXPECT_EQ(intf().InterruptEndpointInSize, 64);
    EXPECT_EQ(intf().InterruptEndpointOut, 0);
    ASSERT_EQ(intf().OutputReportCount, 1);
    EXPECT_EQ(intf().OutputReports[0]->Usage, 0xA001);
    EXPECT_EQ(intf().OutputReports[0]->UsagePage, 0xFF45);
    EXPECT_EQ(intf().OutputReports[0]->Size, 263);
    EXPECT_EQ(intf().InputReportCount, 1);
    EXPECT_EQ(intf().FeatureReportCount, 2);
    EXPECT_EQ(intf().ReportIdUsed, 0);
    EXPECT_EQ(log.text(),
              "3:Report Counts: Input=1, Output=1, Feature=2\n"
              "3:Input Reports: 1\n3:    ReportID: 00  Usage=ff45:a002  Size=8\n"
              "3:Output Reports: 1\n3:    ReportID: 00  Usage=ff45:a001  Size=263\n"
              "3:Feature Reports: 2\n3:    ReportID: 00  Usage=ff45:a003  Size=32\n"
              "3:    ReportID: 00  Usage=ff45:1603  Size=32\n"
              "3:Endpoints: 1\n3:0:  Address=81  Attributes=03  MaxPacketSize=64\n");
}

TEST_F(UsbInterface, AsksTheInterfaceForItsReportDescriptor) {
    FakeUsbDevice& device = claim(flash_device());
    const FakeControl& control = usb.controls.back();
    EXPECT_EQ(control.type, 0x81);
    EXPECT_EQ(control.request, 6);
    EXPECT_EQ(control.value, 0x2200);
    EXPECT_EQ(control.index, 0);
    EXPECT_EQ(control.length, device.report_descriptor.size());
    EXPECT_EQ(control.timeout, 5000U);
}

TEST_F(UsbInterface, KnowsThatReportIdsAreUsed) {
    FakeUsbDevice& device = flash_device();
    make_flash_device(device, true);
    claim(device);
    EXPECT_EQ(intf().ReportIdUsed, 1);
    EXPECT_EQ(intf().FeatureReports[1]->ReportID, 3);
}

TEST_F(UsbInterface, KnowsThatReportIdsAreUsedByOneReportAmongOthers) {
    FakeUsbDevice& device = flash_device();
    device.report_descriptor =
        join({item(0x74, {8}), item(0x94, {4}), item(0x84, {1}), item(0x08, {1}), item(0x80, {2}),
              item(0x84, {0}), item(0x08, {2}), item(0xB0, {2})});
    claim(device);
    ASSERT_EQ(intf().FeatureReportCount, 1);
    EXPECT_EQ(intf().FeatureReports[0]->ReportID, 0);
    EXPECT_EQ(intf().ReportIdUsed, 1);
}

TEST_F(UsbInterface, ParsesOnlyTheBytesThatWereReceived) {
    FakeUsbDevice& device = flash_device();
    device.report_descriptor =
        join({item(0x74, {8}), item(0x94, {4}), item(0x08, {1}), item(0x90, {2})});
    device.configurations[0].interfaces[0][0].extra = hid_descriptor(40);
    // What an earlier request may have left: two-byte items, a usage and an input report.
    const Bytes earlier = join({item(0x08, {5}), item(0x80, {2})});
    for (size_t i = 0; i < 40; ++i) {
        intf().HidReport[i] = earlier[i % earlier.size()];
    }
    claim(device);
    EXPECT_EQ(intf().OutputReportCount, 1);
    EXPECT_EQ(intf().InputReportCount, 0);
}

TEST_F(UsbInterface, DetachesTheDriverOfABusyInterface) {
    FakeUsbDevice& device = flash_device();
    device.claim_rcs = {LIBUSB_ERROR_BUSY, 0};
    claim(device);
    EXPECT_THAT(usb.calls(),
                ElementsAre("open 17", "active configuration", "claim 0", "detach 0", "claim 0"));
}

TEST_F(UsbInterface, StaysUnclaimedWhenTheDriverDoesNotLetGo) {
    FakeUsbDevice& device = flash_device();
    device.claim_rcs = {LIBUSB_ERROR_BUSY, 0};
    device.detach_rc = -12;
    ASSERT_EQ(open(flash_path(device)), 0);
    EXPECT_EQ(intf().ClaimInterface(0), LIBUSB_ERROR_BUSY);
    EXPECT_EQ(intf().intfnum, 0xBAD);
    EXPECT_EQ(device.claim_rcs.size(), 1U);
}

TEST_F(UsbInterface, PassesOnAFailedClaim) {
    FakeUsbDevice& device = flash_device();
    device.claim_rcs = {LIBUSB_ERROR_NO_DEVICE, LIBUSB_ERROR_BUSY, LIBUSB_ERROR_OTHER};
    ASSERT_EQ(open(flash_path(device)), 0);
    EXPECT_EQ(intf().ClaimInterface(0), LIBUSB_ERROR_NO_DEVICE);
    EXPECT_EQ(intf().ClaimInterface(0), LIBUSB_ERROR_OTHER);
    EXPECT_EQ(intf().intfnum, 0xBAD);
}

TEST_F(UsbInterface, ClaimsWithoutAConfigurationButLearnsNothing) {
    FakeUsbDevice& device = flash_device();
    device.config_rc = -5;
    claim(device);
    EXPECT_EQ(intf().intfnum, 0);
    EXPECT_EQ(intf().EndpointIndex, 0);
    EXPECT_EQ(intf().OutputReportCount, 0);
}

TEST_F(UsbInterface, ReadsAnInterfaceWithoutInterruptEndpointFourTimes) {
    FakeUsbDevice& device = flash_device();
    libusb_endpoint_descriptor control_endpoint = interrupt_endpoint(0x02, 8);
    control_endpoint.bmAttributes = ENDPOINT_TT_CONTROL;
    device.configurations[0].interfaces[0][0].endpoints = {control_endpoint};
    claim(device);
    for (const char* count : {"0", "1", "2"}) {
        EXPECT_EQ(log.count(std::string("3:Reading USB information again (count=") + count + ")\n"),
                  1);
    }
    EXPECT_EQ(log.count("Reading USB information again"), 3);
    EXPECT_EQ(intf().EndpointIndex, 4);
    EXPECT_EQ(intf().OutputReportCount, 4);
    EXPECT_EQ(intf().intfnum, 0);
    EXPECT_EQ(usb.live_configurations, 1);
}

TEST_F(UsbInterface, StopsReadingAgainWhenTheConfigurationIsGone) {
    FakeUsbDevice& device = flash_device();
    libusb_endpoint_descriptor control_endpoint = interrupt_endpoint(0x02, 8);
    control_endpoint.bmAttributes = ENDPOINT_TT_CONTROL;
    device.configurations[0].interfaces[0][0].endpoints = {control_endpoint};
    ASSERT_EQ(open(flash_path(device)), 0);
    device.config_rc = -4;
    EXPECT_EQ(intf().ClaimInterface(0), 0);
    EXPECT_EQ(log.count("Reading USB information again"), 1);
    EXPECT_EQ(intf().config_descriptor_retrieved, 0);
}

TEST_F(UsbInterface, ReadsAnInterfaceWithoutEndpointsOnce) {
    FakeUsbDevice& device = flash_device();
    device.configurations[0].interfaces[0][0].endpoints.clear();
    claim(device);
    EXPECT_EQ(log.count("3:Endpoints: 0\n"), 1);
    EXPECT_EQ(log.count("Reading USB information again"), 0);
}

TEST_F(UsbInterface, ReadsNoEndpointsThatAreCountedButNotListed) {
    FakeUsbDevice& device = flash_device();
    FakeSetting& setting = device.configurations[0].interfaces[0][0];
    setting.endpoints = {interrupt_endpoint(0x81, 64), interrupt_endpoint(0x02, 64)};
    setting.hides_endpoints = true;
    claim(device);
    EXPECT_EQ(log.count("3:Endpoints: 2\n"), 1);
    EXPECT_EQ(intf().EndpointIndex, 0);
}

TEST_F(UsbInterface, ClaimsAnInterfaceThatTheConfigurationDoesNotHave) {
    FakeUsbDevice& device = flash_device();
    ASSERT_EQ(open(flash_path(device)), 0);
    EXPECT_EQ(intf().ClaimInterface(7), 0);
    EXPECT_EQ(intf().intfnum, 7);
    EXPECT_EQ(intf().EndpointIndex, 0);
    device.configurations[0].interfaces = {{}, {}};
    ASSERT_EQ(intf().GetUsbConfig(), 0);
    EXPECT_EQ(intf().ClaimInterface(0), 0);
    device.configurations[0].interfaces.clear();
    ASSERT_EQ(intf().GetUsbConfig(), 0);
    EXPECT_EQ(intf().ClaimInterface(0), 0);
    EXPECT_EQ(intf().EndpointIndex, 0);
}

TEST_F(UsbInterface, UsesNoAlternateSettingThatIsNotThere) {
    FakeUsbDevice& device = flash_device();
    ASSERT_EQ(open(flash_path(device)), 0);
    intf().setting_number = 1;
    EXPECT_EQ(intf().ClaimInterface(0), 0);
    EXPECT_EQ(intf().EndpointIndex, 0);
    EXPECT_EQ(intf().OutputReportCount, 0);
}

// What stands behind the last setting is a whole one, so that a step too far would show.
TEST_F(UsbInterface, UsesNoSettingBehindTheLastOne) {
    FakeUsbDevice& device = flash_device();
    auto& settings = device.configurations[0].interfaces[0];
    settings.push_back(settings[0]);
    ASSERT_EQ(open(flash_path(device)), 0);
    auto* const listed = const_cast<libusb_interface*>(intf().config->interface);
    ASSERT_EQ(listed->num_altsetting, 2);
    listed->num_altsetting = 1;
    intf().setting_number = 1;
    EXPECT_EQ(intf().ClaimInterface(0), 0);
    listed->num_altsetting = 2;
    EXPECT_EQ(intf().EndpointIndex, 0);
    EXPECT_EQ(intf().OutputReportCount, 0);
}

TEST_F(UsbInterface, TellsTheSizeOfAnOutputReport) {
    FakeUsbDevice& device = flash_device();
    EXPECT_EQ(intf().GetOutputReportSize(0xFF45, 0xA001), 0);
    claim(device);
    EXPECT_EQ(intf().GetOutputReportSize(0xFF45, 0xA001), 263);
    EXPECT_EQ(intf().GetOutputReportSize(0xFF45, 0xA002), 0);
    EXPECT_EQ(intf().GetOutputReportSize(0xFF46, 0xA001), 0);
}

TEST_F(UsbInterface, UsesTheChosenAlternateSetting) {
    FakeUsbDevice& device = flash_device();
    FakeSetting second = device.configurations[0].interfaces[0][0];
    second.endpoints = {interrupt_endpoint(0x83, 0x1840), interrupt_endpoint(0x04, 8)};
    device.configurations[0].interfaces[0].push_back(second);
    ASSERT_EQ(open(flash_path(device)), 0);
    intf().setting_number = 1;
    EXPECT_EQ(intf().ClaimInterface(0), 0);
    EXPECT_EQ(intf().InterruptEndpointIn, 0x83);
    EXPECT_EQ(intf().Endpoints[0].MaxPacketSize, 0x40);
    EXPECT_EQ(intf().InterruptEndpointOut, 0x04);
    EXPECT_EQ(intf().InterruptEndpointOutSize, 8);
}

// An interface counts as HID by any of its settings, its reports by the one that is used.
TEST_F(UsbInterface, ReadsNoReportsOfASettingThatIsNotHid) {
    FakeUsbDevice& device = flash_device();
    FakeSetting vendor = device.configurations[0].interfaces[0][0];
    vendor.interface_class = LIBUSB_CLASS_VENDOR_SPEC;
    auto& settings = device.configurations[0].interfaces[0];
    settings.insert(settings.begin(), vendor);
    claim(device);
    EXPECT_EQ(intf().InterruptEndpointIn, 0x81);
    EXPECT_EQ(intf().OutputReportCount, 0);
    EXPECT_EQ(log.count("Report Counts"), 0);
}

TEST_F(UsbInterface, TakesAnyEndpointButAControlEndpointForAnInterruptEndpoint) {
    for (const int type : {ENDPOINT_TT_ISOCHRONOUS, ENDPOINT_TT_BULK, ENDPOINT_TT_INTERRUPT}) {
        object.reset();
        usb.devices.clear();
        FakeUsbDevice& device = flash_device();
        libusb_endpoint_descriptor in = interrupt_endpoint(0x85, 16);
        libusb_endpoint_descriptor out = interrupt_endpoint(0x06, 32);
        // The bits above the transfer type do not count.
        in.bmAttributes = out.bmAttributes = static_cast<uint8_t>(0x30 | type);
        device.configurations[0].interfaces[0][0].endpoints = {in, out};
        claim(device);
        EXPECT_EQ(intf().InterruptEndpointIn, 0x85) << type;
        EXPECT_EQ(intf().InterruptEndpointInSize, 16);
        EXPECT_EQ(intf().InterruptEndpointOut, 0x06);
        EXPECT_EQ(intf().InterruptEndpointOutSize, 32);
    }
}

TEST_F(UsbInterface, IsContentWithAnOutEndpointAlone) {
    FakeUsbDevice& device = flash_device();
    device.configurations[0].interfaces[0][0].endpoints = {interrupt_endpoint(0x02, 32)};
    claim(device);
    EXPECT_EQ(intf().InterruptEndpointOut, 0x02);
    EXPECT_EQ(intf().InterruptEndpointIn, 0);
    EXPECT_EQ(log.count("Reading USB information again"), 0);
}

TEST_F(UsbInterface, CountsTheEndpointsAnewAtEachClaimButKeepsTheReports) {
    claim(flash_device());
    EXPECT_EQ(intf().ClaimInterface(0), 0);
    EXPECT_EQ(intf().EndpointIndex, 1);
    EXPECT_EQ(intf().OutputReportCount, 2);
}

TEST_F(UsbInterface, KeepsTenEndpointsAndTheLowByteOfTheirSize) {
    FakeUsbDevice& device = flash_device();
    auto& endpoints = device.configurations[0].interfaces[0][0].endpoints;
    endpoints.clear();
    for (uint8_t i = 1; i <= 11; ++i) {
        endpoints.push_back(interrupt_endpoint(static_cast<uint8_t>(0x80 | i), 0x0140));
    }
    claim(device);
    EXPECT_EQ(intf().EndpointIndex, 10);
    EXPECT_EQ(intf().InterruptEndpointIn, 0x8A);
    EXPECT_EQ(intf().Endpoints[9].MaxPacketSize, 0x140);
    EXPECT_EQ(intf().InterruptEndpointInSize, 0x40);
}

// --- report descriptors ---

class HidDescriptor : public UsbInterface {
  protected:
    // How many bytes of report descriptors were asked for, by one claim each.
    std::vector<int> requested(const Bytes& extra) {
        FakeUsbDevice& device = flash_device();
        device.configurations[0].interfaces[0][0].extra = extra;
        claim(device);
        std::vector<int> lengths;
        for (const FakeControl& control : usb.controls) {
            if (control.value == 0x2200) {
                lengths.push_back(control.length);
            }
        }
        return lengths;
    }
};

TEST_F(HidDescriptor, MayAskFor8192Bytes) {
    EXPECT_THAT(requested(hid_descriptor(8192)), ElementsAre(8192));
}

TEST_F(HidDescriptor, IsNotFollowedTo8193Bytes) {
    EXPECT_THAT(requested(hid_descriptor(8193)), ElementsAre());
}

TEST_F(HidDescriptor, IsFoundBehindOthers) {
    EXPECT_THAT(requested(join({{3, 0x30, 0}, {2, 0x31}, hid_descriptor(10)})), ElementsAre(10));
}

TEST_F(HidDescriptor, IsTheFirstOfSeveral) {
    EXPECT_THAT(requested(join({hid_descriptor(10), hid_descriptor(11)})), ElementsAre(10));
}

TEST_F(HidDescriptor, ListsReportDescriptorsAmongOthers) {
    EXPECT_THAT(requested({15, 0x21, 0x11, 1, 0, 3, 0x22, 10, 0, 0x23, 20, 0, 0x22, 30, 0}),
                ElementsAre(10, 30));
}

TEST_F(HidDescriptor, IsReadOnlyAsFarAsThereAreBytes) {
    EXPECT_THAT(requested({9, 0x21, 0x11, 1, 0, 255, 0x22, 10, 0, 0x22, 10}), ElementsAre(10));
}

TEST_F(HidDescriptor, MayBeCutBeforeItsCount) {
    EXPECT_THAT(requested({9, 0x21, 0x11, 1, 0}), ElementsAre());
}

TEST_F(HidDescriptor, MayBeCutBehindItsCount) {
    EXPECT_THAT(requested({9, 0x21, 0x11, 1, 0, 1}), ElementsAre());
}

TEST_F(HidDescriptor, IsNotLookedForBehindALengthBelowTwo) {
    EXPECT_THAT(requested(join({{1, 0x30}, hid_descriptor(10)})), ElementsAre());
}

TEST_F(HidDescriptor, IsNotLookedForBeyondTheEnd) {
    EXPECT_THAT(requested({255, 0x30, 9, 0x21, 0x11, 1, 0, 1, 0x22, 10, 0}), ElementsAre());
}

TEST_F(HidDescriptor, MayBeMissing) {
    EXPECT_THAT(requested({}), ElementsAre());
    EXPECT_EQ(intf().InterruptEndpointIn, 0x81);
}

TEST_F(UsbInterface, LearnsNoReportsWithoutAReportDescriptor) {
    FakeUsbDevice& device = flash_device();
    device.report_descriptor.clear();
    claim(device);
    EXPECT_EQ(intf().OutputReportCount, 0);
    EXPECT_EQ(log.count("Report Counts"), 0);
}

namespace {

/// A main item that makes reports, and the count of those that it makes.
struct KindOfReport {
    const char* name;
    uint8_t prefix;
    int USBINTF::*count;
};

class ReportTableOf : public UsbInterface, public testing::WithParamInterface<KindOfReport> {};

INSTANTIATE_TEST_SUITE_P(Each, ReportTableOf,
                         testing::Values(KindOfReport{"Inputs", 0x80, &USBINTF::InputReportCount},
                                         KindOfReport{"Outputs", 0x90, &USBINTF::OutputReportCount},
                                         KindOfReport{"Features", 0xB0,
                                                      &USBINTF::FeatureReportCount}),
                         [](const auto& given) { return given.param.name; });

TEST_P(ReportTableOf, DropsThe97th) {
    FakeUsbDevice& device = flash_device();
    std::vector<Bytes> parts{item(0x74, {8}), item(0x94, {1})};
    for (int i = 0; i < 3; ++i) {
        parts.insert(parts.end(),
                     {item(0x18, {1}), item(0x28, {32}), item(GetParam().prefix, {2})});
    }
    device.report_descriptor = join(parts);
    // The same reports twice: 96 and 96 again.
    device.configurations[0].interfaces[0][0].extra = {12,   0x21, 0x11, 1,    0,  2,
                                                       0x22, 22,   0,    0x22, 22, 0};
    ASSERT_EQ(device.report_descriptor.size(), 22U);
    claim(device);
    EXPECT_EQ(intf().*GetParam().count, 96);
    EXPECT_EQ(log.count("    ReportID:"), 96);
}

TEST_F(UsbInterface, KeepsTheSizeOfAReportThatNoTransferCanCarry) {
    FakeUsbDevice& device = flash_device();
    device.report_descriptor =
        join({item(0x74, {8}), item(0x94, {0, 0, 1, 0}), item(0x08, {1}), item(0x90, {2})});
    device.configurations[0].interfaces[0][0].extra =
        hid_descriptor(static_cast<int>(device.report_descriptor.size()));
    claim(device);
    EXPECT_EQ(intf().OutputReports[0]->Size, 0xFFFF);
}

}  // namespace
