// What the parts of the check share.
#pragma once

#include "avi_bytes.h"
#include "avi_check.h"

namespace avi {

using Header = std::array<uint8_t, AudioHeaderArea>;

struct Field
{
    uint16_t offset;
    uint8_t size;
    uint32_t value;
    const char* name;
};

__attribute__((format(printf, 3, 4))) void find(Report& report, uint64_t offset, const char* format, ...);

void expect(Report& report, const Header& header, const Field& field);

void check_video_header(Report& report, const Header& header, bool withAudio);
void check_audio_header(Report& report, const Header& header);

struct Counts
{
    bool whole = false; // every chunk was found, so that counts mean something
    uint32_t video = 0, audio = 0, largest = 0;
};

// The movi list at `area`, and the index. `riffSizeHolds`: the RIFF list ends where the file does.
Counts check_movi(Report& report, const File& file, uint32_t area, bool riffSizeHolds, const Look& look);

} // namespace avi
