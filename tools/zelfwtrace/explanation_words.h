/// \file
/// What an explanation says in words, as text and on a page. What a device or a file sent is made
/// safe for one line.
#pragma once

#include "zelfwtrace/explanation.h"

#include <string>

/// "query", "update", "reset" or "read".
const char* kind_name(Attempt::Kind kind);

double seconds(double milliseconds);

/// "offset 4711, 1.234 s".
std::string place_in_trace(const StoryLine& line);

/// A device's own answers to queries are of no interest when all went well.
bool is_shown(const Attempt& attempt, const Explanation& explanation);

/// The device and component: "3c35 COMP 0 (SN='PR1'), hub 1, port 2".
std::string subject(const Attempt& attempt);
/// What was to be done.
std::string task(const Attempt& attempt);
/// How far that came.
std::string progress_words(const Attempt& attempt);
/// The last message and its answer.
std::string wire_words(const WireMessage& last, const Explanation& explanation);
