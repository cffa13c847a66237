/// \file
/// Reads the record of transfers that the simulated bus writes.
#pragma once

#include <filesystem>
#include <string>
#include <utility>
#include <vector>

// Command messages, as a record of transfers has them.
inline constexpr char erase_command[] = "04000100";
inline constexpr char reset_command[] = "04000040";
/// Asks for the level before an image, and ends one.
inline constexpr char stop_command[] = "02000080";

struct Transfer {
    double time = 0;  ///< milliseconds of the monotonic clock
    std::string device;
    int address = 0;
    std::string kind;
    std::string setup;
    std::string data;  ///< lower-case hexadecimal, empty when there is none
    int result = 0;
};

class TransferRecord {
  public:
    TransferRecord() = default;
    explicit TransferRecord(std::vector<Transfer> transfers) : transfers_(std::move(transfers)) {}
    /// The whole lines, also of a run under way. Throws when one has not the seven fields.
    explicit TransferRecord(const std::filesystem::path& path);

    std::vector<Transfer> all() const { return transfers_; }
    std::vector<Transfer> of_kind(const std::string& device, const std::string& kind) const;
    /// SET_REPORT and GET_REPORT requests, in order.
    std::vector<Transfer> class_requests(const std::string& device) const;
    /// The data of every SET_REPORT request: the command messages as sent.
    std::vector<std::string> commands(const std::string& device) const;

  private:
    std::vector<Transfer> transfers_;
};
