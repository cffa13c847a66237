/// \file
/// The interface to one USB device: open, descriptors, claim, report layout and HID transfers.
#pragma once

#include "usb/zelhidlib.h"

#include <array>
#include <cstdint>
#include <memory>

// Report types (HID 1.11, section 7.2.1).
constexpr int LIBHID_RT_INPUT = 1;
constexpr int LIBHID_RT_OUTPUT = 2;
constexpr int LIBHID_RT_FEATURE = 3;

// Class requests (HID 1.11, section 7.2).
constexpr int LIBHID_REQUEST_GET_REPORT = 1;
constexpr int LIBHID_REQUEST_GET_IDLE = 2;
constexpr int LIBHID_REQUEST_GET_PROTOCOL = 3;
constexpr int LIBHID_REQUEST_SET_REPORT = 9;
constexpr int LIBHID_REQUEST_SET_IDLE = 10;
constexpr int LIBHID_REQUEST_SET_PROTOCOL = 11;

// Transfer types of an endpoint's attributes (USB 2.0, table 9-13).
constexpr int ENDPOINT_TT_MASK = 3;
constexpr int ENDPOINT_TT_CONTROL = 0;
constexpr int ENDPOINT_TT_ISOCHRONOUS = 1;
constexpr int ENDPOINT_TT_BULK = 2;
constexpr int ENDPOINT_TT_INTERRUPT = 3;

constexpr int DEVICE_TYPE_NONE = 0;
constexpr int DEVICE_TYPE_HID = 1;
constexpr int DEVICE_TYPE_USB = 2;
constexpr int DEVICE_TYPE_HUB = 3;

/// The result of an operation that the present state does not allow.
constexpr int not_possible = LIBUSB_ERROR_INVALID_PARAM;

/// No interface is claimed, or none was found.
constexpr uint16_t no_interface = 0xBAD;

struct Endpoint {
    uint8_t Address;
    uint8_t Attributes;
    uint16_t MaxPacketSize;  ///< low 11 bits of wMaxPacketSize
};

struct Report {
    uint8_t ReportID;
    uint16_t UsagePage;
    uint16_t Usage;
    uint16_t Size;  ///< data bytes, without the report ID byte
};

/// One USB device with its own libusb context.
///
/// Operations return libusb's codes: 0 or a count on success, negative on failure.
/// `LIBUSB_ERROR_INVALID_PARAM` (-2) also means that the operation is not possible in the present
/// state: no handle, no claimed interface, no endpoint.
///
/// One background reader may be inside `HidInterruptRead` while the main thread sends, closes the
/// read and write handles and so releases the interface. Everything else belongs to the main
/// thread; destroy the object only when the reader has left.
class USBINTF {
  public:
    static constexpr int max_reports = 96;
    static constexpr int max_endpoints = 10;
    static constexpr int max_report_descriptor = 8192;
    using ReportTable = std::array<std::unique_ptr<Report>, max_reports>;

    USBINTF();
    ~USBINTF();
    USBINTF(const USBINTF&) = delete;
    USBINTF& operator=(const USBINTF&) = delete;

    /// Gives `level` to libusb when it differs from the last one given.
    void SetDebugLevel(int level);

    /// Opens a device of `GetDeviceList` and reads its device descriptor, not its configuration.
    /// -2 when a device is open already. After a failed descriptor the device stays open.
    int OpenDevice(libusb_device* dev);
    /// Opens the first device with these IDs; -4 when there is none.
    int OpenDevice(unsigned short vid, unsigned short pid);
    /// Opens the device that the path names by bus, address, vendor and product, and reads its
    /// active configuration. -2 when none matches, else the last open error.
    int OpenDevice(char* path);
    /// Releases the interface, closes the device and frees the configuration descriptor.
    void CloseDevice();

    /// Reads the device descriptor of `dev` into `descriptor`.
    int GetDeviceInformation(libusb_device* dev);
    /// Reads the active configuration into `config`; one that was there is freed.
    int GetUsbConfig();
    /// Claims interface `n` (detaching a kernel driver that keeps it busy), and learns its
    /// endpoints and reports. A device that shows no interrupt endpoint is read up to four times.
    int ClaimInterface(int n);
    int ReleaseInterface(int n);
    /// Position of the first HID interface whose string carries usage 0xA000, 0xBAD when none.
    int GetFlashInterface();
    /// The device's serial number, "NO SERIAL NUMBER" when it has none. Owned by this object.
    char* GetSerialNumber();
    /// Reads string descriptor `index` (USB 2.0, section 9.6.7) in US English as at most `len` - 1
    /// characters and a NUL; what is not Latin-1 becomes '?'. Returns the character count, a
    /// transfer result below 1, or -1 for an answer that is no string descriptor.
    int GetStringDescriptorAscii(unsigned char index, unsigned char* buf, int len);

