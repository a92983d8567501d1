#include "cli_names.h"

namespace cli {
namespace {

using Json = nlohmann::ordered_json;

bool is_utf8(const std::string& name)
{
    const Json text = name;
    return text.dump(-1, ' ', false, Json::error_handler_t::ignore) ==
           text.dump(-1, ' ', false, Json::error_handler_t::replace);
}

} // namespace

void name_into(Json& object, const char* field, const std::string& name)
{
    object[field] = name;
    if (is_utf8(name)) return;
    std::string hex;
    for (const char byte : name) {
        char digits[3];
        snprintf(digits, sizeof(digits), "%02x", unsigned(uint8_t(byte)));
        hex += digits;
    }
    object[std::string(field) + "_hex"] = hex;
}

} // namespace cli
