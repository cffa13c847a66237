/// \file
/// The markup of a page, which stands in files of its own and is part of the program, filled in.
#pragma once

#include "zelfwtrace/report/page_words.h"

#include <string>

enum class PageKind { report, fleet };

/// Every text of the model is escaped.
std::string filled_page(PageKind kind, const PageJson& model);
