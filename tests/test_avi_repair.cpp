// Recordings cut off at any place, and finished: what comes out is what a stop there would have written.
#include <filesystem>
#include <random>

#include "adts.h"
#include "avi_repair.h"
#include "support.h"

using tools::AviHints;
namespace fs = std::filesystem;

// 100 pictures, whose SPS says 352 x 288 and 25 a second; behind each its share of audio: a slot, of AAC two.
static Frames clip(uint8_t code)
{
    const Bytes sps = hex("000000016742c00dd9016096c044000003000400000300c83c50a920");
    const auto slot = [code](uint32_t seed) {
        Bytes aac = adts::frame(noise(100 + seed % 200, seed), 48000);
        aac.resize(400, 0);
        return code == 22 ? aac : sdv::g711_slot(noise(319 + seed % 2, seed));
    };
    Frames frames;
    for (uint32_t i = 0; i < 100; ++i) {
        frames.push_back(picture(i + 1, 100 + i * 7919 % 5000, i % 25 ? 1 : 0));
        frames[i].audioCode = code;
        frames[i].video[4] = i % 25 ? 0x41 : 0x65; // the slice tells what it is
        if (i % 25 == 0) frames[i].video = sps + frames[i].video;
        if (code) frames[i].audioAfter = {slot(i)};
        if (code == 22) frames[i].audioAfter.push_back(slot(i + 100));
    }
    return frames;
}

// So many chunks of these frames.
static Frames first_chunks(Frames frames, size_t chunks)
{
    for (size_t i = 0; i < frames.size(); ++i) {
        if (chunks == 0) return frames.resize(i), frames;
        frames[i].audioAfter.resize(std::min(frames[i].audioAfter.size(), --chunks));
        chunks -= frames[i].audioAfter.size();
    }
    return frames;
}

struct Made
{
    Bytes growing, stopped; // the file before the stop and behind it
};

static Made make(const Frames& frames, const sdv::FileFields& file = {})
{
    Made made;
    Recording recording(file);
    for (const auto& fields : frames) {
        Bytes frame = sdv::frame(fields);
        RecordAvi(frame.data(), int(frame.size()));
    }
    fflush(g_tSdv2Avi.m_fsRec);
    made.growing = read_file(recording.path);
    EXPECT_EQ(StopRecord(0), 0);
    made.stopped = read_file(recording.path);
    return made;
}

struct Mended
{
    bool done;
    Bytes file;
    std::string why;
};

// In its place, and beside, where the same comes out.
static Mended mend(const Bytes& file, const AviHints& hints)
{
    TempDir dir;
    std::string why;
    for (const char* name : {"a.avi", "b.avi"}) write_file(dir / name, file);
    fs::permissions(dir / "a.avi", fs::perms(0646));
    const bool worked = tools::repair_avi(dir / "a.avi", hints, why);
    const Bytes mended = read_file(dir / "a.avi");
    if (worked) expect_sound(dir / "a.avi");
    EXPECT_EQ(fs::status(dir / "a.avi").permissions(), fs::perms(0646));
    EXPECT_EQ(tools::repair_avi_into(dir / "b.avi", dir / "c.avi", hints, why), worked);
    EXPECT_TRUE(same_bytes(read_file(dir / "c.avi"), worked ? mended : Bytes()));
    EXPECT_TRUE(same_bytes(read_file(dir / "b.avi"), file));
    return {worked, mended, why};
}

static const AviHints alaw = {.audioCode = 1}, mulaw = {.audioCode = 2};

TEST(AviRepair, AnyCutIsAStopBehindTheLastWholeChunk)
{
    std::mt19937 random(1);
    const std::pair<uint8_t, uint32_t> codings[] = {{0, 8000}, {1, 8000}, {2, 16000}, {22, 48000}};
    for (const auto& [code, rate] : codings) {
        const sdv::FileFields file = {.sampleRate = rate};
        const Frames frames = clip(code);
        const Made whole = make(frames, file);
        TempDir dir;
        write_file(dir / "whole", whole.stopped);
        const auto chunks = sound_chunks(dir / "whole");
        const AviHints hints = code ? AviHints{.audioCode = code, .audioRate = rate} : AviHints{};
        const size_t begin = code ? 328 : 224;
        for (int moment = 0; moment < 50; ++moment) {
            const size_t length = begin + random() % (whole.growing.size() - begin + 1);
            const size_t kept = size_t(std::count_if(chunks.begin(), chunks.end(), [&](const auto& chunk) {
                return chunk.offset + 8 + chunk.size <= length;
            }));
            SCOPED_TRACE(testing::Message() << "code " << code << ", " << length << " bytes");
            const Mended mended = mend(part(whole.growing, 0, length), hints);
            ASSERT_EQ(mended.done, kept > 0) << mended.why;
            if (!kept) continue;
            ASSERT_TRUE(same_bytes(mended.file, make(first_chunks(frames, kept), file).stopped));
        }
    }
}

