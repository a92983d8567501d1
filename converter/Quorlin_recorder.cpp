#include <stdio.h>
#include <string.h>

#include <utility>

#include "Quorlin_file.h"
#include "Quorlin_internal.h"
#include "Quorlin_running.h"

static const uint32_t G711_PREFIX = 4;
static const uint32_t ADTS_HEADER = 7;
static const uint32_t ENTRY_SIZE = sizeof(AVI_IndexEntity);

// Offsets and sizes in the file are 32 bits wide; players want some air below 4 GiB.
static const int64_t FILE_LIMIT = (int64_t{4} << 30) - (int64_t{64} << 10);

// Set when a chunk did not fit the open file any more. Everything after it is left out.
static bool s_bLimitReached;

// Set when there was no memory for the entry of a chunk: players that go by the index miss that chunk.
static bool s_bEntryLost;

// StartRecord() was called once more while frames were being recorded: they go on where the last one ended.
static bool s_bGoesOn;

// A frame taken apart; every part lies inside it.
struct FrameParts
{
    S_FrameHeader header;
    unsigned char* before;
    unsigned char* video;
    unsigned char* after;
    uint32_t slotsBefore;
    uint32_t slotsAfter;
};

static void forget_trouble()
{
    s_bLimitReached = false;
    s_bEntryLost = false;
    s_bGoesOn = false;
    forget_output();
}

// ---- starting

void Inner_InitializeRecord(const char* _cFileName)
{
    g_tSdv2Avi.m_fsRec = _cFileName ? open_output(_cFileName) : nullptr;
    if (g_tSdv2Avi.m_fsRec) forget_trouble();
}

static bool open_clean_file(TSdv2Avi& job, const char* path)
{
    job.m_bWriteHead = 0;
    job.m_iFrameCount = 0;
    Inner_InitializeRecord(path);
    if (!job.m_fsRec) return false;

    job.m_iTotalFrames = 0;
    job.m_iAudioFrames = 0;
    job.m_iMaxFrameLen = 0;
    job.m_iMoviBeginPos = 0;
    job.m_iAviOffset = 4;
    begin_index();
    reset_report();
    return true;
}

int StartRecord(int, const char* _cFileName, int)
{
    const CancelGuard whole;
    TSdv2Avi& job = g_tSdv2Avi;
    job.m_iAudioSampleRate = static_cast<int32_t>(job.m_Header.SamplesPerSec);
    job.m_iAudioChannel = job.m_Header.AChannels;
    if (!_cFileName) return -99;

    if (job.m_fsRec && job.m_iAviInitTimes != 0) s_bGoesOn = true;
    const bool opened = !job.m_fsRec && open_clean_file(job, _cFileName);
    job.m_iRecFileType = 1;
    job.m_iAviInitTimes = 0;
    return opened ? 0 : -9;
}

// ---- layout

static AVI_MediaType media_type(const TSdv2Avi& job)
{
    return job.m_iHaveAudio != 0 ? AVI_VideoAndAudio : AVI_Video;
}

// Chunks begin where a header area without audio streams ends.
static bool is_laid_out_for_video(const TSdv2Avi& job)
{
    return job.m_iMoviBeginPos == AVI_MoviSkipLen(AVI_Video) + static_cast<int>(sizeof(AVI_FrameHeader));
}

static void detect_audio(TSdv2Avi& job, int code)
{
    if (job.m_iHaveAudio != 0) return;
    if (code != CODE_ALAW && code != CODE_MULAW && code != CODE_AAC) return;

    job.m_iHaveAudio = code;
    if (code == CODE_AAC) job.m_iDestType = 1;
    if (job.m_iMoviBeginPos != 0) AVI_FrameHeaderInit(AVI_VideoAndAudio, nullptr, &job.m_AudioFrameHeader);
}

static void lay_out(TSdv2Avi& job)
{
    if (job.m_iAviInitTimes != 0 || !job.m_fsRec) return;

    job.m_iAviInitTimes = 1;
    if (std::exchange(s_bGoesOn, false)) return;

    const AVI_MediaType type = media_type(job);
    AVI_init(type);
    const int skip = AVI_MoviSkipLen(type);
    seek_output(skip + static_cast<int>(sizeof(AVI_MoviHeader)));
    job.m_iMoviBeginPos = skip + static_cast<int>(sizeof(AVI_FrameHeader));
}

// ---- chunks

static int64_t index_size(int32_t entries)
{
    return int64_t{sizeof(AVI_IndexHeader)} + int64_t{entries} * ENTRY_SIZE;
}

// Would the finished file, with this chunk and its index entry, stay below the limit?
static bool fits(const TSdv2Avi& job, uint32_t len)
{
    if (!job.m_fsRec) return true;

    const int64_t chunk = int64_t{sizeof(AVI_FrameHeader)} + len + (len & 1);
    return output_position() + chunk + index_size(job.m_iTotalFrames + 1) + late_audio_room() < FILE_LIMIT;
}

