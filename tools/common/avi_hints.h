// What is in an AVI file's headers and not in its chunks.
#pragma once

#include "avi_check.h"

#include <cstdint>
#include <optional>
#include <span>
#include <string>

namespace tools {

// What the chunks do not tell, as far as it is known.
struct AviHints
{
    std::optional<uint32_t> width = {}, height = {}; // else from the video
    std::optional<uint32_t> rate = {};               // pictures a second; else from the video
    std::optional<int> audioCode = {};      // 0 none, 1 A-law, 2 mu-law, 22 AAC; needed where there is audio
    std::optional<uint32_t> audioRate = {}; // Hz; else 8000, but needed for AAC
    std::optional<uint32_t> channels = {};  // else 1
};

// One of those that a frame names.
bool is_audio_code(int code);

// From the recording that the file was made of, or from another file of the same camera. False, and the
// reason in `why`, when that is not to be had.
bool hints_of_recording(const std::string& path, AviHints& hints, std::string& why);
bool hints_of_avi(const std::string& path, AviHints& hints, std::string& why);

// The hints that are missing, from other ones.
void add_hints(AviHints& hints, const AviHints& others);

// From a sequence parameter set.
AviHints hints_of_sps(std::span<const uint8_t> nal);

// Audio that joins a file which was laid out without it has no headers there until the file is finished. So
// that a repair knows its coding, this number stands meanwhile where finished files have a 0.
constexpr int LateAudioAt = 72;
uint32_t late_audio_note(int code, uint8_t channels);

// What a file's own headers tell when nothing in them is wrong but sizes and counts.
AviHints hints_of_torn_avi(const avi::Report& report);

} // namespace tools
