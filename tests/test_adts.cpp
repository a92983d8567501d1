#include "support.h"

static std::vector<int32_t> parsed(const Bytes& header)
{
    InitHeader(header.data());
    const ADTSFRAMEHEADER& h = *GetHeader();
    return {h.synword,
            h.id,
            h.layer,
            h.protection_absent,
            h.profile,
            h.sf_index,
            h.private_bit,
            h.channel_configuration,
            h.original,
            h.home,
            h.copyright_identification_bit,
            h.copyright_identification_start,
            h.aac_frame_lenght,
            h.adts_buffer_fullness,
            h.number_row_data_block_in_frame,
            h.SamplingRate,
            h.Channels};
}

TEST(Adts, FieldsBitByBit)
{
    using Fields = std::vector<int32_t>;
    EXPECT_EQ(parsed(hex("fff16080191ffc")),
              (Fields{4095, 0, 0, 1, 1, 8, 0, 2, 0, 0, 0, 0, 200, 2047, 0, 16000, 2}));
    EXPECT_EQ(parsed(hex("00000000000000")), (Fields{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 96000, 0}));
    EXPECT_EQ(parsed(hex("ffffffffffffff")),
              (Fields{4095, 1, 3, 1, 3, 15, 1, 7, 1, 1, 1, 1, 8191, 2047, 3, 65535, 7}));

    // One bit at a time: it shows in its own field with its own weight, and in no other one.
    const int widths[] = {12, 1, 2, 1, 2, 4, 1, 3, 1, 1, 1, 1, 13, 11, 2};
    size_t bit = 0;
    for (size_t field = 0; field < std::size(widths); ++field) {
        for (int weight = widths[field] - 1; weight >= 0; --weight, ++bit) {
            Bytes header(7, 0);
            header[bit / 8] = uint8_t(0x80 >> bit % 8);
            Fields want(15, 0);
            want[field] = 1 << weight;
            Fields got = parsed(header);
            got.resize(15);
            EXPECT_EQ(got, want) << "bit " << bit;
        }
    }
}

TEST(Adts, RatesByIndexAndOneRecord)
{
    const int rates[] = {96000, 88200, 64000, 48000, 44100, 32000, 24000, 22050,
                         16000, 12000, 11025, 8000,  65535, 65535, 65535, 65535};
    PADTSFRAMEHEADER const record = GetHeader();
    EXPECT_EQ(record, &m_ADTSHeader);
    record->Duration = 42;
    for (int index = 0; index < 16; ++index) {
        const Bytes header = {0xFF, 0xF1, uint8_t(index << 2), 0, 0, 0, 0};
        EXPECT_EQ(parsed(header)[15], rates[index]);
        EXPECT_EQ(GetHeader(), record);
    }
    EXPECT_EQ(record->Duration, 42);
}

TEST(Adts, BitReaders)
{
    struct
    {
        const char* bytes;
        int first, count;
        unsigned int msbFirst, lsbFirst;
    } const rows[] = {
        {"01", 0, 8, 1, 128},
        {"fff1", 0, 12, 4095, 4088},
        {"fff1", 12, 4, 1, 15},
        {"0180", 7, 2, 3, 0},
        {"80000001", 0, 31, 1u << 30, 0x00800040u},
        {"ff", 3, 0, 0, 0},
    };
    for (const auto& row : rows) {
        const Bytes bytes = hex(row.bytes);
        EXPECT_EQ(unsigned(Getbslbf(bytes.data(), row.first, row.count)), row.msbFirst) << row.bytes;
        EXPECT_EQ(Getuimsbf(bytes.data(), row.first, row.count), row.lsbFirst) << row.bytes;
    }
    EXPECT_EQ(Getuimsbf(hex("010000c0").data(), 0, 32), 0x80000003u);
}
