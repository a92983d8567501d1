#include <algorithm>

#include "support.h"

// What any bytes may come to. A finished file is sound, or the bare header area when no frame was recorded.
static void expect_in_table(const TempDir& dir, const Bytes& bytes, size_t leastChunks)
{
    write_file(dir / "in", bytes);
    write_file(dir / "out", {});
    const Outcome outcome = convert(dir / "in", dir / "out");
    if (outcome == Outcome{0, 100, ""}) {
        if (leastChunks == 0 && file_size(dir / "out") == 212) return;
        EXPECT_GE(expect_sound(dir / "out").chunks.size(), std::max<size_t>(leastChunks, 1));
        return;
    }
    EXPECT_TRUE((outcome == Outcome{-1, 0, "140217====3333TC_SDVtoAVI error"}) ||
                (outcome == Outcome{0, -4, "140217====8888"}))
        << outcome;
    if (outcome.result == 0) {
        EXPECT_FALSE(exists(dir / "out"));
    }
}

static std::vector<sdv::FrameFields> small_frames()
{
    std::vector<sdv::FrameFields> frames = {picture(1, 20, 0), picture(2, 21), picture(3, 22, 0)};
    frames[0].audioCode = frames[2].audioCode = 2;
    frames[0].audioAfter = frames[2].audioAfter = {sdv::g711_slot(noise(8, 1))};
    return frames;
}

TEST(BadInput, EveryPrefixGivesItsWholeFrames)
{
    TempDir dir;
    const std::vector<sdv::FrameFields> frames = small_frames();
    const Bytes bytes = recording(frames);
    std::vector<size_t> ends;
    for (size_t i = 0; i < frames.size(); ++i)
        ends.push_back((i ? ends.back() : 88) + sdv::frame(frames[i]).size());
    for (size_t length = 0; length <= bytes.size(); ++length) {
        SCOPED_TRACE(length);
        write_file(dir / "in", Bytes(bytes.begin(), bytes.begin() + long(length)));
        const Outcome outcome = convert(dir / "in", dir / "out");
        if (length < 7)
            EXPECT_EQ(outcome, (Outcome{-1, 0, "140217====3333TC_SDVtoAVI error"}));
        else if (length < 88 + 32)
            EXPECT_EQ(outcome, (Outcome{0, -4, "140217====8888"}));
        else {
            EXPECT_EQ(outcome, (Outcome{0, 100, ""}));
            const long whole =
                std::count_if(ends.begin(), ends.end(), [&](size_t end) { return end <= length; });
            if (whole)
                EXPECT_EQ(expect_sound(dir / "out").videoLength, uint32_t(whole));
            else
                EXPECT_EQ(file_size(dir / "out"), 212u);
        }
        EXPECT_EQ(exists(dir / "out"), outcome.position == 100);
        std::remove((dir / "out").c_str());
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
        Bytes starts = recording({});
        sdv::append(starts, pure);
        // Headers that pass the tests and then declare whatever noise says, each behind a frame numbered 0.
        for (size_t at = 88; at + 200 < starts.size(); at += 40 + starts[at] % 97) {
            std::copy_n(hex("00000002").begin(), 4, starts.begin() + long(at));
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
    const std::pair<size_t, size_t> fields[] = {{4, 4}, {20, 4}, {24, 2}, {26, 2}};
    const uint32_t values[] = {0,        1,          31,         32,         33,
                               0xFFFF,   0x80000,    0xFFFFF,    0x100000,   0x100001,
                               0x200000, 0x7FFFFFFF, 0x80000000, 0xFFFFFFE0, 0xFFFFFFFF};
    for (const auto& [offset, size] : fields) {
        for (const uint32_t value : values) {
            SCOPED_TRACE(testing::Message() << "field " << offset << " = " << value);
            Bytes bad = good;
            for (size_t i = 0; i < size; ++i) bad[offset + i] = uint8_t(value >> (8 * i));
            Bytes bytes = recording({picture(1, 60, 0)});
            for (const Bytes& part : {good, bad, zero, bad, zero, good, bad}) sdv::append(bytes, part);
            expect_in_table(dir, bytes, 2);

            Job job;
            EXPECT_EQ(ChangeFile2AVI(text(dir / "in"), text(dir / "out")), 0);
        }
    }
}
