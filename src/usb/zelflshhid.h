/// \file
/// The handle through which the flash logic talks to one HID interface named by a device path.
#pragma once

#include "usb/flshusbintf.h"

#include <cstdint>
#include <memory>

/// Results of `HIDDEVICE2`'s transfers.
constexpr int hid_success = 0;
constexpr int hid_read_failed = 7;
constexpr int hid_write_failed = 8;
constexpr int hid_set_feature_failed = 11;
constexpr int hid_get_feature_failed = 12;
constexpr int hid_device_gone = 13;

/// The mark of a handle that is not open, beside null: -1.
libusb_device_handle* closed_hid_handle();

/// One HID interface, opened on construction (test `OpenRc`).
///
/// The transfers take the usage page and usage of the report that they address, a buffer and its
/// length in bytes, and return one of the codes above; every failure is logged.
///
/// The main thread writes, exchanges features and closes the handles while one background reader
/// may be inside `Read`. Closing the read handle ends that read; destroy the object only when the
/// reader has left.
class HIDDEVICE2 {
  public:
    /// Opens the device that `devicePath` names. Vendor and product ID are for the log only; both
    /// may be 0.
    HIDDEVICE2(unsigned short vendorID, unsigned short productID, const char* devicePath);
    ~HIDDEVICE2();
    HIDDEVICE2(const HIDDEVICE2&) = delete;
    HIDDEVICE2& operator=(const HIDDEVICE2&) = delete;

    /// Logs a device that is not open; it has no other effect.
    void SetDeviceInfo(const char* path);

    /// Opens the read handle (mode "r") or the write handle ("w") of a flash interface. Returns 0,
    /// also when the handle could not be had (see `GetReadHandle`), or 1 when the device is not
    /// open or no flash interface; handles that were open are then closed.
    int OpenDevice(const unsigned char* mode);

    /// The handle, or -1 when it is not open.
    libusb_device_handle* GetReadHandle();
    libusb_device_handle* GetWriteHandle();
    void CloseReadHandle();
    void CloseWriteHandle();

    /// Waits for one input report and copies what fits. Success with an untouched buffer when the
    /// read handle can't be opened. Returns 0, 7 or 13; 13 also when another thread has closed the
    /// read handle.
    int Read(unsigned short usagePage, unsigned short usage, char* buffer, unsigned short length);
    /// Sends an output report. Returns 0, 8 or 13. The reset command counts as sent in any case:
    /// the device drops off the bus as it resets.
    int Write(unsigned short usagePage, unsigned short usage, char* buffer, unsigned short length);
    /// Sends a feature report, 0 only when all `length` bytes went out; else 11 or 13.
    int SetFeature(unsigned short usagePage, unsigned short usage, char* buffer,
                   unsigned short length);
    /// Fetches a feature report. Returns 0 when anything came, else 12 or 13.
    int GetFeature(unsigned short usagePage, unsigned short usage, char* buffer,
                   unsigned short length);

    libusb_device_handle* handle = nullptr;  ///< not used
    libusb_device_handle* ReadHandle;
    libusb_device_handle* WriteHandle;
    std::unique_ptr<USBINTF> intf;  ///< deleted, and so closed, with this object
    int OpenRc = -1;                ///< -1 while constructing, 0 opened, 1 opening failed
    uint16_t VendorID;
    uint16_t ProductID;
    uint16_t VersionNumber = 0;  ///< bcdDevice
    uint16_t Usage = 0;          ///< not set
    uint16_t UsagePage = 0;      ///< not set
    char DevicePath[255] = {};
    char SerialNumber[500] = {};

  private:
    bool IsFlashInterfaceOpen() const;
    int ReceiveReport(unsigned char* buffer, int length, int& transferred);
};
