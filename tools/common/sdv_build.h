// Building SDV recordings in memory: file header, frames, audio slots, encryption. For sdvmake and the tests.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

namespace sdv {

using Bytes = std::vector<uint8_t>;
using View = std::span<const uint8_t>;

struct FileFields
{
    uint16_t mode = 21;
    uint16_t frameRate = 25;
    uint16_t width = 352;
    uint16_t height = 288;
    uint16_t hasAudio = 0;
    uint16_t year = 2026, month = 1, day = 2, hour = 3, minute = 4, second = 5;
    uint8_t channels = 1;
    uint8_t bitsPerSample = 16;
    uint32_t sampleRate = 8000;
    uint32_t totalSize = 0;
    uint32_t frameCount = 0;
};

struct FrameFields
{
    uint32_t flag = 0x02000000; // first four bytes: 00 00 00 02
    uint32_t number = 1;
    uint8_t type = 0; // 0 key frame, 1 predicted
    uint32_t timeStamp = 0;
    Bytes video;
    std::vector<Bytes> audioBefore; // slots; all of a frame have the same size
    std::vector<Bytes> audioAfter;
    uint8_t audioCode = 0; // 1 A-law, 2 mu-law, 22 AAC
    uint16_t reserved = 0;
};

// The 88 bytes at the start of a recording.
Bytes file_header(const FileFields& fields);

// A well-formed frame: header and payload.
Bytes frame(const FrameFields& fields);

// Mark a frame as enciphered and encipher the first 64 bytes of its payload with the key.
void encipher(Bytes& frame, View key);

// A G.711 slot: the prefix 00 01 N 00 and the samples behind it.
Bytes g711_slot(View samples);

void append(Bytes& to, View from);

} // namespace sdv
