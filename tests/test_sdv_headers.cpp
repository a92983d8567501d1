#include "support.h"

TEST(SdvHeaders, FileHeaderNeedsKnownModeAndRate)
{
    for (const int rate : {0, 30, 31, 65535}) {
        for (const int mode : {0, 11, 20, 21, 22, 31, 32, 33, 41, 21 + 256}) {
            S_FileHeader header = {};
            header.Mode = uint16_t(mode);
            header.FrameRate = uint16_t(rate);
            const bool known = mode == 11 || mode == 21 || mode == 31 || mode == 32 || mode == 41;
            EXPECT_EQ(IsValidFileHeader(&header), rate <= 30 && known) << rate << ", mode " << mode;
        }
    }
}

TEST(SdvHeaders, FrameSizesMustAddUp)
{
    const std::tuple<const char*, uint32_t, uint32_t, uint16_t, uint16_t, bool, bool> rows[] = {
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
    for (const auto& [what, size, video, slots, slotSize, converts, streams] : rows) {
        SCOPED_TRACE(what);
        Bytes header = Bytes(1, 0xEE) + // frames lie at any address
                       words(0, size, 0, 0, 0, video, half(slots), half(slotSize), 0);
        EXPECT_EQ(IsValidFrmHeader(&header[1]), converts);
        for (const int mode : {0, 21, 41}) EXPECT_EQ(IsValidFrameHeader(&header[1], mode), streams);
        EXPECT_EQ(IsValidFrameHeader(&header[1], 11), 1);
        EXPECT_EQ(GetFrameSize(&header[1], 21), int(size));
    }
    Bytes mpeg4 = hex("00008000ff0102ff");
    EXPECT_EQ(GetFrameSize(mpeg4.data(), 11), 258) << "big-endian";
    EXPECT_TRUE(!IsValidFileHeader(nullptr) && !IsValidFrmHeader(nullptr) &&
                !IsValidFrameHeader(nullptr, 21));
    EXPECT_TRUE(GetFrameSize(nullptr, 21) == -1 && GetFrameSize(nullptr, 11) == -1);
}
