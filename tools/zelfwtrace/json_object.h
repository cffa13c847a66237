/// \file
/// A JSON object under construction, on one line.
#pragma once

#include "zelfwtrace/escape.h"

#include <cstdint>
#include <string>
#include <string_view>

class JsonObject {
  public:
    void text(std::string_view key, std::string_view value) { raw(key, json_string(value)); }
    void number(std::string_view key, std::uint64_t value) { raw(key, std::to_string(value)); }
    /// `json` is a whole JSON value.
    void raw(std::string_view key, std::string_view json) {
        members_.append(members_.empty() ? "" : ", ").append(json_string(key)).append(": ");
        members_.append(json);
    }
    std::string line() const { return "{" + members_ + "}"; }

  private:
    std::string members_;
};
