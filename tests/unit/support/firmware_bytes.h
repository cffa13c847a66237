/// \file
/// Builds firmware files byte by byte, whole ones and broken ones, in a directory of their own.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

/// The bytes of a firmware file under construction.
class FirmwareBytes {
  public:
    /// Starts with the eight characters of the header, or with fewer for a broken file.
    explicit FirmwareBytes(const std::string& header) : bytes_(header) {}

    FirmwareBytes& record(std::uint8_t tag, unsigned int value,
                          const std::vector<std::uint8_t>& payload);
    /// A record whose length byte claims `length` bytes.
    FirmwareBytes& lying_record(std::uint8_t length, std::uint8_t tag, unsigned int value,
                                const std::vector<std::uint8_t>& payload);
    FirmwareBytes& text_record(std::uint8_t tag, unsigned int value, const std::string& payload);
    FirmwareBytes& raw(const std::vector<std::uint8_t>& bytes);
    /// Length byte 0 and the checksum bytes.
    FirmwareBytes& end(std::uint8_t first = 0xAB, std::uint8_t second = 0xCD);

    const std::string& bytes() const { return bytes_; }

  private:
    std::string bytes_;
};

/// A directory that is removed with all it holds.
class TemporaryDirectory {
  public:
    TemporaryDirectory();
    ~TemporaryDirectory();
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

    std::string path() const { return path_.string(); }
    std::string path(const std::string& name) const { return (path_ / name).string(); }
    /// Writes a file and gives its path.
    std::string write(const std::string& name, const std::string& content) const;
    std::string write(const std::string& name, const FirmwareBytes& content) const {
        return write(name, content.bytes());
    }

  private:
    std::filesystem::path path_;
};

/// What a call wrote.
struct WrittenOutput {
    std::string console;
    std::string log;
};

/// Catches the console and, in a log file of its own, the log.
class OutputCapture {
  public:
    OutputCapture();
    ~OutputCapture();
    OutputCapture(const OutputCapture&) = delete;
    OutputCapture& operator=(const OutputCapture&) = delete;

    /// Ends the capture.
    WrittenOutput take();

  private:
    TemporaryDirectory directory_;
    bool taken_ = false;
};

/// The whole of a file.
std::string read_whole_file(const std::string& path);
