#include <algorithm>

#include "support.h"

static const std::vector<Bytes> slot = {sdv::g711_slot(noise(8, 1))};
static const Frames frames = {with_audio(picture(1, 20, 0), 2, {}, slot), picture(2, 21),
                              with_audio(picture(3, 22, 0), 2, {}, slot)};

TEST(BadInput, EveryPrefixGivesItsWholeFrames)
{
    TempDir dir;
    const Bytes bytes = recording(frames);
    std::vector<size_t> ends;
    for (const sdv::FrameFields& frame : frames)
        ends.push_back((ends.empty() ? 88 : ends.back()) + sdv::frame(frame).size());
    for (size_t length = 0; length <= bytes.size(); ++length) {
        SCOPED_TRACE(length);
        write_file(dir / "in", part(bytes, 0, length));
        const Outcome outcome = convert(dir / "in", dir / "out");
        EXPECT_EQ(outcome, length < 7 ? noHeader : length < 88 + 32 ? noKeyFrame : done);
        const size_t whole = size_t(std::upper_bound(ends.begin(), ends.end(), length) - ends.begin());
        EXPECT_EQ(whole ? expect_sound(dir / "out").videoLength : 0, whole);
        EXPECT_EQ(file_size(dir / "out") == 212, outcome == done && !whole);
        EXPECT_EQ(exists(dir / "out"), outcome == done);
    }
}

TEST(BadInput, EveryByteChanged)
{
    TempDir dir;
    const Bytes bytes = recording(frames);
    for (size_t at = 0; at < bytes.size(); ++at) {
        for (const uint8_t mask : {0x01, 0xFF}) {
            SCOPED_TRACE(testing::Message() << "byte " << at << " xor " << int(mask));
            write_file(dir / "in", with(bytes, at, Word(bytes[at] ^ mask, 1)));
            const Outcome outcome = convert(dir / "in", dir / "out");
            if (outcome == noHeader) continue;
            EXPECT_EQ(outcome, done);
            EXPECT_GE(sound_chunks(dir / "out").size(), 1u);
        }
    }
}

TEST(BadInput, ExtremeSizesInHeaders)
{
    TempDir dir;
    const Bytes good = sdv::frame(picture(1, 50, 0)), zero = sdv::frame(picture(0, 0));
    for (const auto& [offset, size] : {std::pair{4u, 4u}, {20u, 4u}, {24u, 2u}, {26u, 2u}}) {
        for (const uint32_t value : {0u, 1u, 31u, 32u, 33u, 0xFFFFu, 0x100000u, 0x100001u, 0x200000u,
                                     0x7FFFFFFFu, 0x80000000u, 0xFFFFFFE0u, 0xFFFFFFFFu}) {
            SCOPED_TRACE(testing::Message() << "field " << offset << " = " << value);
            const Bytes bad = with(good, offset, Word(value, size));
            write_file(dir / "in", recording(frames) + good + bad + zero + bad + zero + good + bad);
            EXPECT_EQ(convert(dir / "in", dir / "out"), done);
            EXPECT_GE(sound_chunks(dir / "out").size(), 6u);
            Job job;
            EXPECT_EQ(ChangeFile2AVI(text(dir / "in"), text(dir / "out")), 0);
        }
    }
}
