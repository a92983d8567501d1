#include "sdv_build.h"

#include <algorithm>
#include <cassert>
#include <cstring>

#include "AES.h"
#include "CommonFun.h"

namespace sdv {

namespace {

const size_t ENCIPHERED_BYTES = 64;

template <typename Record>
Bytes as_bytes(const Record& record)
{
    Bytes bytes(sizeof(record));
    memcpy(bytes.data(), &record, sizeof(record));
    return bytes;
}

size_t slot_size(const FrameFields& fields)
{
    if (!fields.audioBefore.empty()) return fields.audioBefore.front().size();
    return fields.audioAfter.empty() ? 0 : fields.audioAfter.front().size();
}

void append_slots(Bytes& to, const std::vector<Bytes>& slots, [[maybe_unused]] size_t size)
{
    assert(slots.size() <= 255 && size <= 0xFFFF);
    for (const Bytes& slot : slots) {
        assert(slot.size() == size);
        append(to, slot);
    }
}

} // namespace

Bytes file_header(const FileFields& fields)
{
    S_FileHeader header = {};
    header.FrameRate = fields.frameRate;
    header.Width = fields.width;
    header.Height = fields.height;
    header.Mode = fields.mode;
    header.bAudio = fields.hasAudio;
    header.Year = fields.year;
    header.Month = fields.month;
    header.Day = fields.day;
    header.Hour = fields.hour;
    header.Minute = fields.minute;
    header.Second = fields.second;
    header.AChannels = fields.channels;
    header.BitsPerSample = fields.bitsPerSample;
    header.SamplesPerSec = fields.sampleRate;
    header.TotalSize = fields.totalSize;
    header.FrameCount = fields.frameCount;
    return as_bytes(header);
}

Bytes frame(const FrameFields& fields)
{
    const size_t slotSize = slot_size(fields);
    const size_t slots = fields.audioBefore.size() + fields.audioAfter.size();

    S_FrameHeader header = {};
    header.u32FrameID = fields.flag;
    header.u32FrameSize = static_cast<uint32_t>(sizeof(header) + fields.video.size() + slots * slotSize);
    header.u8FrameType = fields.type;
    header.u32FrameNO = fields.number;
    header.u32TimeStamp = fields.timeStamp;
    header.u32VStreamLen = static_cast<uint32_t>(fields.video.size());
    header.u16AFrames = static_cast<uint16_t>(fields.audioBefore.size() << 8 | fields.audioAfter.size());
    header.u16AFrameSize = static_cast<uint16_t>(slotSize);
    header.u8ACoder = fields.audioCode;
    header.reserved = fields.reserved;

    Bytes bytes = as_bytes(header);
    append_slots(bytes, fields.audioBefore, slotSize);
    append(bytes, fields.video);
    append_slots(bytes, fields.audioAfter, slotSize);
    return bytes;
}

void encipher(Bytes& frame, View key)
{
    S_FrameHeader header;
    if (frame.size() < sizeof(header)) return;

    memcpy(&header, frame.data(), sizeof(header));
    header.reserved = static_cast<uint16_t>((header.reserved & ~3u) | 2u);
    memcpy(frame.data(), &header, sizeof(header));

    Bytes keyCopy(key.begin(), key.end());
    const size_t length = std::min(ENCIPHERED_BYTES, frame.size() - sizeof(header));
    video_AES_CTR(frame.data() + sizeof(header), static_cast<int>(length), header.u32FrameNO, keyCopy.data(),
                  static_cast<int>(keyCopy.size()));
}

Bytes g711_slot(View samples)
{
    Bytes slot = {0, 1, static_cast<uint8_t>(samples.size() / 2), 0};
    append(slot, samples);
    return slot;
}

void append(Bytes& to, View from)
{
    to.insert(to.end(), from.begin(), from.end());
}

} // namespace sdv
