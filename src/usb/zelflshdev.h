/// \file
/// One enumerated USB device.
#pragma once

class USBDEV {
  public:
    /// Interfaces that are kept; further ones of a device are ignored.
    static constexpr int max_interfaces = 12;

    /// Page, usage, role and number of interface `i`; 0 (`getInterfaceNumber`: -1) when the device
    /// has no such interface. Pages of all twelve entries can be read.
    int getUsagePage(int i) const;
    int getUsage(int i) const;
    int getRole(int i) const;
    int getInterfaceNumber(int i) const;

    int hub = 0;  ///< 1 if the device is a hub
    int hubIDNumber = 0;
    int numberOfInterfaces = 0;  ///< of the last configuration read; may exceed what is kept
    int productID = 0;
    int vendorID = 0;
    int systemKeyboard = 0;
    char serialNumber[128] = {};
    int cluster = 0;
    int hubNumber = 0;  ///< number of the hub that the device hangs on
    int busNumber = 0;
    int portNumber = 0;  ///< 1-based, 0 if unknown
    int devAddress = 0;
    int versionNumber = 0;  ///< bcdDevice
    int usagePage[max_interfaces] = {};
    int usage[max_interfaces] = {};
    int role[max_interfaces] = {};
    int interface_number[max_interfaces] = {};
    char DevicePath[255] = {};

  private:
    bool hasInterface(int i) const;
};
