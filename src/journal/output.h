/// \file
/// The printf-style writers through which all human-readable output passes. They decide, from one
/// console level, what reaches the console, the log file and the trace file.
#pragma once

#include <cstdio>

/// A directory for everybody: this one name is opened with `open_private_file`.
constexpr char default_log_filename[] = "/tmp/zelfwupdate.log";

/// Console and debug level: 0 quiet, 1 normal command output, 2 verbose, 3 and more also debug
/// output and hex dumps in the log.
extern int OutputLevel;

/// 1 when a verbose level was chosen: the `Display` argument of verbose messages.
extern int Verbose;

/// The log file, null when there is none. Close it with `close_log_file` only: a background reader
/// may be writing.
extern FILE* hLogFile;

/// Log file always, trace always, console when `Display` is 1 and `OutputLevel` is at least 1.
/// The message is cut at 4195 bytes.
void writelog(int Display, const char* szFormat, ...) __attribute__((format(printf, 2, 3)));

/// As `writelog`, but never to the trace.
void writelog_notrace(int Display, const char* szFormat, ...) __attribute__((format(printf, 2, 3)));

/// Log file and trace, only when `OutputLevel` is above 2; never the console. The log line carries
/// the level in front ("3:..."). The message is cut at 41959 bytes.
void writedebug(const char* szFormat, ...) __attribute__((format(printf, 1, 2)));

/// A message box request; there are none on this platform.
void ShowMessage(const char* szFormat, ...) __attribute__((format(printf, 1, 2)));

/// Gives standard output a buffer and finds out whether it is a terminal, before anything is
/// written to it.
void prepare_console();

/// Opens `name` as the log file and starts it anew. When another run writes to it, it is appended
/// to, with a line that says so. A failure leaves `hLogFile` null and is not reported.
void open_log_file(const char* name);

/// Closes the log file, if it is open, and clears `hLogFile`. Waits at most a second for a writer
/// of another thread.
void close_log_file();
