// What is kept of a damaged recording: every frame that is itself whole, unless it begins inside what an
// earlier, damaged frame says is its own.
#include <cstring>
#include <map>
#include <random>

#include "support.h"

static const uint32_t Count = 2000;

struct Original
{
    Frames frames;
    std::vector<Bytes> bytes;
    std::vector<size_t> begin; // in the stream
    Bytes stream;
};

struct Piece // of the damaged stream: from the original, or bytes of its own
{
    size_t from = 0, count = 0;
    Bytes own;
};

static Original original()
{
    Original all;
    for (uint32_t i = 1; i <= Count; ++i) {
        all.frames.push_back(picture(i, 100 + i * 7919 % 900, i % 20 != 1));
        all.bytes.push_back(sdv::frame(all.frames.back()));
        all.begin.push_back(all.stream.size());
        sdv::append(all.stream, all.bytes.back());
    }
    return all;
}

// The stream in pieces, with `places` of one kind of damage.
static std::vector<Piece> damage(const std::string& kind, size_t total, size_t places, uint32_t seed)
{
    std::mt19937 random(seed);
    const auto below = [&](size_t limit) {
        return std::uniform_int_distribution<size_t>(0, limit - 1)(random);
    };
    std::vector<size_t> at(places);
    for (size_t& place : at)
        place = below(total - 4096) / (kind == "zeros" ? 512 : 1) * (kind == "zeros" ? 512 : 1);
    std::sort(at.begin(), at.end());
    std::vector<Piece> pieces;
    size_t next = 0;
    for (const size_t place : at) {
        if (place < next) continue;
        pieces.push_back({next, place - next, {}});
        const size_t count = kind == "flips" ? 1 : kind == "zeros" ? 512 * (1 + below(4)) : 1 + below(2000);
        next = place + (kind == "noise" || kind == "twice" ? 0 : count);
        if (kind == "noise") pieces.push_back({0, 0, noise(count, seed + uint32_t(place))});
        if (kind == "zeros") pieces.push_back({0, 0, Bytes(count)});
        if (kind == "twice") pieces.push_back({place, count, {}});
        if (kind == "flips") pieces.push_back({place, count, {uint8_t(1 << below(8))}}); // to be flipped
    }
    pieces.push_back({next, total - next, {}});
    return pieces;
}

struct Damaged
{
    Bytes stream;
    std::vector<std::pair<size_t, uint32_t>> begins; // where which frame's first byte lies
};

static Damaged put_together(const Original& all, const std::vector<Piece>& pieces)
{
    Damaged result;
    for (const Piece& piece : pieces) {
        const auto first = std::lower_bound(all.begin.begin(), all.begin.end(), piece.from);
        for (auto frame = first; frame != all.begin.end() && *frame < piece.from + piece.count; ++frame)
            result.begins.push_back(
                {result.stream.size() + *frame - piece.from, uint32_t(frame - all.begin.begin())});
        Bytes bytes = part(all.stream, piece.from, piece.from + piece.count);
        if (piece.count == 0) bytes = piece.own;
        if (piece.count == 1 && !piece.own.empty()) bytes[0] ^= piece.own[0];
        sdv::append(result.stream, bytes);
    }
    return result;
}

struct Survivors
{
    std::vector<uint32_t> frames; // that must be kept, in order
    size_t whole = 0;             // frames that are not damaged themselves
};

static Survivors survivors(const Original& all, const Damaged& damaged)
{
    Survivors result;
    size_t claimed = 0; // up to where a damaged frame says it goes
    bool begun = false;
    for (const auto& [at, frame] : damaged.begins) {
        const Bytes& want = all.bytes[frame];
        const Bytes there = part(damaged.stream, at, at + want.size());
        const bool whole = there == want;
        result.whole += whole;
        begun = begun || (whole && all.frames[frame].type == 0);
        if (whole && begun && at >= claimed) result.frames.push_back(frame);
        Bytes header = part(there, 0, 32);
        if (whole || header.size() < 32 || IsValidFrmHeader(header.data()) != 1) continue;
        uint32_t declared;
        memcpy(&declared, &header[4], 4);
        claimed = std::max(claimed, at + declared);
    }
    return result;
}

static void expect_kept(const std::string& path, const Original& all, const Survivors& want)
{
    const Bytes file = read_file(path);
    const avi::Report report = expect_sound(path);
    size_t next = 0;
    for (const avi::Chunk& chunk : report.chunks) {
        if (next == want.frames.size()) break;
        const Bytes& video = all.frames[want.frames[next]].video;
        const auto data = file.begin() + long(chunk.offset) + 8;
        next += chunk.size == video.size() && std::equal(video.begin(), video.end(), data);
    }
    EXPECT_EQ(next, want.frames.size()) << "frame " << want.frames[std::min(next, want.frames.size() - 1)];
}

class Damage : public testing::TestWithParam<const char*> {};

TEST_P(Damage, KeepsWhatIsWhole)
{
    const Original all = original();
    for (const size_t places : {1, 10, 100}) {
        SCOPED_TRACE(places);
        const Damaged damaged =
            put_together(all, damage(GetParam(), all.stream.size(), places, uint32_t(places)));
        const Survivors want = survivors(all, damaged);
        printf("%s, %zu places: %zu frames are whole, %zu must be kept\n", GetParam(), places, want.whole,
               want.frames.size());
        EXPECT_GT(want.frames.size(), Count - 10 * places);
        TempDir dir;
        write_file(dir / "in", recording({}) + damaged.stream);
        ASSERT_EQ(convert(dir / "in", dir / "out"), done);
        expect_kept(dir / "out", all, want);

        Recording open;
        Bytes stream = damaged.stream;
        for (size_t at = 0; at < stream.size(); at += 5000)
            ASSERT_EQ(RecordAviEx(&stream[at], int(std::min<size_t>(5000, stream.size() - at))), 0);
        ASSERT_EQ(StopRecordEx(0), 0);
        expect_kept(open.path, all, want);
    }
}

INSTANTIATE_TEST_SUITE_P(Places, Damage, testing::Values("flips", "lost", "noise", "zeros", "twice"));
