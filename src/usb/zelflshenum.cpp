#include "usb/zelflshenum.h"

#include "journal/output.h"
#include "usb/flshusbintf_text.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace {

constexpr int interface_string_size = 1024;

// The hub and port that a device hangs on; -1 for both when no hub names it.
struct Place {
    int hub = -1;
    int port = -1;
};

Place find_place(const USBENUM& tree, unsigned char bus, unsigned char address) {
    for (int i = 0; i < tree.hub_count; ++i) {
        const hub_port_info& hub = tree.hubs[static_cast<size_t>(i)];
        if (hub.bus_number != bus) {
            continue;
        }
        const auto* const first = std::begin(hub.portinfo.port);
        const auto* const end =
            first + std::min<size_t>(hub.portinfo.numports, std::size(hub.portinfo.port));
        const auto* const found = std::find(first, end, address);
        if (found != end) {
            return {hub.hub_number, static_cast<int>(found - first) + 1};
        }
    }
    return {};
}

void write_device_path(USBDEV& dev) {
    std::snprintf(dev.DevicePath, sizeof dev.DevicePath,
                  "//?/usb#vid_%04x&pid_%04x&ec_%04x#bus_%02d&dev_%03d#hub_%02d&port_%02d",
                  static_cast<unsigned int>(dev.vendorID), static_cast<unsigned int>(dev.productID),
                  static_cast<unsigned int>(dev.versionNumber), dev.busNumber, dev.devAddress,
                  dev.hubNumber, dev.portNumber);
}

void write_hub_path(USBDEV& dev) {
    std::snprintf(dev.DevicePath, sizeof dev.DevicePath,
                  "//?/hub#vid_%04x&pid_%04x&ec_%04x#bus_%02d&dev_%03d",
                  static_cast<unsigned int>(dev.vendorID), static_cast<unsigned int>(dev.productID),
                  static_cast<unsigned int>(dev.versionNumber), dev.busNumber, dev.devAddress);
}

}  // namespace

USBENUM::USBENUM() : intf(std::make_unique<USBINTF>()) {
    InitHubs();
}

void USBENUM::InitHubs() {
    std::fill(std::begin(hub_ids), std::end(hub_ids), hub_info{});
    total_hubs = 0;
}

int USBENUM::add_hub(int /*number*/, const char* name) {
    if (total_hubs >= max_hub_names) {
        return -1;
    }
    hub_info& entry = hub_ids[total_hubs];
    entry.hub_number = total_hubs;
    std::snprintf(entry.hub_name, sizeof entry.hub_name, "%s", name);
    return total_hubs++;
}

int USBENUM::find_hub_number(const char* name) {
    for (int i = 0; i < total_hubs; ++i) {
        if (std::strcmp(hub_ids[i].hub_name, name) == 0) {
            return hub_ids[i].hub_number;
        }
    }
    return -1;
}

USBDEV* USBENUM::getDevice(int i) {
    return i >= 0 && i < numberOfDevices ? usbdev[static_cast<size_t>(i)].get() : nullptr;
}

USBHID* USBENUM::getHidDevice(int i) {
    return i >= 0 && i < numberOfHidDevices ? usbhid[static_cast<size_t>(i)] : nullptr;
}

int USBENUM::getTotalNumberOfADevice(int productID) {
    return static_cast<int>(
        std::count_if(usbdev.begin(), usbdev.begin() + numberOfDevices,
                      [productID](const auto& dev) { return dev->productID == productID; }));
}

int USBENUM::find_device_hub(unsigned char bus, unsigned char address) {
    return find_place(*this, bus, address).hub;
}

int USBENUM::find_device_port(unsigned char bus, unsigned char address) {
    return find_place(*this, bus, address).port;
}

int USBENUM::find_keyword(const char* keyword, const char* text, int length) {
    return find_keyword_in(keyword, text, length);
}

unsigned int USBENUM::get_hex_value(const char* text, int length, int pos) {
    return hex_value_at(text, length, pos);
}

void USBENUM::DeleteRecords() {
    for (auto& dev : usbdev) {
        dev.reset();
    }
    for (USBHID*& hid : usbhid) {
        delete hid;
        hid = nullptr;
    }
    numberOfDevices = 0;
    numberOfHubs = 0;
    numberOfHidDevices = 0;
}

