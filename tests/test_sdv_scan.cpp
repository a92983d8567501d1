#include <random>

#include "sdv_stats.h"
#include "support.h"

using sdv::Cause;
using sdv::Fate;

namespace {

const Bytes KEY(16, 7);

struct Found
{
    sdv::Stats stats;
    uint64_t firstKept = 0, gapsBehindIt = 0, bytesBehindIt = 0; // what a conversion looks at
    uint64_t covered = sizeof(S_FileHeader);                     // frames and gaps, one behind the other
};

Found scan(const Bytes& bytes, const Bytes& key = {})
{
    TempDir dir;
    write_file(dir / "in", bytes);
    sdv::RecordingFile file;
    std::string why;
    Found found;
    EXPECT_EQ(sdv::open_recording(file, dir / "in", why), sdv::Opened::Fine) << why;
    sdv::begin_stats(found.stats, file, !key.empty());
    const auto cover = [&](uint64_t offset, uint64_t size) {
        // The first frame may begin in the file header, but none in another.
        EXPECT_GE(std::max<uint64_t>(offset, sizeof(S_FileHeader)), found.covered);
        found.covered = offset + size;
    };
    const auto frame = [&](const sdv::ScannedFrame& one) {
        if (one.fate != Fate::BeforeKeyFrame && !found.firstKept) found.firstKept = one.offset;
        cover(one.offset, one.bytes.size());
        sdv::add_frame(found.stats, one);
    };
    const auto gap = [&](const sdv::Gap& one) {
        found.gapsBehindIt += found.firstKept > 0;
        found.bytesBehindIt += found.firstKept ? one.length : 0;
        cover(one.offset, one.length);
        sdv::add_gap(found.stats, one);
    };
    EXPECT_TRUE(sdv::scan_frames(file, key, {frame, gap}, why)) << why;
    EXPECT_EQ(found.covered, std::max<uint64_t>(bytes.size(), sizeof(S_FileHeader)));
    return found;
}

Bytes frame(uint32_t number, uint8_t type = 1, size_t video = 100)
{
    return sdv::frame(picture(number, video, type));
}

// One edit of the kinds that cards, cables and half-written files bring: bytes lost, changed or put in.
Bytes harmed(const Bytes& bytes, std::mt19937& random)
{
    const size_t at = 60 + random() % (bytes.size() - 60), length = 1 + random() % 300, kind = random() % 5;
    const Bytes flipped = {uint8_t(bytes[at] ^ 1 << random() % 8)};
    const Bytes instead =
        std::array{Bytes(), noise(length, random()), Bytes(length, 0xFF), Bytes(length, 0), flipped}[kind];
    const size_t gone = kind == 0 || random() % 2 ? length : kind == 4;
    return part(bytes, 0, at) + instead + part(bytes, std::min(at + gone, bytes.size()), bytes.size());
}

// All kinds of frames, some numbered 0, some with the wrong key, at times too big for one look at the file.
Bytes random_recording(std::mt19937& random)
{
    const size_t most = random() % 40 ? random() % 2 ? 400 : 9000 : 900'000;
    Bytes bytes = recording({});
    if (random() % 10 == 0) bytes.resize(64); // the first frame begins where the file header still goes on
    for (uint32_t number = 1; number <= 20; ++number) {
        Bytes next = frame(random() % 6 ? number : 0, random() % 4 != 0, 100 + random() % most);
        if (random() % 8 == 0) sdv::encipher(next, random() % 2 ? KEY : Bytes(16, 8));
        sdv::append(bytes, next);
        if (random() % 5 == 0) sdv::append(bytes, noise(1 + random() % 2, number));
    }
    return bytes;
}

} // namespace

TEST(Scan, FindsTheFramesThatAConversionFinds)
{
    Bytes key = KEY; // the call takes writable bytes
    for (uint32_t seed = 1; seed <= 150; ++seed) {
        SCOPED_TRACE(seed);
        std::mt19937 random(seed);
        Bytes bytes = random_recording(random);
        for (uint32_t edits = random() % 6; edits; --edits) bytes = harmed(bytes, random);
        TempDir dir;
        Outcome outcome;
        SdvReport report{};
        report.cbSize = sizeof(report);
        do { // behind a frame that ends too soon only the scan looks
            if (report.u64CutOff) bytes.resize(report.u64CutOff + 1);
            write_file(dir / "in", bytes);
            SetDecryptKey(key.data(), 16);
            outcome = convert(dir / "in", dir / "out");
            GetConversionReport(&report);
        } while (report.u64CutOff);

        const Found found = scan(bytes, KEY);
        EXPECT_EQ(std::get<1>(outcome) == -4, !found.firstKept);
        const auto& fates = found.stats.fates;
        EXPECT_EQ(fates, (std::array{report.u64FramesRecorded, fates[size_t(Fate::BeforeKeyFrame)],
                                     report.u64DroppedNumber0, report.u64DroppedNoKey,
                                     report.u64DroppedWrongKey, report.u64DroppedInconsistent}));
        if (!found.firstKept) continue;
        const uint64_t before = found.firstKept - std::min<uint64_t>(found.firstKept, sizeof(S_FileHeader));
        EXPECT_EQ(std::pair(found.bytesBehindIt + before, found.gapsBehindIt + (before > 0)),
                  std::pair(report.u64BytesSkipped, report.u64Gaps));
    }
    SetDecryptKey(nullptr, 0);
}

