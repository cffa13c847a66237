/// \file
/// Builds trace files byte by byte, without the program's code.
#pragma once

#include <cstdint>
#include <string>

// Reports: commands, and statuses.
inline constexpr char erase_report[] = "04 00 01 00";
inline constexpr char stop_report[] = "02 00 00 80";
inline constexpr char checksum_report[] = "05 00 02 00 00 1e 86";
inline constexpr char completed_report[] = "01 00 00 00 00 00 00 00";
inline constexpr char done_report[] = "00 00 00 00 00 00 00 00";

/// The fields of a record's header. What is not set is as the program writes it.
struct RecordHeader {
    std::uint32_t kind = 0;
    double clock = 0;
    std::uint32_t thread = 0x7001;
    std::uint32_t process = 4711;
    std::uint32_t seconds = 1'700'000'000;  // 2023-11-14 22:13:20 UTC
    std::uint16_t milliseconds = 5;
    std::uint8_t component = 'e';
    std::uint8_t reserved = 0;

    /// The 32 bytes, for a payload of `length` bytes.
    std::string bytes(std::uint32_t length) const;
};

class TraceBytes {
  public:
    /// Sets the stamps of what follows.
    TraceBytes& at(double clock) { return header_.clock = clock, *this; }
    TraceBytes& seconds(std::uint32_t seconds) { return header_.seconds = seconds, *this; }
    TraceBytes& process(std::uint32_t process) { return header_.process = process, *this; }
    TraceBytes& product(unsigned int product) { return product_ = product, *this; }

    TraceBytes& version();
    TraceBytes& text(const std::string& text);
    /// Reports in hexadecimal; blanks are skipped.
    TraceBytes& sent(const std::string& report) { return transfer(405, 0xA001, report); }
    TraceBytes& status(const std::string& report) { return transfer(406, 0xA002, report); }
    TraceBytes& data(const std::string& report) { return transfer(407, 0xA003, report); }
    /// A message that carries `payload` bytes as a record of component 0.
    TraceBytes& record(int payload);
    TraceBytes& raw(const std::string& bytes) { return bytes_ += bytes, *this; }

    const std::string& bytes() const { return bytes_; }
    std::size_t size() const { return bytes_.size(); }

  private:
    TraceBytes& transfer(std::uint32_t kind, unsigned int usage, const std::string& report);
    TraceBytes& append(std::uint32_t kind, const std::string& payload);

    RecordHeader header_;
    unsigned int product_ = 0x3C35;
    std::string bytes_;
};

/// The start of an update's trace.
TraceBytes begun_run();
