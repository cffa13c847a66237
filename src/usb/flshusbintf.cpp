#include "usb/flshusbintf.h"

#include "journal/output.h"
#include "usb/shared_field.h"

namespace {

constexpr unsigned int descriptor_timeout = 1000;

}  // namespace

USBINTF::USBINTF() {
    // Without a bound library the object stays closed, and every operation is refused.
    if (p_libusb_init != nullptr && p_libusb_init(&ctx) == 0) {
        initialized = 1;
    }
}

USBINTF::~USBINTF() {
    CloseDevice();
    if (initialized == 1) {
        p_libusb_exit(ctx);
    }
}

void USBINTF::SetDebugLevel(int level) {
    if (level != debug_level && initialized == 1) {
        p_libusb_set_debug(ctx, level);
        debug_level = level;
    }
}

void USBINTF::CopyDeviceIdentity(libusb_device* dev) {
    VendorID = descriptor.idVendor;
    ProductID = descriptor.idProduct;
    VersionNumber = descriptor.bcdDevice;
    BusNumber = GetDeviceBusNumber(dev);
    DeviceAddress = GetDeviceAddress(dev);
    if (descriptor.bDeviceClass == LIBUSB_CLASS_HUB) {
        device_type = DEVICE_TYPE_HUB;
    }
}

int USBINTF::OpenDevice(libusb_device* dev) {
    device_type = DEVICE_TYPE_NONE;
    if (handle != nullptr || dev == nullptr) {
        return not_possible;
    }
    int rc = p_libusb_open(dev, &handle);
    if (rc != 0) {
        handle = nullptr;
        writedebug("libusb_open() failed, rc=%d\n", rc);
        return rc;
    }
    if (config_descriptor_retrieved == 1) {
        FreeConfigDescriptor(config);
        config = nullptr;
        config_descriptor_retrieved = 0;
    }
    rc = GetDeviceInformation(dev);
    if (rc != 0) {
        writedebug("GetDeviceInformation() failed, rc=%d\n", rc);
        return rc;
    }
    CopyDeviceIdentity(dev);
    return 0;
}

int USBINTF::OpenDevice(unsigned short vid, unsigned short pid) {
    store_shared(intfnum, no_interface);
    if (handle != nullptr || initialized != 1) {
        return not_possible;
    }
    handle = p_libusb_open_device_with_vid_pid(ctx, vid, pid);
    if (handle == nullptr) {
        return LIBUSB_ERROR_NO_DEVICE;
    }
    if (GetDeviceInformation(GetDevice()) != 0) {
        return not_possible;
    }
    GetUsbConfig();
    return 0;
}

void USBINTF::CloseDevice() {
    if (handle != nullptr) {
        if (const uint16_t claimed = load_shared(intfnum); claimed != no_interface) {
            ReleaseInterface(claimed);
        }
        p_libusb_close(handle);
        store_shared(handle, nullptr);
        store_shared(read_dev_handle, nullptr);
        store_shared(write_dev_handle, nullptr);
    }
    if (config_descriptor_retrieved == 1) {
        FreeConfigDescriptor(config);
        config = nullptr;
        config_descriptor_retrieved = 0;
    }
}

int USBINTF::GetDeviceInformation(libusb_device* dev) {
    descriptor = {};
    return GetDeviceDescriptor(dev, &descriptor);
}

int USBINTF::GetUsbConfig() {
    if (config_descriptor_retrieved == 1) {
        FreeConfigDescriptor(config);
    }
    config = nullptr;
    config_descriptor_retrieved = 0;
    const int rc = GetActiveConfigDescriptor(&config);
    if (rc == 0 && config != nullptr) {
        config_descriptor_retrieved = 1;
    }
    return rc;
}

ssize_t USBINTF::GetDeviceList(libusb_device**& list) {
    list = nullptr;
    return initialized == 1 ? p_libusb_get_device_list(ctx, &list) : not_possible;
}

void USBINTF::FreeDeviceList(libusb_device** list) {
    constexpr int unreference_devices = 1;
    if (list != nullptr) {
        p_libusb_free_device_list(list, unreference_devices);
    }
}

libusb_device* USBINTF::GetDevice() {
    return handle != nullptr ? p_libusb_get_device(handle) : nullptr;
}

uint8_t USBINTF::GetDeviceBusNumber(libusb_device* dev) {
    return p_libusb_get_bus_number(dev);
}

uint8_t USBINTF::GetDeviceAddress(libusb_device* dev) {
    return p_libusb_get_device_address(dev);
}

int USBINTF::GetConfiguration(int* configuration) {
    return handle != nullptr ? p_libusb_get_configuration(handle, configuration) : not_possible;
}

int USBINTF::SetConfiguration(int configuration) {
    return handle != nullptr ? p_libusb_set_configuration(handle, configuration) : not_possible;
}

int USBINTF::SetInterfaceAltSetting(int alt) {
    const uint16_t claimed = load_shared(intfnum);
    if (handle == nullptr || claimed == no_interface) {
        return not_possible;
    }
    const int rc = p_libusb_set_interface_alt_setting(handle, claimed, alt);
    if (rc == 0) {
        setting_number = static_cast<uint16_t>(alt);
    }
    return rc;
}

