#include "flash_protocol.h"
#include "journal/output.h"
#include "process/fault_report.h"
#include "session/exchange.h"
#include "session/zelflash.h"
#include "settings.h"
#include "usb/zelflshhid.h"

#include <pthread.h>
#include <signal.h>

#include <algorithm>
#include <cstring>
#include <ctime>

namespace {

// Milliseconds.
constexpr int poll_for_start = 15;
constexpr int pause_after_creation = 100;
constexpr int poll_for_close = 10;
constexpr int longest_wait_after_close = 1000;
constexpr int pause_after_failed_read = 10;

constexpr int polls_for_close = 100;
constexpr int longest_join_seconds = 5;

// The handle takes its mode as bytes.
constexpr unsigned char read_mode[] = {'r', '\0'};
constexpr unsigned char write_mode[] = {'w', '\0'};

constexpr char separator[] = "-------------------------------------\n";

void block_signals_of_the_main_thread() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGUSR1);
    sigaddset(&signals, SIGALRM);
    sigaddset(&signals, SIGUSR2);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

/// A thread handle in the form in which the log shows it.
const void* pointer_to_print(pthread_t thread) {
    // NOLINTNEXTLINE(performance-no-int-to-ptr): never used as an address
    return reinterpret_cast<const void*>(thread);
}

}  // namespace

int ZELFLASH::setup_device_for_reading(const char* path, int timeout, int index) {
    const char* failure = nullptr;
    if (hiddev == nullptr || hiddev->OpenRc != 0) {
        failure = "Could not get open status for '%s'\n";
    } else if (hiddev->OpenDevice(read_mode) != 0) {
        failure = "Could not open read handle for '%s'\n";
    } else if (hiddev->OpenDevice(write_mode) != 0) {
        failure = "Could not open write handle for '%s'\n";
    }
    if (failure != nullptr) {
        writelog(Verbose, failure, path);
        hiddev.reset();
        return FLASHDEVICEGONE;
    }
    ThreadTable[index].device_closed = 0;
    if (timeout < 1) {
        return 0;
    }
    writedebug("Background message reading thread starting for '%s' timeout=%d, index=%d\n", path,
               timeout, index);
    return start_background_thread(timeout, index);
}

int ZELFLASH::create_reader(int index) {
    thread_table& slot = ThreadTable[index];
    ThreadIndex = index;
    // Before the thread exists: one that starts late must not undo a stop.
    slot.stopped = 0;
    reader_inside[static_cast<std::size_t>(index)].store(1);
    const int rc = pthread_create(&hThread, nullptr, start_read_thread, this);
    if (rc == 0) {
        slot.hThread = hThread;
    } else {
        reader_inside[static_cast<std::size_t>(index)].store(0);
    }
    use_thread_reading = rc == 0 ? 1 : 0;
    return rc;
}

int ZELFLASH::start_background_thread(int timeout, int index) {
    int rc = FLASHDEVICEGONE;
    use_thread_reading = 0;
    if (background_read == 1) {
        rc = create_reader(index);
    }
    chSleep(pause_after_creation);
    if (use_thread_reading != 1) {
        return rc;
    }
    thread_table& slot = ThreadTable[index];
    writedebug("waiting for device to start (in_progress=%d)\n", slot.read_hid_in_progress);
    for (int polls = timeout / poll_for_start; polls > 0 && slot.read_hid_in_progress == 0;
         --polls) {
        chSleep(poll_for_start);
    }
    const int in_progress = slot.read_hid_in_progress;
    writedebug("finished waiting for device to start (in_progress=%d)\n", in_progress);
    if (in_progress == 0) {
        use_thread_reading = 0;
        // One that starts after this must not take the answers of direct reads.
        slot.stopped = 1;
        writedebug("cannot use tread reading\n");
    }
    return rc;
}

void* start_read_thread(void* session) {
    FaultStack stack;
    block_signals_of_the_main_thread();
    if (session != nullptr) {
        auto* const flash = static_cast<ZELFLASH*>(session);
        const int index = flash->ThreadIndex;
        writedebug("%s", separator);
        writedebug("starting read_hid_messages (index=%d)\n", index);
        writedebug("%s", separator);
        flash->read_hid_messages(index);
        writedebug("%s", separator);
        writedebug("stopping read_hid_messages (index=%d)\n", index);
        writedebug("%s", separator);
        // From here on the session, and the device, may be gone.
        flash->reader_inside[static_cast<std::size_t>(index)].store(0);
    }
    return &NewMsgExitStatus;
}

