/// \file
/// The conversation of a run as the rows of a table.
#pragma once

#include "zelfwtrace/report/page_words.h"
#include "zelfwtrace/report/run_digest.h"

/// Records that say nothing new share a row. What is more than `most_bytes` is left out in the
/// middle, and counted.
PageJson conversation_rows(const RunDigest& digest, std::size_t most_bytes);
