/// \file
/// The files that a command line names to be written.
#pragma once

struct RunRequest;

/// Refuses a command line that names one file for two purposes, of which one would destroy what the
/// other wrote; a line on standard error names both options. Returns `run_goes_on`, or the exit
/// code that ends the run.
int refuse_shared_files(const RunRequest& request);
