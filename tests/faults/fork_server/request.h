/// \file
/// What a fork server is asked for, as one message on its socket.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace fork_server {

/// The server's end of its socket. It is answered with the process's number, and with what wait
/// gives.
constexpr int descriptor = 3;
/// The program runs as ever when this is not set. A number is that of the processor to stay on,
/// among those that are allowed.
constexpr const char* variable = "ZELF_FORK_SERVER";
constexpr std::size_t longest_request = 65536;

struct Request {
    std::string output_file, error_file;
    std::vector<std::string> environment;  ///< "NAME=value", added to the server's own
    std::vector<std::string> command;      ///< program and arguments
};

std::string encode(const Request& request);
Request decode(std::string_view message);

}  // namespace fork_server