int USBINTF::KernelDriverActive(int n) {
    return handle != nullptr ? p_libusb_kernel_driver_active(handle, n) : not_possible;
}

int USBINTF::DetachKernelDriver(int n) {
    return handle != nullptr ? p_libusb_detach_kernel_driver(handle, n) : not_possible;
}

int USBINTF::ClearHalt(unsigned char ep) {
    return handle != nullptr ? p_libusb_clear_halt(handle, ep) : not_possible;
}

int USBINTF::ResetDevice() {
    return handle != nullptr ? p_libusb_reset_device(handle) : not_possible;
}

int USBINTF::GetDeviceDescriptor(libusb_device* dev, libusb_device_descriptor* desc) {
    return dev != nullptr ? p_libusb_get_device_descriptor(dev, desc) : not_possible;
}

int USBINTF::GetDeviceDescriptor(libusb_device_descriptor* desc) {
    return GetDeviceDescriptor(GetDevice(), desc);
}

int USBINTF::GetActiveConfigDescriptor(libusb_device* dev, libusb_config_descriptor** cfg) {
    return dev != nullptr ? p_libusb_get_active_config_descriptor(dev, cfg) : not_possible;
}

int USBINTF::GetActiveConfigDescriptor(libusb_config_descriptor** cfg) {
    return GetActiveConfigDescriptor(GetDevice(), cfg);
}

int USBINTF::GetConfigDescriptor(libusb_device* dev, uint8_t index,
                                 libusb_config_descriptor** cfg) {
    return dev != nullptr ? p_libusb_get_config_descriptor(dev, index, cfg) : not_possible;
}

int USBINTF::GetConfigDescriptor(uint8_t index, libusb_config_descriptor** cfg) {
    return GetConfigDescriptor(GetDevice(), index, cfg);
}

int USBINTF::GetConfigDescriptorByValue(libusb_device* dev, uint8_t value,
                                        libusb_config_descriptor** cfg) {
    return dev != nullptr ? p_libusb_get_config_descriptor_by_value(dev, value, cfg) : not_possible;
}

void USBINTF::FreeConfigDescriptor(libusb_config_descriptor* cfg) {
    p_libusb_free_config_descriptor(cfg);
}

libusb_device* USBINTF::ReferenceDevice(libusb_device* dev) {
    return p_libusb_ref_device(dev);
}

void USBINTF::UnreferenceDevice(libusb_device* dev) {
    p_libusb_unref_device(dev);
}

int USBINTF::GetMaxPacketSize(libusb_device* dev, unsigned char ep) {
    return p_libusb_get_max_packet_size(dev, ep);
}

int USBINTF::GetDescriptor(uint8_t type, uint8_t index, unsigned char* buf, int len) {
    return ControlTransfer(LIBUSB_ENDPOINT_IN, LIBUSB_REQUEST_GET_DESCRIPTOR,
                           static_cast<uint16_t>(type << 8 | index), 0, buf,
                           static_cast<uint16_t>(len), descriptor_timeout);
}

int USBINTF::GetStringDescriptor(uint8_t index, uint16_t langid, unsigned char* buf, int len) {
    return ControlTransfer(LIBUSB_ENDPOINT_IN, LIBUSB_REQUEST_GET_DESCRIPTOR,
                           static_cast<uint16_t>(LIBUSB_DT_STRING << 8 | index), langid, buf,
                           static_cast<uint16_t>(len), descriptor_timeout);
}

int USBINTF::ReleaseInterface(int n) {
    libusb_device_handle* const device = load_shared(handle);
    if (device == nullptr) {
        return LIBUSB_ERROR_INVALID_PARAM;
    }
    store_shared(intfnum, no_interface);
    return p_libusb_release_interface(device, n);
}

int USBINTF::ControlTransfer(uint8_t bmRequestType, uint8_t bRequest, uint16_t wValue,
                             uint16_t wIndex, unsigned char* data, uint16_t wLength,
                             unsigned int timeout) {
    libusb_device_handle* const device = load_shared(handle);
    return device != nullptr ? p_libusb_control_transfer(device, bmRequestType, bRequest, wValue,
                                                         wIndex, data, wLength, timeout)
                             : not_possible;
}

int USBINTF::BulkTransfer(unsigned char endpoint, unsigned char* data, int length, int* actual,
                          unsigned int timeout) {
    libusb_device_handle* const device = load_shared(handle);
    return device != nullptr
               ? p_libusb_bulk_transfer(device, endpoint, data, length, actual, timeout)
               : not_possible;
}

int USBINTF::InterruptTransfer(unsigned char endpoint, unsigned char* data, int length, int* actual,
                               unsigned int timeout) {
    libusb_device_handle* const device = load_shared(handle);
    return device != nullptr
               ? p_libusb_interrupt_transfer(device, endpoint, data, length, actual, timeout)
               : not_possible;
}
