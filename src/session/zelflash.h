/// \file
/// The flash session: the table of devices and components, the reader slots, the open device, and
/// every operation on them. Its members stand one file a subject: session, exchange, reader,
/// discovery, selection, update, commands, progress, display and rma_log.
#pragma once

#include "session/answer_count.h"

#include <pthread.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <vector>

class HIDDEVICE2;
class USBHID;
struct FirmwareRecord;

using uchar = unsigned char;
using ushort = unsigned short;
using BOOLEAN = unsigned char;

constexpr int max_flash_entries = 128;
constexpr int max_components = 20;
constexpr int max_reader_slots = 3000;
constexpr int status_report_size = 8;

// Milliseconds.
constexpr int reader_start_timeout = 2000;
constexpr int shortest_sleep_time = 15;

/// The outcome of an operation on a device, or its selection state.
enum flash_return_code {
    FLASHSUCCESS = 0,
    FLASHFILEBAD = 1,
    FLASHWRITEERROR = 2,
    FLASHREADERROR = 3,
    ECMATCHES = 4,
    FLASHDEVICEGONE = 5,
    FLASHRESETERROR = 6,
    FLASHRESETSUCCESS = 7,
    NOFLASHFILE = 8,
    NOFLASHALLOWED = 9,
    FLASHFORCED = 10,
    NOFLASHATTEMPT = 11,
    DEVICE_SELECTED = 12,
    NOTSUPPORTED = 13,
    FILECORRUPTED = 14,
};

// Codes of the exchange beside the return codes.
constexpr int exchange_timed_out = 7;       ///< no status report within the time-out
constexpr int exchange_device_closed = 13;  ///< the device was closed, or went, while waiting
constexpr int query_not_supported = 17;     ///< the device rejected the query
constexpr int no_component_list = 6;        ///< no component list came from the device

/// The texts of the return codes 0 to 13; `FILECORRUPTED` has none.
extern const char* const flash_code_description[14];

/// The text of a return code; empty outside the table.
const char* flash_code_text(int code);

/// Product IDs whose devices are listed from their USB descriptor only.
extern const int ExclusionList[5];

/// The separator line of a session's start and end.
extern const char szEquals[];

/// One while information is gathered or an update runs: a command reject is then final.
extern int global_reading_information;

/// Distinct from the slot flag of the same name; nothing sets it, so readers are never joined.
extern int read_hid_in_progress;

/// Exit value of a reader thread.
extern int NewMsgExitStatus;

/// One reader slot. Reader and main thread share its flags as plain ints.
struct thread_table {
    int stopped;               ///< 1 asks the reader to stop
    int device_in_use;         ///< 1 while the reader runs
    int device_closed;         ///< 1 once the device's handles are (being) closed
    int read_hid_in_progress;  ///< 1 while the reader's loop runs
    pthread_t hThread;         ///< the reader, 0 when none
};

struct component_entry {
    int comp_id;   ///< component number; 0 is the main firmware
    int ec_level;  ///< version: high byte major, low byte minor
    int build_level;
    int comp_type;       ///< 0 unspecified, 1 firmware, 2 configuration, 3 font
    int version_method;  ///< 0 increasing, 1 random
};

/// One row of the device table.
struct flashEntry {
    char DevicePath[256];
    int product_id;
    int ec_level;  ///< version number of the USB descriptor
    uchar dev_type;
    uchar dev_id;
    uchar command_set;
    uchar features;  ///< see `device_feature`
    ushort current_ec_level;
    ushort previous_ec_level;
    uchar current_build_level;
    uchar previous_build_level;
    char serialNumber[50];
    BOOLEAN resetDevice;  ///< 1 when the device was reset after its update
    int flashStatus;      ///< a `flash_return_code`
    int component_count;
    component_entry component[max_components];  ///< by component number
};

/// Feature bits of the device information answer.
namespace device_feature {
constexpr uchar multiple_components = 0x80;
constexpr uchar extended_versioning = 0x40;
constexpr uchar systems_management = 0x20;
constexpr uchar read_all_records = 0x10;
}  // namespace device_feature

/// Entry function of a reader thread; takes the session, returns the address of
/// `NewMsgExitStatus`.
void* start_read_thread(void* session);

class ZELFLASH {
  public:
    thread_table ThreadTable[max_reader_slots];
    int ThreadIndex;   ///< slot of the reader that is being started
    int CurrentIndex;  ///< next free slot
    int numberOfFlashEntries;
    flashEntry fe[max_flash_entries];
    char installedPath[128];
    char devicePath[100];
    char status[status_report_size];       ///< the reader's buffer
    char last_status[status_report_size];  ///< the most recent good status report
    int use_thread_reading;                ///< 1 while a background reader serves the device
    int device_in_use;
    int device_closed;
    int status_ready;                    ///< 1 when a status report waits in `last_status`
    int sleep_time;                      ///< milliseconds between polls of `status_ready`
    std::unique_ptr<HIDDEVICE2> hiddev;  ///< the open device
    pthread_t hThread;                   ///< the reader started last
    unsigned long lThreadId;
    int old_percentage;  ///< progress percentage shown last
    int send_count;      ///< records of the file being sent