void ZELFLASH::read_hid_messages(int index) {
    thread_table& slot = ThreadTable[index];
    slot.device_in_use = 1;
    slot.read_hid_in_progress = 1;
    writedebug("%d: read_hid_messages started (device_closed=%d)\n", index, slot.device_closed);
    do {
        // A thread may start after it was stopped, or after the close: a read would take an answer
        // that is not its own, or open the handle again.
        const int rc = slot.stopped == 1 || slot.device_closed == 1
                           ? exchange_device_closed
                           : read_report(status, sizeof(status));
        writedebug("%d: read_flash returned rc=%d (stopped=%d device_closed=%d)\n", index, rc,
                   slot.stopped, slot.device_closed);
        if (slot.stopped == 1 || slot.device_closed == 1) {
            writedebug("%d: Stopping (stopped=%d, device_closed=%d)\n", index, slot.stopped,
                       slot.device_closed);
            slot.device_in_use = 0;
            break;
        }
        rc == 0 ? answer_count.report_taken() : answer_count.read_failed();
        // Before the copy, and after a failed read too: a waiter then gets the previous report.
        status_ready = 1;
        if (rc != 0) {
            writelog(Verbose,
                     "%d: Failure reading from flash device, rc=%d.  Stopping (device_closed=%d)\n",
                     index, rc, slot.device_closed);
            chSleep(pause_after_failed_read);
        } else {
            take_status_report(index);
            if (!has_open_read_handle()) {
                // Nothing was read: without a handle every read succeeds at once.
                chSleep(pause_after_failed_read);
            }
        }
    } while (slot.stopped == 0);
    writedebug("%d: read_hid_messages finished (device_closed=%d)\n", index, slot.device_closed);
    slot.read_hid_in_progress = 0;
    writedebug("%d: Closing background message reading thread\n", index);
}

bool ZELFLASH::has_open_read_handle() const {
    return hiddev != nullptr && hiddev->GetReadHandle() != closed_hid_handle();
}

void ZELFLASH::take_status_report(int index) {
    memcpy(last_status, status, sizeof(last_status));
    const std::uint8_t flags = last_status_flags(*this);
    writedebug("%d: last_status[0]=%02x (device_closed=%d)\n", index, flags,
               ThreadTable[index].device_closed);
    if ((flags & status_flag::reject) != 0) {
        writedebug("%d: Command reject from device\n", index);
    } else if ((flags & status_flag::operation_error) != 0) {
        writedebug("%d: Operation error, stop flash operation\n", index);
    }
}

void ZELFLASH::wait_for_close(int index) {
    // The device's answer ends the reader's pending read.
    send_stop_command();
    if (use_thread_reading != 1) {
        return;
    }
    const thread_table& slot = ThreadTable[index];
    writedebug("%d: waiting for device to close (device_closed=%d)\n", index, slot.device_closed);
    for (int polls = polls_for_close; polls > 0 && slot.read_hid_in_progress == 1; --polls) {
        chSleep(poll_for_close);
    }
    writedebug(
        "%d: finished waiting for device to close (read_hid_in_progress=%d, device_closed=%d)\n",
        index, slot.read_hid_in_progress, slot.device_closed);
}

int ZELFLASH::close_device_after_use(int index, int wait) {
    thread_table& slot = ThreadTable[index];
    writedebug("%d: close_device_after_use: device_in_use being reset\n", index);
    slot.device_in_use = 0;
    slot.stopped = 1;
    writedebug("Stopping thread (index=%d, in_use=%d, stopped=%d)\n", index, slot.device_in_use,
               slot.stopped);
    if (wait == 1) {
        wait_for_close(index);
    }
    writedebug("%d: close_device_after_use: closing handles\n", index);
    slot.device_closed = 1;
    if (hiddev != nullptr) {
        hiddev->CloseWriteHandle();
        hiddev->CloseReadHandle();
        discard_device(index);
    }
    writedebug("%d: close_device_after_use: hThread=%p\n", index, pointer_to_print(slot.hThread));
    if (slot.hThread == 0) {
        return 0;
    }
    reclaim_reader(index);
    writedebug("%d: close_device_after_use: wait finished (in_progress=%d)\n", index,
               slot.read_hid_in_progress);
    slot.hThread = 0;
    return 0;
}

void ZELFLASH::reclaim_reader(int index) {
    const pthread_t reader = ThreadTable[index].hThread;
    bool joined = false;
    if (::read_hid_in_progress == 1) {
        writedebug("%d: close_device_after_use: hThread=%p - join thread\n", index,
                   pointer_to_print(reader));
        timespec deadline = {};
        clock_gettime(CLOCK_REALTIME, &deadline);
        deadline.tv_sec += longest_join_seconds;
        joined = pthread_timedjoin_np(reader, nullptr, &deadline) == 0;
    }
    if (!joined) {
        // It leaves its loop at its next wake-up.
        pthread_detach(reader);
    }
}

bool ZELFLASH::reader_has_left(int index) const {
    return reader_inside[static_cast<std::size_t>(index)].load() == 0;
}

bool ZELFLASH::wait_for_reader_to_leave(int index, int timeout) {
    for (int waited = 0; !reader_has_left(index) && waited < timeout; waited += poll_for_close) {
        chSleep(poll_for_close);
    }
    return reader_has_left(index);
}

bool ZELFLASH::wait_for_readers_to_leave(int timeout) {
    const auto all_have_left = [this] {
        return std::all_of(reader_inside.begin(), reader_inside.end(),
                           [](const std::atomic<uchar>& inside) { return inside.load() == 0; });
    };
    for (int waited = 0; !all_have_left() && waited < timeout; waited += poll_for_close) {
        chSleep(poll_for_close);
    }
    return all_have_left();
}

void ZELFLASH::discard_device(int index) {
    // Closing the handles released the interface, which ends a pending read.
    if (wait_for_reader_to_leave(index, longest_wait_after_close)) {
        hiddev.reset();
    } else {
        writedebug("%d: the reader does not leave, its device stays open\n", index);
        devices_left_to_readers.push_back(std::move(hiddev));
    }
}
