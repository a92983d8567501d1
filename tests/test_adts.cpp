#include <cstring>

#include "support.h"

TEST(Adts, EachBitInItsOwnField)
{
    const int widths[] = {12, 1, 2, 1, 2, 4, 1, 3, 1, 1, 1, 1, 13, 11, 2};
    size_t bit = 0;
    for (size_t field = 0; field < std::size(widths); ++field) {
        for (int weight = widths[field] - 1; weight >= 0; --weight, ++bit) {
            Bytes header(7, 0);
            header[bit / 8] = uint8_t(0x80 >> bit % 8);
            std::vector<int32_t> want(15, 0), got(15); // the record begins with a row of them
            want[field] = 1 << weight;
            InitHeader(header.data());
            memcpy(got.data(), GetHeader(), 15 * sizeof(int32_t));
            EXPECT_EQ(std::pair(got, m_ADTSHeader.Channels), std::pair(want, want[7])) << "bit " << bit;
        }
    }
    const int rates[] = {96000, 88200, 64000, 48000, 44100, 32000, 24000, 22050,
                         16000, 12000, 11025, 8000,  65535, 65535, 65535, 65535};
    for (int index = 0; index < 16; ++index) {
        InitHeader(Bytes{0xFF, 0xF1, uint8_t(index << 2), 0, 0, 0, 0}.data());
        EXPECT_EQ(m_ADTSHeader.SamplingRate, rates[index]);
    }
}

TEST(Adts, BitReaders)
{
    const std::tuple<const char*, int, int, unsigned int, unsigned int> rows[] = {
        {"fff1", 12, 4, 1, 15},
        {"0180", 7, 2, 3, 0},
        {"80000001", 0, 31, 1u << 30, 0x00800040u},
        {"ff", 3, 0, 0, 0},
        {"010000c0", 0, 32, 0x010000c0u, 0x80000003u}};
    for (const auto& [digits, from, count, msbFirst, lsbFirst] : rows) {
        EXPECT_EQ(unsigned(Getbslbf(hex(digits).data(), from, count)), msbFirst) << digits;
        EXPECT_EQ(Getuimsbf(hex(digits).data(), from, count), lsbFirst) << digits;
    }
}