static bool write_chunk(TSdv2Avi& job, AVI_FrameHeader& header, unsigned char* data, uint32_t len, int kind)
{
    if (s_bLimitReached || !fits(job, len)) {
        s_bLimitReached = true;
        return false;
    }
    header.dwFrameSize = len;
    WriteTofile(reinterpret_cast<UCHAR*>(&header), sizeof(header));
    WriteTofile(data, static_cast<int>(len));
    if (AVI_AddIndex(static_cast<int>(len), kind) != 0) s_bEntryLost = true;
    UCHAR pad = '0';
    if (len & 1) WriteTofile(&pad, 1);
    job.m_iTotalFrames += 1;
    return true;
}

static void write_audio_chunk(TSdv2Avi& job, AVI_FrameHeader& header, unsigned char* data, uint32_t len)
{
    if (write_chunk(job, header, data, len, KIND_AUDIO)) job.m_iAudioFrames += 1;
}

// One chunk for each ADTS frame in the slot. What remains behind the last whole one is padding.
// m_AudioFrameHeader stays that of a whole slot.
static void write_adts_frames(TSdv2Avi& job, unsigned char* slot, uint32_t size)
{
    AVI_FrameHeader header = job.m_AudioFrameHeader;
    while (size > ADTS_HEADER) {
        InitHeader(slot);
        const uint32_t len = static_cast<uint32_t>(GetHeader()->aac_frame_lenght);
        if (len < ADTS_HEADER || len > size) return;
        write_audio_chunk(job, header, slot + ADTS_HEADER, len - ADTS_HEADER);
        slot += len;
        size -= len;
    }
}

enum class SlotForm
{
    whole, // without its prefix
    split, // into ADTS frames
    left_out
};

static SlotForm form_before_video(const TSdv2Avi& job)
{
    return job.m_iHaveAudio == CODE_AAC ? SlotForm::split : SlotForm::whole;
}

// Only here callers can choose, by m_iDestType.
static SlotForm form_behind_video(const TSdv2Avi& job)
{
    if (job.m_iDestType != 1) return SlotForm::whole;
    return job.m_iHaveAudio == CODE_AAC ? SlotForm::split : SlotForm::left_out;
}

static void write_slots(TSdv2Avi& job, unsigned char* slots, uint32_t count, uint32_t size, SlotForm form)
{
    if (job.m_iHaveAudio == 0) return;

    for (uint32_t i = 0; i < count; ++i) {
        unsigned char* slot = slots + i * size;
        if (!CheckAudio(job.m_iHaveAudio, slot, static_cast<int>(size))) continue;
        if (form == SlotForm::whole)
            write_audio_chunk(job, job.m_AudioFrameHeader, slot + G711_PREFIX, size - G711_PREFIX);
        else if (form == SlotForm::split)
            write_adts_frames(job, slot, size);
    }
}

static void write_video(TSdv2Avi& job, const FrameParts& frame)
{
    const uint32_t len = frame.header.u32VStreamLen;
    const int kind = frame.header.u8FrameType == 0 ? KIND_KEY_FRAME : KIND_VIDEO;
    if (!write_chunk(job, job.m_VideoFrameHeader, frame.video, len, kind)) return;
    if (static_cast<int32_t>(len) > job.m_iMaxFrameLen) job.m_iMaxFrameLen = static_cast<int32_t>(len);
}

BOOL CheckAudio(int _iAudioType, LPBYTE _pEncAudioData, int _iLen)
{
    const uint32_t len = static_cast<uint32_t>(_iLen);
    if (len <= 3) return 0;
    if (_iAudioType == CODE_AAC) return 1;
    if (_iAudioType < 1 || _iAudioType > 3 || !_pEncAudioData) return 0;
    return _pEncAudioData[0] == 0 && _pEncAudioData[1] == 1 && _pEncAudioData[2] == (len - G711_PREFIX) / 2 &&
           _pEncAudioData[3] == 0;
}

// ---- frames

static FrameFate take_apart(unsigned char* data, int length, FrameParts& frame)
{
    if (!data || length < static_cast<int>(FRAME_HEADER_SIZE)) return FrameFate::inconsistent;

    S_FrameHeader& header = frame.header;
    memcpy(&header, data, sizeof(header));
    if (header.u32FrameNO == 0) return FrameFate::numbered_0;

    frame.slotsBefore = header.u16AFrames >> 8;
    frame.slotsAfter = header.u16AFrames & 0xFF;
    const uint64_t slots = uint64_t{frame.slotsBefore + frame.slotsAfter} * header.u16AFrameSize;
    if (FRAME_HEADER_SIZE + slots + header.u32VStreamLen > static_cast<uint64_t>(length))
        return FrameFate::inconsistent;

    frame.before = data + FRAME_HEADER_SIZE;
    frame.video = frame.before + frame.slotsBefore * header.u16AFrameSize;
    frame.after = frame.video + header.u32VStreamLen;
    note_number(header.u32FrameNO);
    return FrameFate::recorded;
}

// A frame numbered 0 is dropped for that, whatever its key.
static FrameFate open_frame(unsigned char* data, int length, FrameParts& frame)
{
    const int deciphered = CA_DecryptFrame(data, length, 0);
    const FrameFate fate = take_apart(data, length, frame);
    if (fate == FrameFate::numbered_0) return fate;
    if (deciphered == -2) return FrameFate::no_key;
    return deciphered == -4 ? FrameFate::wrong_key : fate;
}

