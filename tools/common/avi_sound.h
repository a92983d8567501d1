// Where the sound of an AVI file begins.
#pragma once

#include <cstdint>
#include <string>

namespace tools {

// Whole pictures that stand in front of the file's first sound. Players begin with that sound at once: an AVI
// file has no other place for it. 0 without any sound, or when the file cannot be read.
uint32_t pictures_before_sound(const std::string& path);

} // namespace tools
