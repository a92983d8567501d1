// What recordings are made of: H.264 and ADTS streams taken apart, audio dealt out, keys.
#include <gtest/gtest.h>

#include <map>
#include <random>

#include "adts.h"
#include "annexb.h"
#include "audio_slots.h"
#include "files.h"
#include "key.h"
#include "sps.h"

namespace {

using Bytes = std::vector<uint8_t>;

Bytes test_data(const std::string& name)
{
    Bytes bytes;
    std::string why;
    EXPECT_TRUE(tools::read_file(TEST_DATA_DIR "/" + name, bytes, why)) << why;
    return bytes;
}

// One letter a NAL unit: parameter sets S P, SEI E, delimiter D, first slices I (key) and F, further slices i
// and f, a partition without a macroblock number p, end of sequence Z.
Bytes stream_of(const std::string& letters, bool longCodes)
{
    const std::map<char, std::pair<uint8_t, uint8_t>> NALS = {
        {'S', {0x67, 0x42}}, {'P', {0x68, 0xCE}}, {'E', {0x06, 0x05}}, {'D', {0x09, 0xF0}},
        {'Z', {0x0A, 0x80}}, {'I', {0x65, 0x88}}, {'i', {0x65, 0x42}}, {'F', {0x41, 0x9A}},
        {'f', {0x41, 0x5A}}, {'p', {0x43, 0x80}}};
    Bytes stream;
    for (const char letter : letters) {
        if (longCodes) stream.push_back(0);
        const auto [header, second] = NALS.at(letter);
        stream.insert(stream.end(), {0, 0, 1, header, second, 0, 3, 0x77});
    }
    return stream;
}

// The letters again, "|" between access units and "*" behind key ones.
std::string cut(const std::string& letters, bool longCodes)
{
    const Bytes stream = stream_of(letters, longCodes);
    const size_t nalSize = longCodes ? 9 : 8;
    std::string text;
    size_t expected = 0;
    for (const auto& unit : annexb::split_access_units(stream, annexb::split_nals(stream))) {
        EXPECT_EQ(unit.begin, expected);
        if (unit.begin) text += '|';
        text += letters.substr(unit.begin / nalSize, (unit.end - unit.begin) / nalSize);
        if (unit.key) text += '*';
        expected = unit.end;
    }
    return text;
}

TEST(AccessUnits, BeginWhereAPictureBegins)
{
    const std::pair<const char*, const char*> cases[] = {
        {"SPEIFF", "SPEI*|F|F"},   {"DSPIDFDF", "DSPI*|DF|DF"}, {"SPIiiFff", "SPIii*|Fff"},
        {"IFSPIF", "I*|F|SPI*|F"}, {"IEFPF", "I*|EF|PF"},       {"FpFp", "Fp|Fp"},
        {"IZF", "IZ*|F"},          {"IFSP", "I*|FSP"},          {"SPE", ""},
    };
    for (const auto& [letters, expected] : cases) {
        EXPECT_EQ(cut(letters, true), expected);
        EXPECT_EQ(cut(letters, false), expected);
    }
}

TEST(AccessUnits, OddBytesAroundStartCodes)
{
    const Bytes clip = test_data("clip.h264");
    const auto whole = annexb::split_access_units(clip, annexb::split_nals(clip));
    ASSERT_EQ(whole.size(), 100u);
    for (size_t i = 0; i < whole.size(); ++i) EXPECT_EQ(whole[i].key, i % 25 == 0) << i;
    EXPECT_EQ(whole.back().end, clip.size());

    EXPECT_TRUE(annexb::split_nals(Bytes{}).empty());
    EXPECT_TRUE(annexb::split_nals(Bytes{0, 0, 1}).empty());
    const Bytes odd = {9, 9, 0, 0, 1, 0, 0, 0, 1, 0x65, 0x88, 0, 0, 0, 0, 1, 0x41, 0x9A, 0, 0};
    const auto nals = annexb::split_nals(odd); // junk, an empty NAL, zeros behind a NAL and at the end
    ASSERT_EQ(nals.size(), 2u);
    EXPECT_EQ(odd[nals[0].payload], 0x65);
    EXPECT_EQ(nals[1].begin, 12u);
    EXPECT_EQ(nals[1].end, odd.size());
    EXPECT_EQ(annexb::with_long_start_code(Bytes{0, 0, 1, 0x65}), (Bytes{0, 0, 0, 1, 0x65}));
    EXPECT_EQ(annexb::with_long_start_code(Bytes{0, 0, 0, 1, 0x65}), (Bytes{0, 0, 0, 1, 0x65}));
}

Bytes from_hex(const std::string& hex)
{
    Bytes bytes;
    for (size_t i = 0; i < hex.size(); i += 2)
        bytes.push_back(static_cast<uint8_t>(std::stoi(hex.substr(i, 2), nullptr, 16)));
    return bytes;
}

TEST(Sps, GivesThePictureSizeAfterCropping)
{
    // From an encoder that was told the size; the scaling lists, full and cut short ones, put in by hand.
    const std::tuple<const char*, uint32_t, uint32_t, const char*> cases[] = {
        {"4:2:0", 1920, 1080, "67640028acd940780227e5c044000003000400000300c83c60c658"},
        {"4:2:2 interlaced", 718, 570, "677a001ebcd940b424f5260220000003002000000643e28532c0"},
        {"4:4:4 with scaling lists", 101, 99,
         "67f4000a91b0802c38350f011814844287021811009a074160be112180528481302b281083e2013025162c3c1e02"
         "e8a0680fc0b8201a84c17017c0a8380b630098170238220780610331809a1a0804030502082a141007e5054283e1"
         "107c067030010c1189180b812981b0210590580f4845b28e7f191d80880000030008000003019078912cb0"},
        {"grey", 352, 290, "67640015f36505827f8fc05b20000003002000000641e2c5b2c0"},
        {"tiny", 18, 18, "6764000aacd94978888c0440000003004000000c83c4896580"},
    };
    for (const auto& [what, width, height, hex] : cases) {
        const Bytes nal = from_hex(hex);
        sps::PictureSize size;
        EXPECT_TRUE(sps::picture_size(nal, size)) << what;
        EXPECT_EQ(size.width, width) << what;
        EXPECT_EQ(size.height, height) << what;
        for (size_t length = 0; length < 9; ++length)
            EXPECT_FALSE(sps::picture_size(std::span(nal).first(length), size)) << what << length;
    }
}

TEST(Sps, StandsAnyBytes)
{
    std::mt19937 random(1);
    for (int round = 0; round < 20000; ++round) {
        Bytes nal(1 + random() % 64);
        for (uint8_t& byte : nal) byte = static_cast<uint8_t>(random() & (round % 2 ? 0xFF : 0x11));
        nal[0] = 0x67;
        sps::PictureSize size;
        if (!sps::picture_size(nal, size)) continue;
        EXPECT_TRUE(size.width >= 1 && size.width <= 65535 && size.height >= 1 && size.height <= 65535);
    }
    sps::PictureSize none;
    EXPECT_FALSE(sps::picture_size(Bytes(200, 0), none));
}

TEST(Adts, KeepsWholeFramesOfTornStreams)
{
    const Bytes tone = test_data("tone48k.aac");
    const auto whole = adts::split(tone);
    ASSERT_EQ(whole.frames.size(), 189u);
    EXPECT_EQ(whole.skipped, 0u);
    EXPECT_EQ(whole.frames[0].header.sampleRate, 48000u);
    EXPECT_EQ(whole.frames[0].header.channels, 2u);
    EXPECT_FALSE(whole.frames[0].header.crc);

    const std::span<const uint8_t> all(tone);
    EXPECT_EQ(adts::split(all.subspan(1)).frames.size(), 188u);
    EXPECT_EQ(adts::split(all.first(tone.size() - 1)).frames.size(), 188u);

    Bytes holed = tone; // a sync word gone, then a frame that claims to be longer than everything left
    holed[whole.frames[50].offset] = 0;
    holed[whole.frames[180].offset + 3] |= 3;
    const auto rest = adts::split(holed);
    EXPECT_EQ(rest.frames.size(), 187u);
    EXPECT_EQ(rest.skipped, whole.frames[50].header.length + whole.frames[180].header.length);
}

TEST(Audio, EveryByteIsDealtInSlotsOfOneSize)
{
    struct Case
    {
        size_t bytes, slot, pictures;
        uint32_t rate;
    };
    for (const Case& c : {Case{32000, 320, 100, 25}, Case{31999, 320, 100, 25}, Case{33001, 320, 100, 10},
                          Case{15001, 320, 100, 10}, Case{7, 320, 1, 25}, Case{641, 320, 2, 1}}) {
        Bytes samples(c.bytes);
        for (size_t i = 0; i < c.bytes; ++i) samples[i] = static_cast<uint8_t>(i * 7 + i / 256);
        std::vector<audio::Slots> dealt;
        std::string why;
        ASSERT_TRUE(audio::deal_g711(samples, c.slot, {8000, c.rate, c.pictures}, dealt, why)) << why;
        Bytes out;
        for (const auto& slots : dealt)
            for (const Bytes& slot : slots) {
                EXPECT_EQ(slot.size(), slots[0].size());
                EXPECT_EQ(slot[2], (slot.size() - 4) / 2);
                out.insert(out.end(), slot.begin() + 4, slot.end());
            }
        EXPECT_EQ(out, samples) << c.bytes;
    }
    std::vector<audio::Slots> dealt;
    std::string why;
    EXPECT_FALSE(audio::deal_g711(Bytes(321), 320, {8000, 25, 1}, dealt, why)); // a rest, and no room for it
    EXPECT_FALSE(audio::deal_g711(Bytes(256 * 320), 320, {8000, 25, 1}, dealt, why));
}

TEST(Key, HexOfOneToSixteenBytes)
{
    Bytes key;
    std::string why;
    EXPECT_TRUE(tools::parse_key("0fA0", key, why));
    EXPECT_EQ(key, (Bytes{0x0F, 0xA0}));
    EXPECT_TRUE(tools::parse_key(std::string(32, 'c'), key, why));
    EXPECT_EQ(key, Bytes(16, 0xCC));
    for (const char* bad :
         {"", "0", "abc", "0x12", "12 ", "zz12", "12:34", "cccccccccccccccccccccccccccccccccc"}) {
        EXPECT_FALSE(tools::parse_key(bad, key, why)) << bad;
        EXPECT_EQ(key, Bytes(16, 0xCC)) << bad;
        EXPECT_TRUE(!*bad || why.find(bad) == std::string::npos) << why;
    }
}

} // namespace
