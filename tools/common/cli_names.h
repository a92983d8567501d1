// File names in JSON.
#pragma once

#include <nlohmann/json.hpp>

#include <string>

namespace cli {

// The name as `object[field]`. One that is no UTF-8, which JSON cannot hold, is shown there as well as can be
// when the text is written with error_handler_t::replace; its bytes are then in `FIELD_hex`.
void name_into(nlohmann::ordered_json& object, const char* field, const std::string& name);

} // namespace cli
