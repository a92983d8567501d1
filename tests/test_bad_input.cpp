#include <algorithm>

#include "support.h"

// What any bytes may come to. A finished file is sound, or the bare header area when no frame was recorded.
static void expect_in_table(const TempDir& dir, const Bytes& bytes, size_t leastChunks)
{
    write_file(dir / "in", bytes);
    write_file(dir / "out", {});
    const Outcome outcome = convert(dir / "in", dir / "out");
    if (outcome == done) {
        if (leastChunks == 0 && file_size(dir / "out") == 212) return;
        EXPECT_GE(expect_sound(dir / "out").chunks.size(), std::max<size_t>(leastChunks, 1));
        return;
    }
    EXPECT_TRUE(outcome == noHeader || outcome == noKeyFrame) << testing::PrintToString(outcome);
    EXPECT_EQ(exists(dir / "out"), outcome == noHeader);
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

TEST(BadInput, NoiseAndFalseStartCodes)
{
    TempDir dir;
    for (uint32_t seed = 1; seed <= 12; ++seed) {
        SCOPED_TRACE(seed);
        const Bytes pure = noise(70000 + seed * 999, seed);
        expect_in_table(dir, pure, 0);
        Bytes starts = recording({}) + pure;
        // Headers that pass the tests and then declare whatever noise says, each behind a frame numbered 0.
        for (size_t at = 88; at + 200 < starts.size(); at += 40 + starts[at] % 97) {
            starts = with(std::move(starts), at, 0x02000000);
            if (starts[at + 9] % 4) continue;
            const Bytes zero = sdv::frame(picture(starts[at + 9] % 8 ? 0 : 5, 8, 0));
            std::copy(zero.begin(), zero.end(), starts.begin() + long(at));
        }
        expect_in_table(dir, starts, 0);
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