// A frame by itself goes to the system in one call: a program that is killed loses none that came whole.
static FrameFate write_frame(TSdv2Avi& job, const FrameParts& frame)
{
    const bool alone = begin_gathering();
    detect_audio(job, frame.header.u8ACoder);
    lay_out(job);
    const uint32_t slot = frame.header.u16AFrameSize;
    if (job.m_iHaveAudio != 0) job.m_AudioFrameHeader.dwFrameSize = slot - G711_PREFIX;
    write_slots(job, frame.before, frame.slotsBefore, slot, form_before_video(job));
    write_video(job, frame);
    write_slots(job, frame.after, frame.slotsAfter, slot, form_behind_video(job));
    job.m_bWriteHead = 1;
    if (alone) end_gathering();
    return output_failed() ? FrameFate::not_written : FrameFate::recorded;
}

int RecordAvi(unsigned char* _ucData, int _iLength)
{
    const CancelGuard whole;
    TSdv2Avi& job = g_tSdv2Avi;
    FrameParts frame;
    FrameFate fate = open_frame(_ucData, _iLength, frame);
    if (fate == FrameFate::recorded) fate = write_frame(job, frame);
    if (!job.m_fsRec || (fate == FrameFate::recorded && s_bLimitReached)) return 0;

    count_frame(fate);
    if (fate == FrameFate::recorded) frame_gathered();
    return 0;
}

bool index_entry_lost()
{
    return s_bEntryLost;
}

int recording_trouble()
{
    if (output_failed() || s_bEntryLost) return 1;
    return s_bLimitReached ? 2 : 0;
}

// ---- finishing

// Write everything that depends on the whole recording. end is where the chunks end.
static int write_headers_and_index(TSdv2Avi& job, int64_t end)
{
    const int32_t entries = held_entries();
    const int64_t index = int64_t{entries} * ENTRY_SIZE;
    // A file without entries gets no idx1 header either, and its bare header area counts as empty.
    const int64_t riff =
        entries > 0 || end <= 0 ? end + index : end - static_cast<int64_t>(sizeof(AVI_FrameHeader));
    const AVI_Header summary = {job.m_Header.Width, job.m_Header.Height,
                                job.m_iTotalFrames - job.m_iAudioFrames, static_cast<int32_t>(riff),
                                job.m_iMaxFrameLen};
    const AVI_MediaType type = media_type(job);

    int failed = AVI_WriteFileHeader(summary, type);
    const int64_t movi = end - job.m_iMoviBeginPos;
    if (movi > 0) failed |= write_movi_header(static_cast<uint32_t>(movi), type);
    return failed | AVI_CreateAVIIndex(entries, type);
}

// A file that cannot grow by the audio stream's headers is finished without them.
static int finish_without_audio(TSdv2Avi& job, int64_t end)
{
    const int32_t code = job.m_iHaveAudio;
    job.m_iHaveAudio = 0;
    write_headers_and_index(job, end);
    job.m_iHaveAudio = code;
    return 1;
}

int64_t GetRecordedSize(void)
{
    const TSdv2Avi& job = g_tSdv2Avi;
    if (!job.m_fsRec) return -1;

    const int32_t entries = held_entries();
    if (entries == 0) return AVI_MoviSkipLen(media_type(job));
    const int64_t size = output_position() + index_size(entries);
    return job.m_iHaveAudio != 0 && is_laid_out_for_video(job) ? size + late_audio_room() : size;
}

static int finish_file(TSdv2Avi& job)
{
    const int64_t end = ftello(job.m_fsRec);
    if (end < 0) {
        puts("ftell has error");
        write_headers_and_index(job, end);
        return 1; // what is in the headers now is wrong
    }
    if (job.m_iHaveAudio == 0 || !is_laid_out_for_video(job)) return write_headers_and_index(job, end);

    const Moved moved = move_chunks_up(job.m_fsRec, end, index_size(held_entries()));
    if (moved == Moved::not_at_all) return finish_without_audio(job, end);
    if (moved == Moved::torn) return 1; // headers would take the place of chunks that were not moved

    job.m_iMoviBeginPos += late_audio_room();
    return write_headers_and_index(job, end + late_audio_room());
}

int finish_recording()
{
    TSdv2Avi& job = g_tSdv2Avi;
    if (!job.m_fsRec) return 0;

    int result = job.m_iRecFileType == 1 ? finish_file(job) : 0;
    const int trouble = recording_trouble();
    if (fclose(job.m_fsRec) != 0 || trouble == 1) result = 1;
    job.m_fsRec = nullptr;
    forget_trouble();
    return result == 0 ? trouble : 1;
}

// A conversion closes its file itself; nobody takes it away from it.
int StopRecord(int)
{
    const CancelGuard whole;
    if (!try_begin_use()) return 1;
    const int result = finish_recording();
    end_use();
    return result;
}

int HVDecReset(void*, short)
{
    return 0;
}