    // Thin wrappers of the libusb functions. Those without a device argument act on the open
    // device and return -2 (`GetDevice`: null) when none is open.
    ssize_t GetDeviceList(libusb_device**& list);
    /// Frees a list and unreferences its devices. A null list is ignored.
    void FreeDeviceList(libusb_device** list);
    libusb_device* GetDevice();
    uint8_t GetDeviceBusNumber(libusb_device* dev);
    uint8_t GetDeviceAddress(libusb_device* dev);
    int GetConfiguration(int* configuration);
    int SetConfiguration(int configuration);
    int SetInterfaceAltSetting(int alt);
    int KernelDriverActive(int n);
    int DetachKernelDriver(int n);
    int ClearHalt(unsigned char ep);
    int ResetDevice();
    int GetDeviceDescriptor(libusb_device* dev, libusb_device_descriptor* desc);
    int GetDeviceDescriptor(libusb_device_descriptor* desc);
    int GetActiveConfigDescriptor(libusb_device* dev, libusb_config_descriptor** cfg);
    int GetActiveConfigDescriptor(libusb_config_descriptor** cfg);
    int GetConfigDescriptor(libusb_device* dev, uint8_t index, libusb_config_descriptor** cfg);
    int GetConfigDescriptor(uint8_t index, libusb_config_descriptor** cfg);
    int GetConfigDescriptorByValue(libusb_device* dev, uint8_t value,
                                   libusb_config_descriptor** cfg);
    void FreeConfigDescriptor(libusb_config_descriptor* cfg);
    libusb_device* ReferenceDevice(libusb_device* dev);
    void UnreferenceDevice(libusb_device* dev);
    int GetMaxPacketSize(libusb_device* dev, unsigned char ep);
    /// GET_DESCRIPTOR (USB 2.0, section 9.4.3) with a second's time-out; the bytes received.
    int GetDescriptor(uint8_t type, uint8_t index, unsigned char* buf, int len);
    int GetStringDescriptor(uint8_t index, uint16_t langid, unsigned char* buf, int len);

    /// Time-outs are milliseconds. Returns the bytes transferred.
    int ControlTransfer(uint8_t bmRequestType, uint8_t bRequest, uint16_t wValue, uint16_t wIndex,
                        unsigned char* data, uint16_t wLength, unsigned int timeout);
    /// Returns 0 and the bytes transferred in `actual`.
    int BulkTransfer(unsigned char endpoint, unsigned char* data, int length, int* actual,
                     unsigned int timeout);
    int InterruptTransfer(unsigned char endpoint, unsigned char* data, int length, int* actual,
                          unsigned int timeout);

    /// Sends an output report (HID 1.11, section 7.2.2). The report's ID is put in front when the
    /// device uses IDs. Returns the data bytes sent; a result that differs from what was sent is
    /// libusb's. The first report of the run with another usage than 0xA001 waits up to a second
    /// for the device's first answer and is sent again when that is late.
    int HidSetOutputReport(unsigned short usagePage, unsigned short usage, unsigned char* data,
                           unsigned short length, unsigned int timeout);
    /// As above by ID: always the report's whole size, the rest zeros, and no ID byte.
    int HidSetOutputReport(unsigned char reportID, unsigned char* data, unsigned short length,
                           unsigned int timeout);
    /// Waits for one packet of the interrupt IN endpoint. Copies at most `length` data bytes;
    /// `actual` is the packet's data length, `reportID` its ID or 0. An empty packet gives -7.
    int HidInterruptRead(unsigned char* data, int length, int* actual, unsigned char* reportID,
                         unsigned int timeout);
    int HidInterruptWrite(unsigned char* data, int length, int* actual, unsigned int timeout);
    /// GET_REPORT (HID 1.11, section 7.2.1) into the caller's buffer, as it comes.
    int HidGetInputReport(unsigned char reportID, unsigned char* data, unsigned short length,
                          unsigned int timeout);
    int HidGetInputReport(unsigned short usagePage, unsigned short usage, unsigned char* data,
                          unsigned short length, unsigned int timeout);
    int HidGetFeatureReport(unsigned char reportID, unsigned char* data, unsigned short length,
                            unsigned int timeout);
    /// Gets the whole feature report and copies what fits into `length` bytes, without the ID
    /// byte when the device uses IDs. Returns the bytes received with the ID byte.
    int HidGetFeatureReport(unsigned short usagePage, unsigned short usage, unsigned char* data,
                            unsigned short length, unsigned int timeout);
    /// Sends the caller's buffer as it is, cut to the report's size.
    int HidSetFeatureReport(unsigned char reportID, unsigned char* data, unsigned short length,
                            unsigned int timeout);
    int HidSetFeatureReport(unsigned short usagePage, unsigned short usage, unsigned char* data,
                            unsigned short length, unsigned int timeout);
    /// Sends one flash output report on the flash interface, claimed for this report only, and
    /// from then on treats the device as one without report IDs. Returns 0 when all went out.
    int WriteFlashInterface(unsigned char* data, unsigned short length, unsigned int timeout);