int USBENUM::buildTreeInformation() {
    DeleteRecords();
    libusb_device** list = nullptr;
    const ssize_t count = intf->GetDeviceList(list);
    // A list that could not be given is neither there to be walked nor to be freed.
    if (count < 0) {
        list = nullptr;
    }
    if (count > 0 && list != nullptr) {
        find_hubs(count, list);
        for (ssize_t i = 0; i < count; ++i) {
            if (list[i] != nullptr) {
                enumerate_device(list[i]);
            }
        }
    }
    for (int i = 0; i < numberOfDevices; ++i) {
        PlaceDevice(*usbdev[static_cast<size_t>(i)]);
    }
    CreateHidDeviceList();
    intf->FreeDeviceList(list);
    return 0;
}

void USBENUM::PlaceDevice(USBDEV& dev) {
    const Place place = find_place(*this, static_cast<unsigned char>(dev.busNumber),
                                   static_cast<unsigned char>(dev.devAddress));
    if (place.hub != -1) {
        dev.hubNumber = place.hub;
        dev.portNumber = place.port;
    }
    if (dev.hub == 0) {
        write_device_path(dev);
    }
}

void USBENUM::find_hubs(ssize_t count, libusb_device** list) {
    hubs.fill({});
    hub_count = 0;
    for (ssize_t i = 0; i < count && hub_count < max_hubs; ++i) {
        libusb_device_descriptor desc{};
        if (list[i] == nullptr || intf->GetDeviceDescriptor(list[i], &desc) != 0 ||
            desc.bDeviceClass != LIBUSB_CLASS_HUB) {
            continue;
        }
        hub_port_info& hub = hubs[static_cast<size_t>(hub_count++)];
        hub.vendor_id = desc.idVendor;
        hub.product_id = desc.idProduct;
        hub.hub_number = static_cast<uint8_t>(hub_count);
        hub.bus_number = intf->GetDeviceBusNumber(list[i]);
        hub.device_address = intf->GetDeviceAddress(list[i]);
        get_hub_ports(hub.bus_number, hub.device_address, &hub.portinfo);
    }
}

void USBENUM::enumerate_device(libusb_device* device) {
    // A device whose descriptor could not be read is still open.
    intf->CloseDevice();
    int rc = intf->OpenDevice(device);
    if (rc != 0) {
        writedebug("OpenDevice failed, rc=%d\n", rc);
        return;
    }
    libusb_device_descriptor desc{};
    rc = intf->GetDeviceDescriptor(&desc);
    if (rc != 0) {
        writedebug("GetDeviceDescriptor failed, rc=%d\n", rc);
        return;
    }
    auto dev = std::make_unique<USBDEV>();
    dev->vendorID = intf->GetVendorID();
    dev->productID = intf->GetProductID();
    dev->versionNumber = intf->GetVersionNumber();
    dev->busNumber = intf->GetBusNumber();
    dev->devAddress = intf->GetAddress();
    std::snprintf(dev->serialNumber, sizeof dev->serialNumber, "%s", intf->GetSerialNumber());
    if (intf->GetDeviceType() == DEVICE_TYPE_HUB) {
        dev->hub = 1;
        dev->hubNumber = ++numberOfHubs;
        dev->role[0] = 1;
        write_hub_path(*dev);
    } else {
        dev->hubNumber = numberOfHubs;
        write_device_path(*dev);
        ReadConfigurations(*dev, desc.bNumConfigurations);
    }
    if (numberOfDevices < max_devices) {
        usbdev[static_cast<size_t>(numberOfDevices++)] = std::move(dev);
    }
    intf->CloseDevice();
}

void USBENUM::ReadConfigurations(USBDEV& dev, int configurations) {
    for (int index = 0; index < configurations; ++index) {
        libusb_config_descriptor* config = nullptr;
        const int rc = intf->GetConfigDescriptor(static_cast<uint8_t>(index), &config);
        if (rc != 0 || config == nullptr) {
            writedebug("%04x:%04x - GetConfigDescriptor failed, rc=%d\n",
                       static_cast<unsigned int>(dev.vendorID),
                       static_cast<unsigned int>(dev.productID), rc);
            continue;
        }
        dev.numberOfInterfaces = config->bNumInterfaces;
        const int kept = std::min<int>(config->bNumInterfaces, USBDEV::max_interfaces);
        for (int i = 0; config->interface != nullptr && i < kept; ++i) {
            ReadInterface(dev, i, config->interface[i]);
        }
        intf->FreeConfigDescriptor(config);
    }
}

