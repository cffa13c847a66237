/// \file
/// Faults whose moment is drawn: status reports that come too late, or that nobody asked for.
#pragma once

#include "injection.h"

#include <random>
#include <vector>

/// For each command of the run whose answer is waited for, or soon followed by another command,
/// answers that come when the next command has been sent. `place` names run and device.
std::vector<Injection> late_answers(const TransferRecord& record, const Injection& place,
                                    std::mt19937& random);

/// For each command of the run reports between it and the next one, and one that comes ahead of the
/// command's own answer.
std::vector<Injection> unasked_reports(const TransferRecord& record, const Injection& place,
                                       std::mt19937& random);
