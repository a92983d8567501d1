#include <stddef.h>
#include <stdio.h>
#include <string.h>

#include "Quorlin_file.h"
#include "Quorlin_internal.h"
#include "Quorlin_running.h"
#include "Quorlin_window.h"

static const unsigned char FLAG[4] = {0, 0, 0, 2};
static const int ANY_FRAME = 0;
static const int KEY_FRAME = 1;

// How a conversion ended: the value of m_iPosition, and its text.
struct Outcome
{
    int position;
    const char* text;
};

static const Outcome FINISHED = {100, nullptr};
static const Outcome NO_INPUT = {-1, "140217====6666"};
static const Outcome NO_OUTPUT = {-2, nullptr};
static const Outcome NO_MEMORY_AT_SEARCH = {-3, "140217====7777"};
static const Outcome NO_MEMORY_LATER = {-3, "140217====9999"};
static const Outcome NO_KEY_FRAME = {-4, "140217====8888"};
static const Outcome CANCELLED = {-5, nullptr};

// ---- finding frames
// -----------------------------------------------------------------------------------------

static bool is_wanted_header(LPBYTE at, int kind)
{
    if (memcmp(at, FLAG, sizeof(FLAG)) != 0 || !IsValidFrmHeader(at)) return false;
    return kind == ANY_FRAME || (kind == KEY_FRAME && at[offsetof(S_FrameHeader, u8FrameType)] == 0);
}

BOOL FindFrame(LPBYTE _pDataBuf, int _iBufSize, int* _iFramePos, int _iCase)
{
    if (!_pDataBuf || !_iFramePos || _iBufSize < static_cast<int>(FRAME_HEADER_SIZE)) return 0;

    // The flag's last byte is the rare one, so it leads from candidate to candidate.
    LPBYTE const end = _pDataBuf + _iBufSize - FRAME_HEADER_SIZE + sizeof(FLAG);
    LPBYTE last = _pDataBuf + sizeof(FLAG) - 1;
    while (last < end) {
        last = static_cast<LPBYTE>(memchr(last, FLAG[3], static_cast<size_t>(end - last)));
        if (!last) return 0;
        LPBYTE const start = last - (sizeof(FLAG) - 1);
        if (is_wanted_header(start, _iCase)) {
            *_iFramePos = static_cast<int>(start - _pDataBuf);
            return 1;
        }
        ++last;
    }
    return 0;
}

// ---- the file header
// ----------------------------------------------------------------------------------------

int HeaderChange(void)
{
    TSdv2Avi& job = g_tSdv2Avi;
    if (static_cast<int32_t>(job.m_Header.SamplesPerSec) == job.m_iAudioSampleRate) return 0;

    const int32_t rate = static_cast<int32_t>(job.m_Header.SamplesPerSec);
    const int32_t channels = job.m_Header.AChannels;
    const bool known = rate == 8000 || rate == 16000 || rate == 32000 || rate == 48000;
    job.m_iAudioSampleRate = known ? rate : 8000;
    job.m_iAudioChannel = channels == 1 || channels == 2 ? channels : 1;
    return 0;
}

static void complete_audio_defaults(S_FileHeader& header)
{
    if (header.AChannels == 0 || header.AChannels == 255) header.AChannels = 1;
    if (header.BitsPerSample == 0 || header.BitsPerSample == 255) header.BitsPerSample = 16;
    if (header.SamplesPerSec == 0 || header.SamplesPerSec == 0xFFFFFFFF) header.SamplesPerSec = 8000;
}

// ---- the frame loop
// -----------------------------------------------------------------------------------------

struct Progress
{
    int64_t converted;
    int64_t total;
};

static void advance(Progress& progress, uint32_t size)
{
    progress.converted += size;
    double ratio = static_cast<double>(progress.converted) / static_cast<double>(progress.total);
    if (ratio * 100 >= 100) ratio = 0.99;
    publish(g_tSdv2Avi.m_iPosition, static_cast<int32_t>(ratio * 100));
}

enum class Step
{
    next,
    end,
    no_memory,
    no_output
};

