// Recordings cut off at any place, and finished: what comes out is what a stop there would have written.
#include <map>
#include <random>

#include "adts.h"
#include "annexb.h"
#include "avi_repair.h"
#include "support.h"

using tools::AviHints;

// 100 pictures with an SPS, and behind each its share of audio: one slot, or with AAC two of them.
static Frames clip(uint8_t code)
{
    const Bytes stream = read_file(TEST_DATA_DIR "/clip.h264"),
                tone = read_file(TEST_DATA_DIR "/tone48k.aac");
    const auto aac = adts::split(tone).frames;
    Frames frames;
    for (const auto& unit : annexb::split_access_units(stream, annexb::split_nals(stream))) {
        sdv::FrameFields frame = picture(uint32_t(frames.size() + 1), 4, unit.key ? 0 : 1);
        frame.video = part(stream, unit.begin, unit.end);
        frame.audioCode = code;
        const size_t at = frames.size();
        if (code == 1 || code == 2) frame.audioAfter = {sdv::g711_slot(noise(319 + at % 2, uint32_t(at)))};
        for (size_t i = 2 * at; code == 22 && i < std::min(2 * at + 2, aac.size()); ++i) {
            frame.audioAfter.push_back(part(tone, aac[i].offset, aac[i].offset + aac[i].header.length));
            frame.audioAfter.back().resize(400, 0);
        }
        frames.push_back(frame);
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
    const bool worked = tools::repair_avi(dir / "a.avi", hints, why);
    const Bytes mended = read_file(dir / "a.avi");
    if (worked) expect_sound(dir / "a.avi");
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
        const auto chunks = expect_sound(dir / "whole").chunks;
        const AviHints hints = code ? AviHints{.audioCode = code, .audioRate = rate} : AviHints{};
        const size_t begin = code ? 328 : 224;
        std::map<size_t, Bytes> stops;
        for (int moment = 0; moment < 50; ++moment) {
            const size_t length = begin + random() % (whole.growing.size() - begin + 1);
            const size_t kept = size_t(std::count_if(chunks.begin(), chunks.end(), [&](const auto& chunk) {
                return chunk.offset + 8 + chunk.size + chunk.size % 2 <= length;
            }));
            SCOPED_TRACE(testing::Message() << "code " << code << ", " << length << " bytes");
            const Mended mended = mend(part(whole.growing, 0, length), hints);
            ASSERT_EQ(mended.done, kept > 0) << mended.why;
            if (!kept) continue;
            if (stops[kept].empty()) stops[kept] = make(first_chunks(frames, kept), file).stopped;
            ASSERT_TRUE(same_bytes(mended.file, stops[kept]));
        }
    }
}

TEST(AviRepair, GoesOnWhereARepairOrAStopWasCutOff)
{
    const auto [growing, stopped] = make(clip(1));
    const size_t end = growing.size();
    const Bytes headless = Bytes(328, 0) + part(stopped, 328, stopped.size());
    for (const size_t length : {end, end + 3, end + 8, end + 500, stopped.size()}) {
        EXPECT_TRUE(same_bytes(mend(part(headless, 0, length), alaw).file, stopped)) << length;
        // With headers nothing is left to guess.
        EXPECT_TRUE(same_bytes(mend(part(stopped, 0, length), {}).file, stopped)) << length;
    }
    const Bytes noList = part(stopped, 0, 316) + Bytes(12, 0) + part(stopped, 328, end);
    EXPECT_TRUE(same_bytes(mend(noList, {}).file, stopped));
    // Zeros that begin inside of the last chunk, or of its header, are none of it.
    const Bytes torn = words("01wb", 300) + Bytes(200, 7), odd = words("01wb", 301) + Bytes(301, 7);
    std::vector<Bytes> tails = {Bytes(5000, 0), odd + Bytes(1, 0), words("00dc", 5000) + Bytes(10, 1)};
    for (const size_t length : {1, 4, 5, 8, 100})
        for (const size_t zeros : {3, 5000}) tails.push_back(part(torn, 0, length) + Bytes(zeros, 0));
    for (const Bytes& tail : tails)
        EXPECT_TRUE(same_bytes(mend(growing + tail, alaw).file, stopped)) << testing::PrintToString(tail);
    Frames frames = clip(2);
    for (size_t i = 0; i < 3; ++i) frames[i].audioCode = 0, frames[i].audioAfter.clear();
    const Made late = make(frames);
    EXPECT_TRUE(same_bytes(mend(late.growing, mulaw).file, late.stopped)) << "audio that came late";
}

TEST(AviRepair, WhatItCannotKnowItDoesNotTouch)
{
    const Bytes ulaw = make(clip(2)).growing, aac = make(clip(22)).growing;
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
        {"nothing but zeros", Bytes(1000, 0), mulaw, "no chunks"},
        {"nothing", {}, {}, "no chunks"},
    };
    for (const auto& [what, file, hints, why] : rows) {
        const Mended mended = mend(file, hints);
        EXPECT_TRUE(!mended.done && mended.why.find(why) != std::string::npos) << what << ": " << mended.why;
        EXPECT_TRUE(same_bytes(mended.file, file));
    }
    const Bytes sound = make(clip(2)).stopped;
    EXPECT_TRUE(same_bytes(mend(sound, {}).file, sound));
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
    AviHints hints;
    std::string why;
    ASSERT_TRUE(tools::hints_of_recording(dir / "a.sdv", hints, why)) << why;
    EXPECT_TRUE(same_bytes(mend(growing, hints).file, stopped));
    ASSERT_TRUE(tools::hints_of_avi(dir / "a.avi", hints = {}, why)) << why;
    EXPECT_TRUE(same_bytes(mend(growing, hints).file, stopped));
    EXPECT_FALSE(tools::hints_of_avi(dir / "a.sdv", hints, why));
    EXPECT_FALSE(tools::hints_of_recording(dir / "a.avi", hints, why));
}