    /// Logs the start line.
    ZELFLASH();
    /// Logs the end line and deletes the trace object. A session with a reader that lingers must
    /// not be destroyed: see `finish`.
    ~ZELFLASH();
    ZELFLASH(const ZELFLASH&) = delete;
    ZELFLASH& operator=(const ZELFLASH&) = delete;

    // session.cpp

    /// What the destructor does, once. Returns false when a reader is still inside its read: the
    /// session and the trace object must then outlive it.
    bool finish();
    void reset_device_list();
    /// Makes row `index` (0 to 127); path and serial number are cut to their fields.
    void initialize_device_data(int index, const char* path, const char* serial, int product_id,
                                int ec_level);
    int IsFlashDeviceSupported(unsigned short vendor, unsigned short usage);
    int is_there_a_firmware_file_for_device(int product_id);

    // exchange.cpp: codes 0, a `flash_return_code`, 7, 13, or a code of `HIDDEVICE2`

    void reset_ready_status();
    int write_flash(char* buffer, unsigned int length);
    /// Time-out in milliseconds; below 1 reads directly and blocks.
    int read_flash(char* buffer, unsigned int length, int timeout, int index);
    int wait_for_message(int timeout, char* buffer, int length, int index);
    int read_data(char* buffer, unsigned int length);
    /// A time-out below 1 sends without waiting for status.
    int send_command(char* command, int length, int index, int timeout);
    int send_status_request();
    int send_reset_command();
    int send_stop_command();
    int send_erase_command(int index);
    int send_firmware_file_data(FILE* stream, int index);
    int chSleep(unsigned long milliseconds);

    // reader.cpp

    int setup_device_for_reading(const char* path, int timeout, int index);
    int start_background_thread(int timeout, int index);
    void read_hid_messages(int index);
    void wait_for_close(int index);
    int close_device_after_use(int index, int wait);

    // discovery.cpp

    void build_initial_device_list();
    int open_hid_device(USBHID* hid);
    int check_device_connection(int index);
    int get_device_info(flashEntry* entry, int index);
    int get_ec_level(flashEntry* entry, int index);
    int read_extended_component_list(flashEntry* entry, int index);
    int add_components_to_table(flashEntry* entry, int index);
    int add_component_x_version_info(flashEntry* entry, int component, int store, int index);
    int process_device(const char* path);

    // update.cpp

    int start_flash(int component, int& reset_needed);
    int flash_device(FILE* file, int entry, int device_ec_level, int component, int& reset_needed,
                     int index);

    // selection.cpp

    /// Enumerates, queries and selects; returns the number of rows.
    int build_flash_table();
    void determine_select_devices();

    // commands.cpp

    int list_attached_devices();
    int flash_all_devices();
    int reset_devices();
    int get_device_data_for_component(int component, const char* path);
    int read_component_data(int component, const char* path, int product_id, int ec_level,
                            int index);

    // progress.cpp

    void display_percentage(int count);
    void hex_display(const char* title, const void* data, int length);

    // display.cpp

    void display_firmware_file(const char* path);
    void show_component_information(flashEntry* entry, int index);

    // rma_log.cpp

    void write_rma_log(const char* path);

  private:
    friend void* start_read_thread(void* session);

    // exchange.cpp

    struct Question;
    struct Answer;
    /// The one way to ask the device and to hear its status.
    Answer ask(const Question& question, int index);
    /// Reads one status report; blocks until it is there.
    int read_report(char* buffer, unsigned int length);
    int resend_command(char* command, int length, int index, int timeout, std::uint8_t& flags);
    int send_records(FILE* stream, int index);
    int send_record(const FirmwareRecord& record, int index);
    int send_checksum(FILE* stream, int index);

    // reader.cpp

    int create_reader(int index);
    void take_status_report(int index);
    bool has_open_read_handle() const;
    void reclaim_reader(int index);
    bool reader_has_left(int index) const;
    // Time-outs in milliseconds.
    bool wait_for_reader_to_leave(int index, int timeout);
    bool wait_for_readers_to_leave(int timeout);
    void discard_device(int index);

    AnswerCount answer_count;
    /// 1 from before a reader's thread is created until the reader is done with the session; what
    /// the reader uses may be freed only while this is 0.
    std::array<std::atomic<uchar>, max_reader_slots> reader_inside{};
    /// Devices whose reader did not leave in time.
    std::vector<std::unique_ptr<HIDDEVICE2>> devices_left_to_readers;
    bool finished = false;
};

/// The slot of the next opening; the last one serves all that come after the table's end.
int take_reader_slot(ZELFLASH& session);
