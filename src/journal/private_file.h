/// \file
/// Opening of the journals that stand under well-known names in a directory anybody can write to.
#pragma once

#include <cstdio>

/// Opens `path` as `fopen` does with mode "wb" (start anew) or "ab" (append), but never through a
/// link, never a file of somebody else, a file with several names, or anything but a regular file:
/// the super-user removes such a thing and creates the file anew, exclusively; everybody else gets
/// null.
FILE* open_private_file(const char* path, bool append);
