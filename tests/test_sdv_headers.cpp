#include <cstring>

#include "support.h"

TEST(SdvHeaders, FileHeaderNeedsKnownModeAndRate)
{
    for (const int rate : {0, 30, 31, 65535}) {
        for (const int mode : {0, 11, 20, 21, 22, 31, 32, 33, 41, 21 + 256}) {
            const Bytes bytes = sdv::file_header({.mode = uint16_t(mode), .frameRate = uint16_t(rate)});
            S_FileHeader header;
            memcpy(&header, bytes.data(), sizeof(header));
            const bool known = mode == 11 || mode == 21 || mode == 31 || mode == 32 || mode == 41;
            EXPECT_EQ(IsValidFileHeader(&header), rate <= 30 && known) << rate << ", mode " << mode;
        }
    }
}

TEST(SdvHeaders, FrameSizesMustAddUp)
{
    const struct
    {
        const char* what;
        uint32_t frame, video;
        uint16_t slots, slotSize;
        bool converts, streams;
    } rows[] = {
        {"header alone", 32, 0, 0, 0, true, true},
        {"one slot before, two after", 32 + 1000 + 3 * 324, 1000, 0x0102, 324, true, true},
        {"one byte too many", 32 + 1000 + 3 * 324 + 1, 1000, 0x0102, 324, false, false},
        {"slots counted as one number", 32 + 10 + 0x0102 * 4, 10, 0x0102, 4, false, false},
        {"exactly 1 MiB", 0x100000, 0x100000 - 32, 0, 0, true, true},
        {"above 1 MiB", 0x100001, 0x100001 - 32, 0, 0, false, true},
        {"exactly 2 MiB", 0x200000, 0x200000 - 32, 0, 0, false, true},
        {"above 2 MiB", 0x200001, 0x200001 - 32, 0, 0, false, false},
        {"video wraps the sum", 31, 0xFFFFFFFF, 0, 0, false, false},
        {"all zero", 0, 0, 0, 0, false, false},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        Bytes header = Bytes(1, 0xEE) + // frames lie at any address
                       words(0, row.frame, 0, 0, 0, row.video, half(row.slots), half(row.slotSize), 0);
        EXPECT_EQ(IsValidFrmHeader(&header[1]), row.converts);
        for (const int mode : {0, 21, 41}) EXPECT_EQ(IsValidFrameHeader(&header[1], mode), row.streams);
        EXPECT_EQ(IsValidFrameHeader(&header[1], 11), 1);
        EXPECT_EQ(GetFrameSize(&header[1], 21), int(row.frame));
    }
    Bytes mpeg4 = hex("00008000ff0102ff");
    EXPECT_EQ(GetFrameSize(mpeg4.data(), 11), 258) << "big-endian";
    EXPECT_TRUE(!IsValidFileHeader(nullptr) && !IsValidFrmHeader(nullptr) &&
                !IsValidFrameHeader(nullptr, 21));
    EXPECT_TRUE(GetFrameSize(nullptr, 21) == -1 && GetFrameSize(nullptr, 11) == -1);
}
