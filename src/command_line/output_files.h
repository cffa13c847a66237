/// \file
/// The files that a command line names to be written.
#pragma once

struct RunRequest;

/// Refuses a command line that names one file for two purposes, of which one would destroy what the
/// other wrote; a line on standard error names both options. Returns -1 when the run goes on, else
/// the exit code that ends it.
int refuse_shared_files(const RunRequest& request);
