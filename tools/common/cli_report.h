// The library's report as the JSON of every tool.
#pragma once

#include "Quorlin.h"

#include <nlohmann/json.hpp>

namespace cli {

nlohmann::ordered_json report_json(const SdvReport& report);

} // namespace cli
