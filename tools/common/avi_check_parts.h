// What the parts of the check share.
#pragma once

#include "avi_bytes.h"
#include "avi_check.h"
#include "cause.h"

namespace avi {

using Header = std::array<uint8_t, AudioHeaderArea>;

struct Field
{
    uint16_t offset;
    uint8_t size;
    uint32_t value;
    const char* name;
};

// `code` is one of cli::cause.
__attribute__((format(printf, 4, 5))) void find(Report& report, const char* code, uint64_t offset,
                                                const char* format, ...);

// What could not be read comes first. Of the other findings so many hold in spite of it.
void tell_unreadable(Report& report, size_t kept = 0);

void expect(Report& report, const Header& header, const Field& field,
            const char* code = cli::cause::WrongField);

void check_video_header(Report& report, const Header& header, bool withAudio);
void check_audio_header(Report& report, const Header& header);

// What the headers take over from the recording's, whatever it says there.
void check_limits(Report& report, const Header& header);

// The file's rate beside that of the video, which need not be right itself.
void compare_rates(Report& report, const File& file, uint64_t firstPicture, uint32_t size);

struct Counts
{
    bool whole = false; // every chunk was found, so that counts mean something
    uint32_t video = 0, audio = 0, largest = 0;
    uint64_t firstPicture = 0; // where the data of the first key frame begin; 0: there is none
    uint32_t firstSize = 0;
};

// The movi list at `area`, and the index. `riffSizeHolds`: the RIFF list ends where the file does.
Counts check_movi(Report& report, const File& file, uint32_t area, bool riffSizeHolds, const Look& look);

} // namespace avi
