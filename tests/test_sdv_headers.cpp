#include <cstddef>

#include "support.h"

TEST(SdvHeaders, FieldsLieAsInTheFile)
{
    const size_t fileOffsets[] = {offsetof(S_FileHeader, Mode),          offsetof(S_FileHeader, cCovWord),
                                  offsetof(S_FileHeader, TriggerLow),    offsetof(S_FileHeader, AChannels),
                                  offsetof(S_FileHeader, SamplesPerSec), offsetof(S_FileHeader, FrameCount)};
    EXPECT_EQ(std::vector<size_t>(std::begin(fileOffsets), std::end(fileOffsets)),
              (std::vector<size_t>{6, 24, 68, 74, 76, 84}));
    const size_t frameOffsets[] = {
        offsetof(S_FrameHeader, u32FrameSize), offsetof(S_FrameHeader, u8FrameType),
        offsetof(S_FrameHeader, u32FrameNO),   offsetof(S_FrameHeader, u32VStreamLen),
        offsetof(S_FrameHeader, u16AFrames),   offsetof(S_FrameHeader, u16AFrameSize),
        offsetof(S_FrameHeader, u8ACoder),     offsetof(S_FrameHeader, reserved)};
    EXPECT_EQ(std::vector<size_t>(std::begin(frameOffsets), std::end(frameOffsets)),
              (std::vector<size_t>{4, 8, 12, 20, 24, 26, 28, 30}));
}

TEST(SdvHeaders, FileHeaderNeedsKnownModeAndRate)
{
    for (int rate : {0, 1, 30, 31, 65535}) {
        for (int mode : {0, 10, 11, 12, 20, 21, 22, 30, 31, 32, 33, 40, 41, 42, 21 + 256}) {
            sdv::FileFields fields;
            fields.frameRate = static_cast<uint16_t>(rate);
            fields.mode = static_cast<uint16_t>(mode);
            S_FileHeader header;
            memcpy(&header, sdv::file_header(fields).data(), sizeof(header));
            const bool known = mode == 11 || mode == 21 || mode == 31 || mode == 32 || mode == 41;
            EXPECT_EQ(IsValidFileHeader(&header), rate <= 30 && known)
                << "rate " << rate << ", mode " << mode;
        }
    }
    EXPECT_EQ(IsValidFileHeader(nullptr), 0);
}

struct FrameSizes
{
    const char* what;
    uint32_t frame, video;
    uint16_t slots, slotSize;
    bool converts, streams;
};

static Bytes header_bytes(const FrameSizes& sizes)
{
    Bytes header(33, 0xEE); // one byte in front: frames lie at any address
    const auto put = [&](size_t at, uint32_t value, size_t size) {
        for (size_t i = 0; i < size; ++i) header[1 + at + i] = static_cast<uint8_t>(value >> (8 * i));
    };
    put(4, sizes.frame, 4);
    put(20, sizes.video, 4);
    put(24, sizes.slots, 2);
    put(26, sizes.slotSize, 2);
    return header;
}

TEST(SdvHeaders, FrameSizesMustAddUp)
{
    const FrameSizes rows[] = {
        {"header alone", 32, 0, 0, 0, true, true},
        {"one slot before, two after", 32 + 1000 + 3 * 324, 1000, 0x0102, 324, true, true},
        {"one byte too many", 32 + 1000 + 3 * 324 + 1, 1000, 0x0102, 324, false, false},
        {"slots counted as one number", 32 + 10 + 0x0102 * 4, 10, 0x0102, 4, false, false},
        {"exactly 1 MiB", 0x100000, 0x100000 - 32, 0, 0, true, true},
        {"above 1 MiB", 0x100001, 0x100001 - 32, 0, 0, false, true},
        {"exactly 2 MiB", 0x200000, 0x200000 - 32, 0, 0, false, true},
        {"above 2 MiB", 0x200001, 0x200001 - 32, 0, 0, false, false},
        {"video wraps the sum", 31, 0xFFFFFFFF, 0, 0, false, false},
        {"all bits set", 0xFFFFFFFF, 0xFFFFFFFF, 0xFFFF, 0xFFFF, false, false},
        {"all zero", 0, 0, 0, 0, false, false},
    };
    for (const FrameSizes& row : rows) {
        SCOPED_TRACE(row.what);
        Bytes header = header_bytes(row);
        EXPECT_EQ(IsValidFrmHeader(&header[1]), row.converts);
        for (int mode : {0, 21, 22, 31, 41}) EXPECT_EQ(IsValidFrameHeader(&header[1], mode), row.streams);
        EXPECT_EQ(IsValidFrameHeader(&header[1], 11), 1);
        EXPECT_EQ(GetFrameSize(&header[1], 21), static_cast<int>(row.frame));
    }
    EXPECT_EQ(IsValidFrmHeader(nullptr), 0);
    EXPECT_EQ(IsValidFrameHeader(nullptr, 21), 0);
    EXPECT_EQ(GetFrameSize(nullptr, 21), -1);
}

TEST(SdvHeaders, FlagsByMode)
{
    const std::pair<int, int> rows[] = {{11, 0x00800000}, {21, 0x02000000}, {22, 0x02000000},
                                        {31, 0x03000000}, {32, 0x04000000}, {41, 0x02000000},
                                        {0, -1},          {12, -1},         {20, -1},
                                        {30, -1},         {40, -1},         {42, -1}};
    for (const auto& [mode, flag] : rows) EXPECT_EQ(GetFrameFlagByMode(mode), flag) << mode;
}

TEST(SdvHeaders, Mpeg4SizeIsBigEndian)
{
    Bytes header = hex("00008000ff0102ff");
    header.resize(32);
    EXPECT_EQ(GetMPEG4FrmSize(header.data()), 258);
    EXPECT_EQ(GetFrameSize(header.data(), 11), 258);
    EXPECT_EQ(GetMPEG4FrmSize(nullptr), -1);
    EXPECT_EQ(GetFrameSize(nullptr, 11), -1);
    EXPECT_EQ(IsValidMPEG4FrmHeader(nullptr), 1);
}
