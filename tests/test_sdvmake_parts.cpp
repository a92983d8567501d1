// What recordings are made of: H.264 and ADTS streams taken apart, audio dealt out, keys.
#include <map>
#include <random>

#include "adts.h"
#include "annexb.h"
#include "audio_slots.h"
#include "key.h"
#include "sps.h"
#include "support.h"

// One letter a NAL unit: parameter sets S P, SEI E, delimiter D, first slices I (key) and F, further slices i
// and f, a partition without a macroblock number p, end of sequence Z. The result has "|" between access
// units and "*" behind key ones.
static std::string cut(const std::string& letters, const std::string& startCode)
{
    const std::map<char, std::string> nals = {{'S', "6742"}, {'P', "68ce"}, {'E', "0605"}, {'D', "09f0"},
                                              {'Z', "0a80"}, {'I', "6588"}, {'i', "6542"}, {'F', "419a"},
                                              {'f', "415a"}, {'p', "4380"}};
    Bytes stream;
    for (const char letter : letters) sdv::append(stream, hex(startCode + nals.at(letter) + "00037777"));
    const size_t nalSize = stream.size() / letters.size();
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
    const std::pair<const char*, const char*> rows[] = {
        {"SPEIFF", "SPEI*|F|F"},   {"DSPIDFDF", "DSPI*|DF|DF"}, {"SPIiiFff", "SPIii*|Fff"},
        {"IFSPIF", "I*|F|SPI*|F"}, {"IEFPF", "I*|EF|PF"},       {"FpFp", "Fp|Fp"},
        {"IZF", "IZ*|F"},          {"IFSP", "I*|FSP"},          {"SPE", ""},
    };
    for (const auto& [letters, expected] : rows)
        for (const char* code : {"000001", "00000001"}) EXPECT_EQ(cut(letters, code), expected);

    // Junk, an empty NAL, zeros behind a NAL and at the end.
    const auto nals = annexb::split_nals(hex("09090000010000000165880000000001419a0000"));
    ASSERT_EQ(nals.size(), 2u);
    EXPECT_EQ(std::tuple(nals[0].type, nals[0].payload, nals[1].begin, nals[1].end),
              std::tuple(5, 9u, 12u, 20u));
    for (const char* nothing : {"", "000001"}) EXPECT_TRUE(annexb::split_nals(hex(nothing)).empty());
    for (const char* code : {"000001", "00000001"})
        EXPECT_EQ(annexb::with_long_start_code(hex(std::string(code) + "65")), hex("0000000165"));
}

TEST(Sps, GivesThePictureSizeAfterCropping)
{
    // From an encoder that was told the size; the scaling lists, full and cut short ones, put in by hand.
    const std::tuple<const char*, uint32_t, uint32_t, const char*> rows[] = {
        {"4:2:0", 1920, 1080, "67640028acd940780227e5c044000003000400000300c83c60c658"},
        {"4:2:2 interlaced", 718, 570, "677a001ebcd940b424f5260220000003002000000643e28532c0"},
        {"4:4:4 with scaling lists", 101, 99,
         "67f4000a91b0802c38350f011814844287021811009a074160be112180528481302b281083e2013025162c3c1e02"
         "e8a0680fc0b8201a84c17017c0a8380b630098170238220780610331809a1a0804030502082a141007e5054283e1"
         "107c067030010c1189180b812981b0210590580f4845b28e7f191d80880000030008000003019078912cb0"},
        {"grey", 352, 290, "67640015f36505827f8fc05b20000003002000000641e2c5b2c0"},
    };
    sps::PictureSize size;
    for (const auto& [what, width, height, digits] : rows) {
        const Bytes nal = hex(digits);
        uint32_t rate = 0;
        EXPECT_TRUE(sps::picture_size(nal, size) && sps::picture_rate(nal, rate)) << what;
        EXPECT_EQ(std::tuple(size.width, size.height, rate), std::tuple(width, height, 25u)) << what;
        EXPECT_FALSE(sps::picture_rate(part(nal, 0, nal.size() - 9), rate)) << what;
        for (size_t length = 0; length < 9; ++length)
            EXPECT_FALSE(sps::picture_size(part(nal, 0, length), size)) << what;
    }
    std::mt19937 random(1);
    for (int round = 0; round < 20000; ++round) { // any bytes at all
        Bytes nal(1 + random() % 64);
        for (uint8_t& byte : nal) byte = uint8_t(random() & (round % 2 ? 0xFF : 0x11));
        nal[0] = 0x67;
        if (!sps::picture_size(nal, size)) continue;
        EXPECT_TRUE(size.width >= 1 && size.width <= 65535 && size.height >= 1 && size.height <= 65535);
    }
}

TEST(Adts, KeepsWholeFramesOfTornStreams)
{
    const Bytes tone = read_file(TEST_DATA_DIR "/tone48k.aac");
    const auto whole = adts::split(tone);
    ASSERT_EQ(std::pair(whole.frames.size(), whole.skipped), std::pair(size_t(189), size_t(0)));
    const adts::Header header = whole.frames[0].header;
    EXPECT_EQ(std::tuple(header.sampleRate, header.channels, header.crc), std::tuple(48000u, 2u, false));
    for (const size_t from : {0, 1}) // the last frame torn, or the first one
        EXPECT_EQ(adts::split(part(tone, from, tone.size() - 1 + from)).frames.size(), 188u);

    Bytes holed = tone; // a sync word gone, then a frame that claims to be longer than everything left
    holed[whole.frames[50].offset] = 0;
    holed[whole.frames[180].offset + 3] |= 3;
    const auto rest = adts::split(holed);
    EXPECT_EQ(rest.frames.size(), 187u);
    EXPECT_EQ(rest.skipped, whole.frames[50].header.length + whole.frames[180].header.length);
}

TEST(Audio, EveryByteIsDealtInSlotsOfOneSize)
{
    std::vector<audio::Slots> dealt;
    std::string why;
    const std::tuple<size_t, size_t, uint32_t> rows[] = {{32000, 100, 25}, {31999, 100, 25}, {33001, 100, 10},
                                                         {15001, 100, 10}, {7, 1, 25},       {641, 2, 1}};
    for (const auto& [bytes, pictures, rate] : rows) {
        const Bytes samples = noise(bytes, 1);
        ASSERT_TRUE(audio::deal_g711(samples, 320, {8000, rate, pictures}, dealt, why)) << why;
        Bytes out;
        for (const auto& slots : dealt)
            for (const Bytes& slot : slots) {
                EXPECT_EQ(slot.size(), slots[0].size());
                EXPECT_EQ(slot[2], (slot.size() - 4) / 2);
                out.insert(out.end(), slot.begin() + 4, slot.end());
            }
        EXPECT_TRUE(same_bytes(out, samples));
    }
    for (const size_t size : {321, 256 * 320}) // a rest, and no room for it; too many slots
        EXPECT_FALSE(audio::deal_g711(Bytes(size), 320, {8000, 25, 1}, dealt, why));
}

TEST(Key, HexOfOneToSixteenBytes)
{
    Bytes key;
    std::string why;
    for (const std::string good : {"0fA0", "cccccccccccccccccccccccccccccccc"})
        EXPECT_TRUE(tools::parse_key(good, key, why) && key == hex(good)) << good;
    for (const std::string bad : {"", "abc", "0x12", "12 ", "zz12", "cccccccccccccccccccccccccccccccccc"}) {
        EXPECT_TRUE(!tools::parse_key(bad, key, why) && key == Bytes(16, 0xCC)) << bad;
        EXPECT_TRUE(bad.empty() || why.find(bad) == std::string::npos) << why;
    }
}
