#include <algorithm>

#include "support.h"

// A file of at least so many chunks, or one of the refusals.
static void expect_in_table(const TempDir& dir, const Bytes& bytes, size_t leastChunks)
{
    write_file(dir / "in", bytes);
    write_file(dir / "out", {});
    const Outcome outcome = convert(dir / "in", dir / "out");
    if (outcome == done)
        EXPECT_GE(expect_sound(dir / "out").chunks.size(), leastChunks);
    else
        EXPECT_TRUE(outcome == noHeader || outcome == noKeyFrame) << testing::PrintToString(outcome);
    EXPECT_EQ(exists(dir / "out"), outcome != noKeyFrame);
}

static Frames small_frames()
{
    const std::vector<Bytes> slot = {sdv::g711_slot(noise(8, 1))};
    return {with_audio(picture(1, 20, 0), 2, {}, slot), picture(2, 21),
            with_audio(picture(3, 22, 0), 2, {}, slot)};
}

TEST(BadInput, EveryPrefixGivesItsWholeFrames)
{
    TempDir dir;
    const Frames frames = small_frames();
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
    const Bytes bytes = recording(small_frames());
    for (size_t at = 0; at < bytes.size(); ++at) {
        for (const uint8_t mask : {0x01, 0xFF}) {
            SCOPED_TRACE(testing::Message() << "byte " << at << " xor " << int(mask));
            Bytes changed = bytes;
            changed[at] ^= mask;
            expect_in_table(dir, changed, 1); // one key frame at least is left
        }
    }
}

TEST(BadInput, ExtremeSizesInHeaders)
{
    TempDir dir;
    const Bytes good = sdv::frame(picture(1, 50, 0)), zero = sdv::frame(picture(0, 0));
    const std::pair<size_t, bool> fields[] = {{4, false}, {20, false}, {24, true}, {26, true}};
    for (const auto& [offset, isHalf] : fields) {
        for (const uint32_t value : {0u, 1u, 31u, 32u, 33u, 0xFFFFu, 0x100000u, 0x100001u, 0x200000u,
                                     0x7FFFFFFFu, 0x80000000u, 0xFFFFFFE0u, 0xFFFFFFFFu}) {
            SCOPED_TRACE(testing::Message() << "field " << offset << " = " << value);
            const Bytes bad = with(good, offset, isHalf ? half(value) : Word(value));
            expect_in_table(dir, recording({picture(1, 60, 0)}) + good + bad + zero + bad + zero + good + bad,
                            2);
            Job job;
            EXPECT_EQ(ChangeFile2AVI(text(dir / "in"), text(dir / "out")), 0);
        }
    }
}
