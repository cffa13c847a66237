/// \file
/// What a signal handler may write. Nothing here allocates, takes a lock of stdio, or waits for
/// longer than a second for a lock or for an output that takes nothing.
#pragma once

enum class HandlerOutput { log, trace, console };

/// Whether there is such an output and it can be written to. The trace is then claimed: its records
/// by other threads wait. It stays claimed, since the process is about to end.
bool is_ready_in_handler(HandlerOutput output);

/// Writes `text`, unless the output takes nothing for a second.
void write_in_handler(HandlerOutput output, const char* text);

/// Closes the log's descriptor and clears `hLogFile`; the stream itself is left.
void close_log_in_handler();