void USBENUM::ReadInterface(USBDEV& dev, int i, const libusb_interface& settings) {
    for (int k = 0; settings.altsetting != nullptr && k < settings.num_altsetting; ++k) {
        const libusb_interface_descriptor& setting = settings.altsetting[k];
        if (setting.bInterfaceClass != LIBUSB_CLASS_HID) {
            continue;
        }
        if (setting.iInterface != 0) {
            std::array<char, interface_string_size> text{};
            intf->GetStringDescriptorAscii(setting.iInterface,
                                           reinterpret_cast<unsigned char*>(text.data()),
                                           interface_string_size);
            getUsageAndUsagePage(text.data(), &dev, i);
        }
        dev.interface_number[i] = setting.bInterfaceNumber;
    }
}

void USBENUM::getUsageAndUsagePage(char* text, USBDEV* dev, int i) {
    if (i < 0 || i >= USBDEV::max_interfaces) {
        return;
    }
    const int length = static_cast<int>(std::strlen(text));
    unsigned int page = 0;
    if (const int separators = find_keyword("Usage Page", text, length); separators > 0) {
        const int value = skip_separators(text, length, separators);
        page = get_hex_value(text, length, value);
        std::fill(text + separators, text + value, ' ');
    }
    // The search is plain: it also finds the "Usage" of "Usage Page" when that comes first.
    unsigned int usage = 0;
    if (const int separators = find_keyword("Usage", text, length); separators > 0) {
        usage = get_hex_value(text, length, skip_separators(text, length, separators));
    }
    dev->usage[i] = static_cast<int>(usage);
    dev->usagePage[i] = static_cast<int>(page);
}

void USBENUM::CreateHidDeviceList() {
    for (int d = 0; d < numberOfDevices; ++d) {
        const USBDEV& dev = *usbdev[static_cast<size_t>(d)];
        const int kept = std::min(dev.numberOfInterfaces, USBDEV::max_interfaces);
        for (int i = 0; dev.hub == 0 && i < kept; ++i) {
            AppendHidDevice(dev, i);
        }
    }
}

void USBENUM::AppendHidDevice(const USBDEV& dev, int i) {
    if (numberOfHidDevices >= max_devices) {
        return;
    }
    auto hid = std::make_unique<USBHID>();
    std::snprintf(hid->DevicePath, sizeof hid->DevicePath,
                  "//?/hid#vid_%04x&pid_%04x&mi_%02d&ec_%04x#bus_%02d&dev_%03d#hub_%02d&port_%02d"
                  "#usagepage_%04x&usage_%04x",
                  static_cast<unsigned int>(dev.vendorID), static_cast<unsigned int>(dev.productID),
                  dev.getInterfaceNumber(i), static_cast<unsigned int>(dev.versionNumber),
                  dev.busNumber, dev.devAddress, dev.hubNumber, dev.portNumber,
                  static_cast<unsigned int>(dev.getUsagePage(i)),
                  static_cast<unsigned int>(dev.getUsage(i)));
    hid->VendorID = static_cast<uint16_t>(dev.vendorID);
    hid->ProductID = static_cast<uint16_t>(dev.productID);
    hid->UsagePage = static_cast<uint16_t>(dev.getUsagePage(i));
    hid->Usage = static_cast<uint16_t>(dev.getUsage(i));
    hid->VersionNumber = static_cast<uint16_t>(dev.versionNumber);
    hid->Cluster = static_cast<uint16_t>(dev.cluster);
    hid->Role = static_cast<uint16_t>(dev.getRole(i));
    hid->HubNumber = static_cast<uint16_t>(dev.hubNumber);
    hid->PortNumber = static_cast<uint16_t>(dev.portNumber);
    hid->DeviceAddress = static_cast<uint16_t>(dev.devAddress);
    std::snprintf(hid->SerialNumber, sizeof hid->SerialNumber, "%s", dev.serialNumber);
    usbhid[static_cast<size_t>(numberOfHidDevices++)] = hid.release();
}
