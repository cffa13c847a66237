/// \file
/// A bus file whose devices do what those of a trace did.
#pragma once

#include "twin/story.h"

#include <string>

namespace zelfsim {

/// Whether the twin's devices fail as those of the trace did.
enum class WithFaults { no, yes };

/// The bus file's text. `origin` names the trace in its first line. Throws FileError when the run
/// met no device.
std::string twin_of(const Story& story, const std::string& origin,
                    WithFaults faults = WithFaults::yes);

}  // namespace zelfsim
