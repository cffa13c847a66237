#include "fork_server/request.h"

#include <algorithm>
#include <utility>

namespace fork_server {

namespace {

/// Each text ends with a zero byte, each list with an empty text.
std::string take(std::string_view& message) {
    const std::size_t length = std::min(message.find('\0'), message.size());
    std::string text(message.substr(0, length));
    message.remove_prefix(std::min(length + 1, message.size()));
    return text;
}

std::vector<std::string> take_list(std::string_view& message) {
    std::vector<std::string> list;
    for (std::string text = take(message); !text.empty(); text = take(message)) {
        list.push_back(std::move(text));
    }
    return list;
}

void append(std::string& message, const std::string& text) {
    message.append(text).push_back('\0');
}

void append(std::string& message, const std::vector<std::string>& list) {
    for (const std::string& text : list) {
        append(message, text);
    }
    append(message, std::string());
}

}  // namespace

std::string encode(const Request& request) {
    std::string message;
    append(message, request.output_file);
    append(message, request.error_file);
    append(message, request.environment);
    append(message, request.command);
    return message;
}

Request decode(std::string_view message) {
    Request request;
    request.output_file = take(message);
    request.error_file = take(message);
    request.environment = take_list(message);
    request.command = take_list(message);
    return request;
}

}  // namespace fork_server