    /// The handle for a reader or a writer; the first of the two claims the path's interface.
    /// Null when that fails or no device is open.
    libusb_device_handle* OpenReadHandle();
    libusb_device_handle* OpenWriteHandle();
    /// Gives the handle back; the second of the two releases the interface.
    void CloseReadHandle();
    void CloseWriteHandle();

    int GetDeviceType() const { return device_type; }
    uint16_t GetVendorID() const { return VendorID; }
    uint16_t GetProductID() const { return ProductID; }
    uint16_t GetVersionNumber() const { return VersionNumber; }
    uint8_t GetBusNumber() const { return BusNumber; }
    uint8_t GetAddress() const { return DeviceAddress; }
    uint16_t GetUsagePage() const { return UsagePage; }
    uint16_t GetUsage() const { return Usage; }
    /// Data bytes of the first output report with this usage; 0 when there is none.
    uint16_t GetOutputReportSize(unsigned short usagePage, unsigned short usage) const;

    libusb_context* ctx = nullptr;
    libusb_device_handle* handle = nullptr;
    libusb_device_handle* read_dev_handle = nullptr;
    libusb_device_handle* write_dev_handle = nullptr;
    libusb_device_descriptor descriptor{};
    libusb_config_descriptor* config = nullptr;  ///< owned while it is retrieved
    int device_type = DEVICE_TYPE_NONE;
    uint16_t intfnum = no_interface;  ///< claimed interface number
    uint16_t setting_number = 0;      ///< alternate setting used
    int initialized = 0;              ///< 1 when `ctx` was created
    int debug_level = 0;
    int config_descriptor_retrieved = 0;
    int descriptor_retrieved = 0;  ///< nothing reads it
    /// Cleared before each output report, set by each interrupt read with data; unlocked.
    int interrupt_response = 0;
    std::array<uint8_t, max_report_descriptor> HidReport{};  ///< raw report descriptor
    int EndpointIndex = 0;
    std::array<Endpoint, max_endpoints> Endpoints{};
    uint8_t InterruptEndpointIn = 0;
    uint8_t InterruptEndpointInSize = 0;  ///< low 8 bits of the packet size
    uint8_t InterruptEndpointOut = 0;
    uint8_t InterruptEndpointOutSize = 0;
    int InputReportCount = 0;
    ReportTable InputReports;
    int OutputReportCount = 0;
    ReportTable OutputReports;
    int FeatureReportCount = 0;
    ReportTable FeatureReports;
    int ReportIdUsed = 0;  ///< 1 when any report has an ID
    char DevicePath[255] = {};
    char SerialNumber[255] = {};
    uint16_t VendorID = 0;
    uint16_t ProductID = 0;
    uint16_t VersionNumber = 0;
    uint8_t Interface = 0;  ///< interface number from the path
    uint8_t BusNumber = 0;
    uint8_t DeviceAddress = 0;
    uint8_t HubNumber = 0;
    uint8_t PortNumber = 0;
    uint16_t UsagePage = 0;  ///< from the path
    uint16_t Usage = 0;      ///< from the path

  private:
    void GetEndpoints(const libusb_endpoint_descriptor* ep);
    void GetHidReportData(const libusb_interface_descriptor* alt);
    int RequestReportData(unsigned int length);
    unsigned char FindInputReportID(unsigned short usagePage, unsigned short usage,
                                    unsigned short* size);
    unsigned short FindInputReportSize(unsigned char id);
    unsigned char FindOutputReportID(unsigned short usagePage, unsigned short usage,
                                     unsigned short* size);
    unsigned short FindOutputReportSize(unsigned char id);
    unsigned char FindFeatureReportID(unsigned short usagePage, unsigned short usage,
                                      unsigned short* size);
    unsigned short FindFeatureReportSize(unsigned char id);
    int get_value(const char* text, int len, int pos);
    unsigned int get_hex_value(const char* text, int len, int pos);
    int find_keyword(const char* keyword, const char* text, int len);
    unsigned short GetUsageAndUsagePage(const char* text);

    void CopyDeviceIdentity(libusb_device* dev);
    void ParsePath(const char* path);
    int OpenMatchingDevice(libusb_device** list, ssize_t count);
    int ClaimDetaching(int n);
    const libusb_interface_descriptor* FindClaimedSetting(int n) const;
    bool LearnClaimedInterface(int n);
    libusb_device_handle* OpenSide(libusb_device_handle*& side);
    void CloseSide(libusb_device_handle*& side, libusb_device_handle*& other);
    int SetReport(int type, unsigned char id, uint16_t interface_number, unsigned char* data,
                  int length, unsigned int timeout);
    int GetReport(int type, unsigned char id, unsigned char* data, int length,
                  unsigned int timeout);
    bool FirstAnswerInTime(bool waits);
};
