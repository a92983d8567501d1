// What is kept of a damaged recording: every frame that is itself whole, unless it begins inside what an
// earlier, damaged frame says is its own.
#include <algorithm>
#include <cstring>
#include <random>

#include "support.h"

static Frames originals()
{
    Frames frames;
    for (uint32_t i = 1; i <= 2000; ++i) frames.push_back(picture(i, 100 + i * 7919 % 900, i % 20 != 1));
    return frames;
}

static void harm(Bytes& stream, const std::string& kind, std::mt19937& random)
{
    const size_t at = random() % (stream.size() - 4096), count = 1 + random() % 2000;
    const auto place = stream.begin() + long(at), end = place + long(count);
    if (kind == "flips") *place ^= uint8_t(1 << random() % 8);
    if (kind == "zeros") std::fill_n(place - long(at % 512), 512 * (1 + count / 512), uint8_t(0));
    if (kind == "lost") stream.erase(place, end);
    if (kind != "noise" && kind != "twice") return;
    const Bytes more = kind == "noise" ? noise(count, uint32_t(random())) : Bytes(place, end);
    stream.insert(place, more.begin(), more.end());
}

// The frames of the damaged stream that must be kept, in order.
static Frames survivors(const Frames& frames, Bytes& stream)
{
    Frames kept;
    size_t claimed = 0; // up to where a damaged frame says it goes
    for (size_t at = 0; at + sizeof(S_FrameHeader) <= stream.size(); ++at) {
        S_FrameHeader header;
        memcpy(&header, &stream[at], sizeof(header));
        if (header.u32FrameID != 0x02000000) continue;
        const uint32_t i = header.u32FrameNO - 1;
        const Bytes undamaged = sdv::frame(i < frames.size() ? frames[i] : sdv::FrameFields{});
        const bool whole = i < frames.size() && part(stream, at, at + undamaged.size()) == undamaged;
        const bool begun = !kept.empty() || header.u8FrameType == 0;
        if (whole && begun && at >= claimed) kept.push_back(frames[i]);
        if (!whole && IsValidFrmHeader(&stream[at])) claimed = std::max(claimed, at + header.u32FrameSize);
    }
    return kept;
}

static void expect_kept(const std::string& path, const Frames& want)
{
    const Bytes file = read_file(path);
    size_t next = 0;
    for (const avi::Chunk& chunk : sound_chunks(path)) {
        const size_t data = chunk.offset + 8;
        next += next < want.size() && part(file, data, data + chunk.size) == want[next].video;
    }
    EXPECT_EQ(next, want.size()) << "frame " << want[std::min(next, want.size() - 1)].number;
}

class Damage : public testing::TestWithParam<const char*> {};

TEST_P(Damage, KeepsWhatIsWhole)
{
    const Frames frames = originals();
    const Bytes sound = recording(frames), header = part(sound, 0, sizeof(S_FileHeader));
    for (const size_t places : {1, 10, 100}) {
        SCOPED_TRACE(places);
        std::mt19937 random{uint32_t(places)};
        Bytes stream = part(sound, header.size(), sound.size());
        for (size_t i = 0; i < places; ++i) harm(stream, GetParam(), random);
        const Frames want = survivors(frames, stream);
        EXPECT_GT(want.size(), frames.size() - 10 * places);
        TempDir dir;
        write_file(dir / "in", header + stream);
        ASSERT_EQ(convert(dir / "in", dir / "out"), done);
        expect_kept(dir / "out", want);

        Recording open;
        push_in_pieces(stream, 5000);
        ASSERT_EQ(StopRecordEx(0), 0);
        expect_kept(open.path, want);
    }
}

INSTANTIATE_TEST_SUITE_P(Places, Damage, testing::Values("flips", "lost", "noise", "zeros", "twice"));
