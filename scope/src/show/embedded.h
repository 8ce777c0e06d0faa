#pragma once

#include <string_view>

/// Files that the build puts into the program.
namespace scope {

std::string_view ChartsLibrary();         ///< Chart.js, as the system has it
std::string_view ChartsLibraryLicence();  ///< its copyright and licence
std::string_view PageStyle();             ///< page/report.css
std::string_view PageScript();            ///< page/report.js

}  // namespace scope
