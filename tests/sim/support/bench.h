/// \file
/// One flash device on a bus of its own, with a clock that the test moves.
#pragma once

#include "model/device/bus.h"
#include "support/workspace.h"

#include <optional>
#include <string>
#include <utility>

inline const zelfsim::Bytes device_info_query{0x03, 0x00, 0x00, 0x00, 0x01};
inline const zelfsim::Bytes plain_list_query{0x06, 0x00, 0x20, 0x00, 0xFF, 0xFF, 0x00, 0x01};

/// A flash device, "printer", product 0x3C35, with components 0 "01.02" build 3 and 1 "02.10"
/// (configuration, random). `flash` is added to the flash interface, `more` to the end of the file.
std::string printer_bus(const std::string& flash = "", const std::string& more = "");

/// The same with a fault of the printer: its further lines.
std::string printer_with_fault(const std::string& fault);
constexpr int printer_product = 0x3C35;

/// One image, ready to be sent.
struct Image {
    std::vector<zelfsim::Bytes> records;  ///< tag, two value bytes, payload
    std::uint16_t checksum = 0;

    /// As the device stores it: the firmware file without its header.
    zelfsim::Bytes stored() const;
};

/// Component list, extended list with the level, and download records of 16 bytes.
Image make_image(std::uint8_t component, zelfsim::Version version, unsigned downloads = 3,
                 std::uint16_t product = 0x3C35);
/// Sets the checksum of the records as they are.
void seal(Image& image, std::uint16_t product = 0x3C35);

/// Drives the device without any transport.
class Bench {
  public:
    explicit Bench(const std::string& bus = printer_bus());

    /// Loads the same files again, as the next process does.
    void reload();

    zelfsim::Peripheral& printer();
    /// A command as output report; gives how the transfer ended.
    zelfsim::Completion send(const zelfsim::Bytes& message);
    /// The next status report, waiting for it up to `patience`; empty when none comes.
    zelfsim::Bytes status(zelfsim::Duration patience = std::chrono::seconds(20));
    /// A command and its status.
    zelfsim::Bytes ask(const zelfsim::Bytes& message);
    /// The data report.
    zelfsim::Bytes data();
    zelfsim::Bytes erase() { return ask({0x04, 0x00, 0x01, 0x00}); }
    zelfsim::Bytes send_record(const zelfsim::Bytes& record);
    zelfsim::Bytes send_checksum(std::uint16_t sum);
    /// Erase, records, checksum; gives the last status.
    zelfsim::Bytes update(const Image& image);
    /// Resets the device and waits until it is back.
    void reset();
    void pass(zelfsim::Duration time) { time_ += time; }
    zelfsim::TimePoint time() const { return time_; }

    const Workspace& workspace() const { return workspace_; }

  private:
    Workspace workspace_;
    std::optional<zelfsim::Bus> bus_;
    zelfsim::TimePoint time_ = zelfsim::now();
};