static Step next_or_end(ReadWindow& window)
{
    return seek_frame(window, ANY_FRAME) ? Step::next : Step::end;
}

// What is left is no whole frame.
static Step stop_before(const ReadWindow& window, Fill fill)
{
    note_skipped(window_position(window), input_end(window));
    return fill == Fill::no_memory ? Step::no_memory : Step::end;
}

static Step convert_frame(ReadWindow& window, Progress& progress)
{
    Fill fill = fill_window(window, FRAME_HEADER_SIZE);
    if (fill != Fill::enough) return stop_before(window, fill);

    S_FrameHeader header;
    memcpy(&header, window.bytes + window.at, sizeof(header));
    const uint32_t size = header.u32FrameSize;
    // Only a header behind a frame numbered 0 can be like this: it was not tested, and is damage.
    if (size < FRAME_HEADER_SIZE || size > MAX_FILE_FRAME) {
        note_skipped(window_position(window), window_position(window) + 1);
        window.at += 1;
        return next_or_end(window);
    }
    fill = fill_window(window, size);
    if (fill != Fill::enough) return stop_before(window, fill);

    unsigned char* frame = window.bytes + window.at;
    window.at += size;
    if (header.u32FrameNO == 0) {
        count_frame(FrameFate::numbered_0);
        return Step::next;
    }

    RecordAvi(frame, static_cast<int>(size));
    if (index_entry_lost()) return Step::no_memory;
    if (recording_trouble() != 0) return Step::no_output;
    advance(progress, size);
    return next_or_end(window);
}

static Outcome convert_frames(ReadWindow& window)
{
    Progress progress = {sizeof(S_FileHeader), window.input.size};
    Step step = Step::next;
    while (step == Step::next && !is_cancelled()) step = convert_frame(window, progress);

    if (step == Step::next) return CANCELLED;
    if (step == Step::no_memory) return NO_MEMORY_LATER;
    return step == Step::end ? FINISHED : NO_OUTPUT;
}

// The search begins at the start of the file: the file header is scanned too.
static Outcome search_and_convert(const InputFile& input)
{
    ReadWindow window(input);
    if (!open_window(window)) return NO_MEMORY_AT_SEARCH;
    if (!seek_frame(window, KEY_FRAME)) return NO_KEY_FRAME;

    window.before_change = flush_gathered;
    begin_gathering();
    const Outcome outcome = convert_frames(window);
    end_gathering();
    return outcome;
}

static Outcome convert(TSdv2Avi& job)
{
    job.m_iRecFileType = 1;
    InputFile input;
    if (!open_input(input, job.m_szInputPath)) return NO_INPUT;

    if (!read_file_header(input, job.m_Header)) return NO_INPUT;
    complete_audio_defaults(job.m_Header);
    HeaderChange();
    if (is_same_file(job.m_szInputPath, job.m_szOutputPath)) return NO_OUTPUT;

    Outcome outcome = NO_OUTPUT;
    if (StartRecord(1, job.m_szOutputPath, 1) >= 0) outcome = search_and_convert(input);
    if (finish_recording() != 0 && outcome.position == FINISHED.position) outcome = NO_OUTPUT;
    return outcome;
}

void convert_in_thread()
{
    TSdv2Avi& job = g_tSdv2Avi;
    Outcome outcome = convert(job);
    if (close_to_cancelling()) outcome = CANCELLED;
    if (outcome.position == FINISHED.position) {
        publish(job.m_iIsSwitching, 0);
        publish(job.m_iPosition, outcome.position);
        return;
    }

    publish(job.m_iPosition, outcome.position);
    // Nothing may take the recording itself away.
    if (!is_same_file(job.m_szInputPath, job.m_szOutputPath)) remove_output(job.m_szOutputPath);
    publish(job.m_iIsSwitching, 0);
    if (outcome.text) fputs(outcome.text, stdout);
}

void* ThreadChangeProc(void*)
{
    const CancelGuard whole;
    begin_conversion();
    convert_in_thread();
    end_conversion();
    return nullptr;
}