TEST(AviRepair, GoesOnWhereARepairOrAStopWasCutOff)
{
    const auto [growing, stopped] = make(first_chunks(clip(1), 199)); // the last one has a pad byte
    const size_t end = growing.size();
    const Bytes headless = Bytes(328, 0) + part(stopped, 328, stopped.size());
    const Bytes noList = part(stopped, 0, 316) + Bytes(12, 0) + part(stopped, 328, end);
    std::vector<std::pair<Bytes, AviHints>> rows = {{noList, {}}}; // with headers nothing is left to guess
    for (const size_t length : {end - 1, end, end + 3, end + 8, end + 500, stopped.size()}) {
        rows.push_back({part(headless, 0, length), alaw});
        rows.push_back({part(stopped, 0, length), {}});
    }
    // Zeros that begin inside of the last chunk, or of its header, are none of it.
    const Bytes torn = words("01wb", 300) + Bytes(200, 7);
    for (const Bytes& tail : {Bytes(5000, 0), words("00dc", 5000) + Bytes(10, 1)})
        rows.push_back({growing + tail, alaw});
    for (const size_t zeros : {1, 5000}) rows.push_back({part(growing, 0, end - 1) + Bytes(zeros, 0), alaw});
    rows.push_back({with(growing, 3819, Word(0, 1)), alaw}); // the pad byte of the third chunk
    for (const size_t length : {1, 4, 5, 8, 100})
        for (const size_t zeros : {3, 5000})
            rows.push_back({growing + part(torn, 0, length) + Bytes(zeros, 0), alaw});
    for (size_t i = 0; i < rows.size(); ++i)
        EXPECT_TRUE(same_bytes(mend(rows[i].first, rows[i].second).file, stopped)) << "row " << i;
    Frames frames = clip(2);
    for (size_t i = 0; i < 3; ++i) frames[i].audioCode = 0, frames[i].audioAfter.clear();
    const Made late = make(first_chunks(frames, 196));
    const Bytes unpadded = part(late.growing, 0, late.growing.size() - 1);
    EXPECT_TRUE(same_bytes(mend(unpadded, mulaw).file, late.stopped)) << "audio that came late";
}

TEST(AviRepair, WhatItCannotKnowItDoesNotTouch)
{
    const auto [ulaw, stopped] = make(clip(2));
    const Bytes aac = make(clip(22)).growing;
    const Bytes bare = make({picture(1, 100, 0)}).growing; // without any SPS
    const std::tuple<const char*, Bytes, AviHints, const char*> rows[] = {
        {"no coding", ulaw, {}, "coding"},
        {"a coding that cannot be", ulaw, {.audioCode = 0}, "coding"},
        {"no sample rate of AAC", aac, {.audioCode = 22}, "sample rate"},
        {"no SPS", bare, {}, "picture size"},
        {"no SPS and no rate", bare, {.width = 352, .height = 288}, "pictures a second"},
        {"something behind", ulaw + Bytes(100, 'x'), mulaw, "no torn chunk"},
        {"chunks behind a hole", ulaw + Bytes(100, 0) + words("01wb", 2, 9), mulaw, "no torn chunk"},
        {"an absurd chunk", ulaw + words("00dc", 3 << 20) + Bytes(100, 'x'), mulaw, "no torn chunk"},
        {"a wrong size", with(ulaw, 468, 1 << 20), mulaw, "chunks lie behind"},
        {"a wrong size of the last", with(stopped, ulaw.size() - 324, 1 << 20), mulaw, "chunks lie behind"},
        {"the last behind a torn one", ulaw + words("00dc", 5000, "x.x.", "01wb", 4, 9), mulaw, "lie behind"},
        {"no whole chunk", part(ulaw, 0, 340), mulaw, "no whole chunk"},
        {"nothing but zeros", Bytes(1000, 0), mulaw, "no chunks"},
        {"nothing", {}, {}, "no chunks"},
    };
    for (const auto& [what, file, hints, why] : rows) {
        const Mended mended = mend(file, hints);
        EXPECT_TRUE(!mended.done && mended.why.find(why) != std::string::npos) << what << ": " << mended.why;
        EXPECT_TRUE(same_bytes(mended.file, file));
    }
}

TEST(AviRepair, HintsOfARecordingAndOfAnotherFile)
{
    const sdv::FileFields file = {
        .frameRate = 12, .width = 640, .height = 480, .channels = 2, .sampleRate = 16000};
    const Frames frames = clip(1);
    const auto [growing, stopped] = make(frames, file);
    TempDir dir;
    write_file(dir / "a.sdv", recording(frames, file));
    write_file(dir / "a.avi", stopped);
    std::string why;
    for (const auto& [right, wrong, hints_of] : {std::tuple{"a.sdv", "a.avi", &tools::hints_of_recording},
                                                 {"a.avi", "a.sdv", &tools::hints_of_avi}}) {
        AviHints hints;
        ASSERT_TRUE(hints_of(dir / right, hints, why)) << why;
        EXPECT_TRUE(same_bytes(mend(growing, hints).file, stopped)) << right;
        EXPECT_FALSE(hints_of(dir / wrong, hints, why)) << wrong;
    }
}
