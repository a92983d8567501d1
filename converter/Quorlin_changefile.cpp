#include <string.h>

#include "Quorlin_file.h"
#include "Quorlin_internal.h"
#include "Quorlin_running.h"
#include "Quorlin_window.h"

// The older conversion: it believes the file header's frame count and every frame header.

static bool record_next(ReadWindow& window, Fill& fill)
{
    fill = fill_window(window, FRAME_HEADER_SIZE);
    if (fill != Fill::enough) return false;

    S_FrameHeader header;
    memcpy(&header, window.bytes + window.at, sizeof(header));
    if (header.u32FrameSize < FRAME_HEADER_SIZE || header.u32FrameSize > MAX_FILE_FRAME) return false;

    fill = fill_window(window, header.u32FrameSize);
    if (fill != Fill::enough) return false;
    RecordAvi(window.bytes + window.at, static_cast<int>(header.u32FrameSize));
    window.at += header.u32FrameSize;
    return recording_trouble() == 0;
}

static int abandon(const char* path, int result)
{
    remove_output(path);
    return result;
}

static int change_file(const char* inputpath, const char* outpath)
{
    static char s_szCannotRead[] = "Can't read the inputfile!";
    static char s_szCannotRecord[] = "Record failed!\n";
    TSdv2Avi& job = g_tSdv2Avi;

    job.m_iRecFileType = 1;
    InputFile input;
    S_FileHeader header;
    if (!open_input(input, inputpath) || !read_file_header(input, header)) {
        errorprint(s_szCannotRead);
        return 1;
    }
    ReadWindow window(input);
    if (!open_window(window)) return 3;

    job.m_Header = header;
    const bool same = outpath && is_same_file(inputpath, outpath);
    if (same || StartRecord(1, outpath, 1) < 0) {
        errorprint(s_szCannotRecord);
        return 2;
    }
    Fill fill = fill_window(window, sizeof(S_FileHeader));
    window.at = fill == Fill::enough ? sizeof(S_FileHeader) : window.held;
    const int32_t frames = static_cast<int32_t>(job.m_Header.FrameCount);
    window.before_change = flush_gathered;
    begin_gathering();
    int32_t i = 0;
    for (; i < frames && !is_cancelled() && record_next(window, fill); ++i)
        note_progress(static_cast<int>(int64_t{i} * 100 / frames));
    if (i < frames) note_skipped(window_position(window), input_end(window));
    end_gathering();
    const bool whole = finish_recording() == 0;
    if (close_to_cancelling()) return abandon(outpath, 4);
    if (!whole) return abandon(outpath, 2);
    return fill == Fill::no_memory ? abandon(outpath, 3) : 0;
}

int ChangeFile2AVI(char* _cpinputpath, char* _cpoutpath)
{
    const CancelGuard whole;
    begin_conversion();
    const int result = change_file(_cpinputpath, _cpoutpath);
    const int outcomes[] = {100, -1, -2, -3, -5};
    end_conversion(outcomes[result]);
    return result;
}
