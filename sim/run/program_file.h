/// \file
/// What kind of program a file is, as far as it can be told without starting it.
#pragma once

#include <optional>
#include <string>

namespace zelfsim {

enum class WordSize { bits32, bits64 };

/// "32-bit" or "64-bit".
const char* word_size_name(WordSize size);
WordSize own_word_size();

/// The word size of a program or shared object; none for any other file, and for none.
std::optional<WordSize> word_size_of(const std::string& file);

/// Whether it begins with "#!".
bool is_script(const std::string& file);

/// Whether a program started from it has another user's or group's rights, so that the loader
/// ignores what is to be preloaded.
bool changes_rights(const std::string& file);

/// Whether a shared object bears the mark of a simulation.
bool is_simulation(const std::string& file);

/// Finds a command as a shell does; empty when there is none that can be executed.
std::string find_command(const std::string& command);

}  // namespace zelfsim
