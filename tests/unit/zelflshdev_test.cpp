#include "usb/zelflshdev.h"

#include <gtest/gtest.h>

TEST(UsbDevice, StartsAtZero) {
    const USBDEV dev;
    EXPECT_EQ(dev.hub, 0);
    EXPECT_EQ(dev.numberOfInterfaces, 0);
    EXPECT_EQ(dev.portNumber, 0);
    EXPECT_STREQ(dev.serialNumber, "");
    EXPECT_STREQ(dev.DevicePath, "");
    EXPECT_EQ(dev.usage[11], 0);
    EXPECT_EQ(dev.interface_number[11], 0);
}

TEST(UsbDevice, GivesTheFieldsOfTheInterfacesThatItHas) {
    USBDEV dev;
    dev.numberOfInterfaces = 2;
    for (int i = 0; i < 3; ++i) {
        dev.usagePage[i] = 100 + i;
        dev.usage[i] = 200 + i;
        dev.role[i] = 300 + i;
        dev.interface_number[i] = 400 + i;
    }
    EXPECT_EQ(dev.getUsagePage(1), 101);
    EXPECT_EQ(dev.getUsage(1), 201);
    EXPECT_EQ(dev.getRole(1), 301);
    EXPECT_EQ(dev.getInterfaceNumber(1), 401);

    EXPECT_EQ(dev.getUsagePage(2), 102);
    EXPECT_EQ(dev.getUsage(2), 0);
    EXPECT_EQ(dev.getRole(2), 0);
    EXPECT_EQ(dev.getInterfaceNumber(2), -1);
}

TEST(UsbDevice, NeverLooksPastTheTwelfthInterface) {
    USBDEV dev;
    dev.numberOfInterfaces = 255;
    dev.usage[11] = 5;
    EXPECT_EQ(dev.getUsage(11), 5);
    for (const int i : {-1, 12, 200}) {
        EXPECT_EQ(dev.getUsagePage(i), 0);
        EXPECT_EQ(dev.getUsage(i), 0);
        EXPECT_EQ(dev.getRole(i), 0);
        EXPECT_EQ(dev.getInterfaceNumber(i), -1);
    }
}
