/// \file
/// The fleet as a page, as JSON and as a table for a spreadsheet.
#pragma once

#include "zelfwtrace/report/fleet.h"

#include <string>
#include <vector>

/// The names are those of the files beside the page.
std::string fleet_page(const std::vector<FleetTill>& tills, const std::string& json_file,
                       const std::string& csv_file);
std::string fleet_json(const std::vector<FleetTill>& tills);
/// With commas and quotes, lines end in CR LF. No cell begins as a formula does.
std::string fleet_csv(const std::vector<FleetTill>& tills);
