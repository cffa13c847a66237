/// \file
/// Stands in front of the C library's readdir, so that a directory can look like one of a file
/// system that keeps no file types in it, or that gives its entries in a certain order.
#pragma once

#include <string>
#include <vector>

/// True: every entry comes with type DT_UNKNOWN.
void directory_double_hides_types(bool hide);
/// These names are the entries, regular files all of them; the directory's own again when empty.
void directory_double_gives(const std::vector<std::string>& names);
