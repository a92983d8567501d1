// The library's report as the JSON of every tool.
#pragma once

#include "Quorlin.h"

#include <nlohmann/json.hpp>

#include <string>

namespace cli {

nlohmann::ordered_json report_json(const SdvReport& report);

// A file name is bytes. What is no UTF-8 in it cannot stand in JSON, and goes beside it in hex.
bool is_utf8(const std::string& name);
std::string hex(const std::string& bytes);

} // namespace cli
