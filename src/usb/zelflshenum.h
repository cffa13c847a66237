/// \file
/// The enumeration of all USB devices: their hubs and ports, and one record per interface with the
/// path by which it is found again.
#pragma once

#include "usb/flshusbintf.h"
#include "usb/zelflshdev.h"

#include <array>
#include <cstdint>
#include <memory>

/// One HID interface as handed to the flash logic.
class USBHID {
  public:
    char DevicePath[255];
    uint16_t VendorID;
    uint16_t ProductID;
    uint16_t UsagePage;
    uint16_t Usage;
    uint16_t VersionNumber;  ///< bcdDevice
    uint16_t Cluster;
    uint16_t Role;
    uint16_t HubNumber;
    uint16_t PortNumber;
    uint16_t DeviceAddress;
    char SerialNumber[255];
};

/// The kernel's answer to the hub port request, byte for byte.
struct usb_hub_portinfo {
    uint8_t numports;
    uint8_t port[127];  ///< device address on each port, 0 where nothing is attached
};
static_assert(sizeof(usb_hub_portinfo) == 128);

struct hub_port_info {
    uint16_t vendor_id;
    uint16_t product_id;
    uint8_t hub_number;  ///< 1-based position among the hubs of the system's list
    uint8_t bus_number;
    uint8_t device_address;
    usb_hub_portinfo portinfo;
};

struct _hub_info {
    int hub_number;
    char hub_name[256];
};
using hub_info = _hub_info;

/// Asks the hub driver, by usbfs, which device addresses are on the ports of the hub at `address`.
/// Clears `portinfo` first; it stays empty when the hub can't be asked.
void get_hub_ports(int bus, int address, usb_hub_portinfo* portinfo);

class USBENUM {
  public:
    static constexpr int max_devices = 256;
    static constexpr int max_hubs = 128;
    static constexpr int max_hub_names = 30;

    USBENUM();
    /// Deletes the `USBDEV` records and the USB interface, but not the `USBHID` records: whoever
    /// took them with `getHidDevice` owns them from then on.
    ~USBENUM() = default;
    USBENUM(const USBENUM&) = delete;
    USBENUM& operator=(const USBENUM&) = delete;

    /// Enumerates the system's devices anew; the records of an earlier run are deleted, those
    /// handed out included. Devices that can't be read are logged and skipped. Returns 0.
    int buildTreeInformation();

    /// Entry `i`, or null when there is none. Valid until the next `buildTreeInformation`.
    USBDEV* getDevice(int i);
    USBHID* getHidDevice(int i);
    int getTotalNumberOfADevice(int productID);

    /// Number of the hub, or 1-based port, that the device hangs on; -1 if not found.
    int find_device_hub(unsigned char bus, unsigned char address);
    int find_device_port(unsigned char bus, unsigned char address);

    /// Appends a hub name, numbered by its position. Returns the position, -1 when the table is
    /// full. The number asked for is not heeded.
    int add_hub(int number, const char* name);
    /// Position of a hub name, -1 if absent.
    int find_hub_number(const char* name);

    std::array<std::unique_ptr<USBDEV>, max_devices> usbdev;
    int numberOfDevices = 0;
    int numberOfHubs = 0;
    int numberOfHidDevices = 0;
    hub_info hub_ids[max_hub_names];
    int total_hubs;
    int hub_count = 0;
    std::array<hub_port_info, max_hubs> hubs{};
    std::array<USBHID*, max_devices> usbhid{};
    std::unique_ptr<USBINTF> intf;

  private:
    void InitHubs();
    void find_hubs(ssize_t count, libusb_device** list);
    void enumerate_device(libusb_device* device);
    void getUsageAndUsagePage(char* text, USBDEV* dev, int i);
    int find_keyword(const char* keyword, const char* text, int length);
    unsigned int get_hex_value(const char* text, int length, int pos);
    void CreateHidDeviceList();

    void DeleteRecords();
    void PlaceDevice(USBDEV& dev);
    void ReadConfigurations(USBDEV& dev, int configurations);
    void ReadInterface(USBDEV& dev, int i, const libusb_interface& settings);
    void AppendHidDevice(const USBDEV& dev, int i);
};
