#include "key.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace tools {

namespace {

const size_t MAX_KEY_BYTES = 16;
const size_t MAX_FILE_BYTES = 4096; // more than any key with white space; not the place to read a movie

int digit_value(char digit)
{
    if (digit >= '0' && digit <= '9') return digit - '0';
    if (digit >= 'a' && digit <= 'f') return digit - 'a' + 10;
    if (digit >= 'A' && digit <= 'F') return digit - 'A' + 10;
    return -1;
}

bool refuse(std::string& why, const std::string& reason)
{
    why = reason;
    return false;
}

} // namespace

bool parse_key(const std::string& hex, std::vector<uint8_t>& key, std::string& why)
{
    if (hex.empty()) return refuse(why, "the key is empty");
    if (hex.starts_with("0x") || hex.starts_with("0X"))
        return refuse(why, "the key begins with 0x: give the hex digits alone");
    if (hex.size() > 2 * MAX_KEY_BYTES) return refuse(why, "the key is longer than 16 bytes (32 hex digits)");

    std::vector<uint8_t> bytes;
    for (size_t i = 0; i < hex.size(); i += 2) {
        const int high = digit_value(hex[i]);
        const int low = i + 1 < hex.size() ? digit_value(hex[i + 1]) : 0;
        if (high < 0 || low < 0) return refuse(why, "the key has a character that is no hex digit");
        bytes.push_back(static_cast<uint8_t>(high << 4 | low));
    }
    if (hex.size() % 2) return refuse(why, "the key has an odd number of hex digits");

    key = bytes;
    return true;
}

bool read_key_file(const std::string& path, std::vector<uint8_t>& key, std::string& why)
{
    const std::unique_ptr<FILE, int (*)(FILE*)> file(fopen(path.c_str(), "rb"), fclose);
    if (!file) return refuse(why, path + ": cannot open the key file: " + std::string(strerror(errno)));

    std::string text(MAX_FILE_BYTES + 1, '\0');
    text.resize(fread(text.data(), 1, text.size(), file.get()));
    if (ferror(file.get()))
        return refuse(why, path + ": cannot read the key file: " + std::string(strerror(errno)));
    if (text.size() > MAX_FILE_BYTES) return refuse(why, path + ": too long to hold a key");

    text.erase(text.find_last_not_of(" \t\r\n\v\f") + 1);
    return parse_key(text, key, why) || refuse(why, path + ": " + why);
}

bool find_key(const std::optional<std::string>& hex, const std::optional<std::string>& file,
              std::vector<uint8_t>& key, std::string& why)
{
    char* variable = getenv("SDV_KEY");
    const std::string text = variable ? variable : "";
    if (variable) explicit_bzero(variable, text.size()); // /proc shows these bytes, whatever the variable is
    unsetenv("SDV_KEY");
    key.clear();
    if (hex) return parse_key(*hex, key, why);
    if (file) return read_key_file(*file, key, why);
    if (text.empty() || parse_key(text, key, why)) return true;
    return refuse(why, "SDV_KEY: " + why);
}

} // namespace tools
