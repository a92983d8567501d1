// What the sources of the converter share beyond the public interface.
#pragma once

#include <stdint.h>

#include <atomic>

#include "Quorlin.h"
#include "block_list.h"

// Fields that other threads read while a conversion runs.
inline void publish(int32_t& field, int32_t value)
{
    std::atomic_ref<int32_t>(field).store(value, std::memory_order_release);
}

inline int32_t observe(int32_t& field)
{
    return std::atomic_ref<int32_t>(field).load(std::memory_order_acquire);
}

constexpr FOURCC fourcc(const char (&text)[5])
{
    return static_cast<uint8_t>(text[0]) | static_cast<uint32_t>(static_cast<uint8_t>(text[1])) << 8 |
           static_cast<uint32_t>(static_cast<uint8_t>(text[2])) << 16 |
           static_cast<uint32_t>(static_cast<uint8_t>(text[3])) << 24;
}

// Codings of audio, as u8ACoder of a frame tells them.
const int CODE_ALAW = 1;
const int CODE_MULAW = 2;
const int CODE_AAC = 22;

const uint32_t FRAME_HEADER_SIZE = sizeof(S_FrameHeader);
const uint32_t MAX_FILE_FRAME = 0x100000; // largest frame that a whole-file conversion takes

// A conversion thread is joined exactly once. This record tells a second caller that it was waited for: the
// handle in the job stays, and a later thread may get the same one.
struct WaitedThread
{
    pthread_mutex_t lock;
    pthread_t thread;
    bool done;
};
extern WaitedThread g_tWaited;

// ---- preparing the job (Quorlin_prepare.cpp) ----

// As Initialize() and QuorlinRelease(), for the conversion that runs.
void prepare_job(int _iAudioSampleRate);
void release_job();

// ---- search (Quorlin_search.cpp) ----

// Kinds of frames, as FindFrame() takes them.
const int ANY_FRAME = 0;
const int KEY_FRAME = 1;

// ---- conversion (Quorlin_conversion.cpp) ----

// As ThreadChangeProc(), when the conversion has begun.
void convert_in_thread();

// ---- output (Quorlin_output.cpp) ----

// Between these two, WriteTofile() gathers: bytes handed to it stay where they are until flush_gathered().
// begin_gathering() is false when that is so already, or cannot be.
bool begin_gathering();
void end_gathering();
void flush_gathered();

// A frame counts as recorded; some of its bytes may be gathered still.
void frame_gathered();

// Where the next byte goes; -1 when that cannot be told.
int64_t output_position();
void seek_output(int64_t position);

// While nothing is gathered. What follows a seek that fails would be written to the wrong place.
void seek_file(int64_t position, int whence);

// Has any write to the open file failed, or a seek?
bool output_failed();

// What the last file left, gathering included, is no concern of the next one.
void forget_output();

// ---- index (Quorlin_index.cpp) ----

// Kinds of chunks, as AVI_AddIndex() takes them.
const int KIND_KEY_FRAME = 0;
const int KIND_VIDEO = 1;
const int KIND_AUDIO = 5;

// Give all blocks in m_lstIndex back to the pool.
void return_queued_blocks();

// Entries that the index really holds.
int32_t held_entries();

// An empty index for a new file: no entries left over, and a block to fill when one is to be had.
void begin_index();

// ---- headers (Quorlin_avi.cpp) ----

// As AVI_WriteMoviHeader(), for movi lists of up to 4 GiB.
int write_movi_header(uint32_t size, AVI_MediaType type);

// ---- report (Quorlin_report.cpp) ----

enum class FrameFate
{
    recorded,
    numbered_0,
    no_key,
    wrong_key,
    inconsistent,
    not_written
};

void reset_report();
void count_frame(FrameFate fate);
void note_number(uint32_t number); // of a frame whose parts lie within it, and which is not numbered 0

// Frames that count as recorded could not be written after all.
void take_back_recorded(uint64_t frames);

// Bytes [from, to) of the input file were passed over.
void note_skipped(uint64_t from, uint64_t to);

// Bytes [from, to) of the stream buffer were.
void note_skipped_in_stream(uint64_t from, uint64_t to);

// Reading the input failed at from and gives up what lies before its end; nothing, when they are the same.
void note_unreadable(uint64_t from, uint64_t end);

// A frame begins here, and the input ends inside it.
void note_cut_off(uint64_t at);

// The stream buffer's first len bytes are done with.
void consume_stream(uint64_t len);

// ---- recorder (Quorlin_recorder.cpp) ----

// As StopRecord(), for the conversion that runs.
int finish_recording();

// Was a chunk written without an entry in the index, for want of memory?
bool index_entry_lost();

// 0 all is well; 1 something could not be written, or indexed; 2 the file has reached its size limit.
int recording_trouble();

// ---- late audio (Quorlin_late_audio.cpp) ----

enum class Moved
{
    whole,      // the file ends late_audio_room() bytes later
    not_at_all, // it cannot grow, and stays as it was
    torn        // reading or writing failed half-way
};

// Bytes by which the header area grows when an audio stream joins the video.
int late_audio_room();

// Move the chunks of a file that was laid out for video only, and ends at end, up by late_audio_room(). It
// must have room for index further bytes too: a file without audio is worth more than one without an index.
Moved move_chunks_up(FILE* file, int64_t end, int64_t index);
