#include <stdio.h>
#include <string.h>

#include "Quorlin_file.h"
#include "Quorlin_internal.h"
#include "Quorlin_running.h"
#include "Quorlin_window.h"

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

// ---- the frame loop

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
    const int32_t percent = static_cast<int32_t>(ratio * 100);
    publish(g_tSdv2Avi.m_iPosition, percent);
    note_progress(percent);
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
    if (fill != Fill::enough) {
        note_cut_off(window_position(window));
        return stop_before(window, fill);
    }

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
    CompleteFileHeader(&job.m_Header);
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
    end_conversion(observe(g_tSdv2Avi.m_iPosition));
    return nullptr;
}
