// Recording keys as people give them: hex text, or a file that holds it. No message ever shows a key's bytes.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace tools {

// Hex text of 1 to 16 bytes, two digits a byte, in either case. False and the reason in `why` when it is not;
// `key` is then as it was.
bool parse_key(const std::string& hex, std::vector<uint8_t>& key, std::string& why);

// The same from a file; white space behind the digits is allowed, so a last line end does no harm.
bool read_key_file(const std::string& path, std::vector<uint8_t>& key, std::string& why);

// The key as a tool is given it: as text, in a file, or else in the environment variable SDV_KEY, which is
// taken out of the environment so that neither a child nor /proc shows it. None given is fine: `key` is then
// empty.
bool find_key(const std::optional<std::string>& hex, const std::optional<std::string>& file,
              std::vector<uint8_t>& key, std::string& why);

} // namespace tools
