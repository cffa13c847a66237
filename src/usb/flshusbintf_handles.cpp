// One reader and one writer share the device handle; the interface is claimed by the first of them
// and released when the last has closed.
#include "usb/flshusbintf.h"
#include "usb/shared_field.h"

libusb_device_handle* USBINTF::OpenSide(libusb_device_handle*& side) {
    libusb_device_handle* const opened = load_shared(side);
    if (handle == nullptr) {
        return opened;
    }
    if (load_shared(intfnum) == no_interface && config_descriptor_retrieved == 1 &&
        ClaimInterface(Interface) != 0) {
        return opened;
    }
    if (opened != nullptr) {
        return opened;
    }
    store_shared(side, handle);
    return handle;
}

void USBINTF::CloseSide(libusb_device_handle*& side, libusb_device_handle*& other) {
    if (load_shared(side) == nullptr) {
        return;
    }
    const uint16_t claimed = load_shared(intfnum);
    if (load_shared(other) == nullptr && claimed != no_interface) {
        ReleaseInterface(claimed);
    }
    store_shared(side, nullptr);
}

libusb_device_handle* USBINTF::OpenReadHandle() {
    return OpenSide(read_dev_handle);
}

libusb_device_handle* USBINTF::OpenWriteHandle() {
    return OpenSide(write_dev_handle);
}

void USBINTF::CloseReadHandle() {
    CloseSide(read_dev_handle, write_dev_handle);
}

void USBINTF::CloseWriteHandle() {
    CloseSide(write_dev_handle, read_dev_handle);
}
