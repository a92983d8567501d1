// A recording's figures as one page that needs nothing else: no script, no file beside it, no network.
#pragma once

#include "sdv_facts.h"

#include <string>

namespace tools {

// HTML text. `json` is what the page carries for programs, with no "<" in it; `name` the recording's;
// `made` tells when the page was, and by what.
std::string info_page(const std::string& name, const sdv::Stats& stats, const std::string& json,
                      const std::string& made);

} // namespace tools
