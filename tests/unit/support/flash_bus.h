/// \file
/// Peripherals with a flash interface on a fake libusb: each answers the commands that it gets as
/// its script says, and its interrupt endpoint blocks until there is something to report.
#pragma once

#include "support/fake_usb.h"
#include "support/wire.h"

#include <condition_variable>
#include <deque>
#include <functional>
#include <list>
#include <map>
#include <mutex>
#include <string>
#include <vector>

/// An answer to a feature request: a libusb error, or data.
struct FeatureAnswer {
    int rc = 0;
    Bytes data;
};

class FlashPeripheral {
  public:
    /// What a command is answered with: status reports, in this order.
    std::map<Bytes, std::vector<Bytes>> answers;
    /// Of a command that `answers` does not hold; "completed" by default.
    std::vector<Bytes> other_answer{{0x01}};
    /// Comes before `answers` for the command it is held under; each entry serves once.
    std::map<Bytes, std::deque<std::vector<Bytes>>> next_answers;
    /// The data answer by the command that was sent last. A request without data stalls.
    std::map<Bytes, Bytes> data;
    /// Comes before `data`; each entry serves once.
    std::deque<FeatureAnswer> next_features;
    /// Results of the next output reports; 0 takes the report.
    std::deque<int> next_write_results;
    /// Called with each command, before it is answered, without a lock held.
    std::function<void(const Bytes&)> on_command;
    /// Called at the start of each read, by the thread that reads.
    std::function<void()> on_read;
    /// A pending read goes on when the interface is released.
    bool ignores_release = false;

    FakeUsbDevice& usb() { return *device; }
    std::string path() const { return flash_path(*device); }

    /// The commands that arrived so far.
    std::vector<Bytes> commands() const;
    int count(const Bytes& command) const;
    /// Feature requests so far.
    int feature_requests() const;

    void report(const Bytes& status);
    void report_failure(int rc);
    void unplug();
    /// Ends the reads that linger past a release.
    void let_reads_end();
    /// False when no read is pending after `milliseconds`.
    bool read_is_pending_within(int milliseconds) const;

  private:
    friend class FlashBus;

    int take_command(const Bytes& command);
    int give_feature(unsigned char* buffer, int length);
    int give_report(unsigned char* buffer, int length, int* actual);
    void set_claimed(bool claimed);

    FakeUsbDevice* device = nullptr;
    mutable std::mutex lock;
    mutable std::condition_variable changed;
    std::deque<FakePacket> packets;
    std::vector<Bytes> commands_taken;
    int features_asked = 0;
    int pending_reads = 0;
    bool is_claimed = false;
    bool is_unplugged = false;
    bool reads_may_end = false;
};

/// Replaces the transfers of a `FakeUsb`, from construction to destruction. One at a time.
class FlashBus {
  public:
    explicit FlashBus(FakeUsb& fake_usb);
    ~FlashBus();
    FlashBus(const FlashBus&) = delete;
    FlashBus& operator=(const FlashBus&) = delete;

    /// A peripheral that answers every command with "completed", at the next address of bus 1.
    FlashPeripheral& add(uint16_t product, uint16_t vendor = 0x7A01,
                         const std::string& serial = "SN-0042");

  private:
    FakeUsb& usb;
};
