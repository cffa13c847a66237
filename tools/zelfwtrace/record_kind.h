/// \file
/// The kinds of records by the names that the user sees.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

/// "version", "text", "sent", "status" or "data".
const char* record_kind_name(std::uint32_t kind);

std::optional<std::uint32_t> record_kind_of(std::string_view name);

/// All names: "version, text, ...".
std::string record_kind_names();