TEST(Scan, TellsTheCauseOfDamageAndWhatItCost)
{
    const Bytes first = frame(1, 0), next = frame(2), last = frame(5);
    // What is behind the first frame, which ends at 220; frames are 132 bytes long.
    const std::tuple<Bytes, Cause, uint64_t, uint64_t> rows[] = {
        {noise(50, 1) + last, Cause::Noise, 220, 50},
        {Bytes(7 << 20, 0) + last, Cause::Zeros, 220, 7 << 20},                 // more than memory
        {Bytes((6 << 20) - 251, 0) + last, Cause::Zeros, 220, (6 << 20) - 251}, // a header across two looks
        {Bytes(4096, 0xFF) + last, Cause::Erased, 220, 4096},
        {with(next, 4, 133) + last, Cause::BadHeader, 220, 132},
        {with(next, 4, 0xFFFFFFFF) + last, Cause::BadHeader, 220, 132},
        {part(next, 0, 90) + last + frame(6), Cause::MissingBytes, 352, 90},
        {part(next, 0, 90), Cause::CutOff, 220, 90},
        {part(next, 0, 20), Cause::CutOff, 220, 20}, // in its header
    };
    for (const auto& [behind, cause, offset, length] : rows) {
        const sdv::Stats stats = scan(recording({}) + first + behind).stats;
        SCOPED_TRACE(testing::Message() << cause_text(cause) << " of " << length << " bytes");
        ASSERT_EQ(stats.damage.size(), 1u);
        const auto& [gap, lost, seconds] = stats.damage[0];
        const auto missing = cause == Cause::CutOff ? std::nullopt : std::optional<uint64_t>(3);
        EXPECT_EQ(
            std::tuple(gap.cause, gap.offset, gap.length, lost, stats.missing, is_damaged(stats), seconds),
            std::tuple(cause, offset, length, missing, missing.value_or(0), true,
                       offset == 352 ? 0.08 : 0.04));
    }
}

TEST(Scan, TakesStreamsOfEveryMode)
{
    for (const uint16_t mode : {21, 31, 32, 41}) {
        sdv::FrameFields fields = picture(1, 100, mode == 31 ? 1 : 0); // no key frame: none is waited for
        fields.flag = uint32_t(GetFrameFlagByMode(mode));
        const Found found = scan(recording({fields, fields}, {.mode = mode}));
        EXPECT_EQ(found.stats.fates[size_t(Fate::Recorded)], 2u) << mode;
        EXPECT_EQ(found.stats.damageCount, 0u) << mode;
    }
    const Bytes mpeg4 = hex("0000825500003c") + Bytes(53, 0x11);
    EXPECT_EQ(scan(recording({}, {.mode = 11}) + mpeg4 + mpeg4).stats.frames, 2u);
}

TEST(Stats, FollowFromTheFrames)
{
    // 25 pictures a second, a key frame in ten, 40 ms of audio with each, but every 50th frame is lost; and a
    // clock that is set back on the way.
    Bytes bytes = recording({}, {.width = 640, .frameCount = 1000});
    for (uint32_t number = 1; number <= 1000; ++number) {
        if (number % 50 == 5) continue;
        sdv::FrameFields fields = picture(number, 200, number % 10 != 1);
        fields.timeStamp = 5000 + number * 40 - (number > 500 ? 4000 : 0);
        fields = with_audio(fields, 1, {}, {sdv::g711_slot(Bytes(320, 0xD5))});
        sdv::append(bytes, sdv::frame(fields));
    }
    const sdv::Stats stats = scan(bytes).stats;
    EXPECT_EQ(std::tuple(stats.frames, stats.keyFrames, stats.keyIntervalMax, stats.missing,
                         stats.numberGapCount, stats.timeJumps),
              std::tuple(980u, 100u, 10u, 20u, 20u, 1u));
    EXPECT_DOUBLE_EQ(real_rate(stats).value(), 25);
    EXPECT_DOUBLE_EQ(stats.numberGaps[0].seconds, 0.12);
    EXPECT_NEAR(duration(stats), 39.96, 0.001); // less the step across the jump
    EXPECT_NEAR(audio_duration(stats).value(), 39.2, 0.001);
    EXPECT_NEAR(key_interval(stats).value(), 970 / 99.0, 0.2);
    ASSERT_EQ(stats.byFrame.width, 2u); // 980 frames are more than 600 bars
    for (const auto& [chart, missing] : {std::pair(&stats.byFrame, 20u), {&stats.bySecond, 0u}}) {
        std::array<uint64_t, 4> sum{};
        for (const sdv::Bin& bin : chart->bins)
            sum = {sum[0] + bin.bytes, sum[1] + bin.keyFrames, sum[2] + bin.audioSlots, sum[3] + bin.missing};
        EXPECT_EQ(sum, (std::array<uint64_t, 4>{stats.frameBytes, 100, 980, missing}));
    }
}
