#include <array>
#include <atomic>
#include <cstring>

#include "support.h"

// Recorded; numbered 0, no key, wrong key, inconsistent; bytes, gaps, first.
using Counts = std::array<uint64_t, 8>;

static Counts report()
{
    SdvReport all{};
    all.cbSize = sizeof(all);
    EXPECT_EQ(GetConversionReport(&all), 0);
    return {all.u64FramesRecorded,      all.u64DroppedNumber0, all.u64DroppedNoKey, all.u64DroppedWrongKey,
            all.u64DroppedInconsistent, all.u64BytesSkipped,   all.u64Gaps,         all.u64FirstGap};
}

static Bytes locked(uint32_t number, uint8_t key)
{
    Bytes frame = sdv::frame(picture(number));
    sdv::encipher(frame, Bytes(16, key));
    return frame;
}

TEST(Report, WhatIsKeptAndWhatIsNot)
{
    // All frames are 132 bytes long.
    const Bytes key = sdv::frame(picture(1, 100, 0)), p = sdv::frame(picture(2)),
                zero = sdv::frame(picture(0)), junk(50, 0xAA);
    const Bytes lies = with(p, 20, 400); // more video than the frame has, which only the recorder sees
    const struct
    {
        const char* what;
        Bytes frames;
        Counts file, stream;
        bool keySet = true;
    } rows[] = {
        {"sound", key + p + p, {3}, {3}},
        {"no frame", {}, {}, {}},
        {"before the key frame", p + key + p, {2, 0, 0, 0, 0, 132, 1, 88}, {3}},
        {"gaps", key + junk + p + junk + p, {3, 0, 0, 0, 0, 100, 2, 220}, {3, 0, 0, 0, 0, 100, 2, 132}},
        {"noise at the end", key + junk, {1, 0, 0, 0, 0, 50, 1, 220}, {1, 0, 0, 0, 0, 19, 1, 132}},
        {"cut off", key + part(p, 0, 100), {1, 0, 0, 0, 0, 100, 1, 220}, {1}},
        {"noise behind it", key + zero + junk + p, {2, 1, 0, 0, 0, 50, 1, 352}, {2, 1, 0, 0, 0, 50, 1, 264}},
        {"a lie behind it", key + zero + lies + p, {2, 1, 0, 0, 1}, {2, 1, 0, 0, 0, 132, 1, 264}},
        {"some wrong keys", key + locked(2, 7) + locked(3, 8), {2, 0, 0, 1}, {2, 0, 0, 1}},
        {"no key set", with(locked(1, 7), 8, half(0)) + p, {1, 0, 1}, {1, 0, 1}, false},
        {"numbered 0, no key", key + locked(0, 7), {1, 1}, {1, 1}, false},
    };
    for (const auto& [what, frames, file, stream, keySet] : rows) {
        SCOPED_TRACE(what);
        Bytes secret(16, 7);
        SetDecryptKey(keySet ? secret.data() : nullptr, 16);
        TempDir dir;
        write_file(dir / "in", recording({}) + frames);
        convert(dir / "in", dir / "out");
        EXPECT_EQ(report(), file);

        Recording open;
        push_in_pieces(frames, 41);
        EXPECT_EQ(StopRecordEx(0), 0);
        push_in_pieces(secret, 16); // nothing is open: not part of the recording
        EXPECT_EQ(StartRecord(0, (dir / "none/a.avi").c_str(), 1), -9); // opens no file
        EXPECT_EQ(report(), stream);
        EXPECT_EQ(StartRecord(0, open.path.c_str(), 1), 0);
        EXPECT_EQ(report(), Counts{});
    }
    SetDecryptKey(nullptr, 0);
    Job job;
    EXPECT_EQ(report(), Counts{});
}

// Callers were built against other versions of the record: it is filled in as far as both reach.
TEST(Report, FillsTheFieldsThatTheCallersRecordHas)
{
    const size_t whole = sizeof(SdvReport);
    for (const auto& [size, result, filled] : {std::tuple(size_t(71), -1, size_t(8)),
                                               {72, 0, 72},
                                               {79, 0, 72},
                                               {whole, 0, whole},
                                               {0x55555555, 0, whole}}) {
        SdvReport reports[2]; // the second one stands for what a later version adds
        memset(reports, 0x55, sizeof(reports));
        reports[0].cbSize = uint32_t(size);
        EXPECT_EQ(GetConversionReport(reports), result) << size;
        Bytes want(2 * whole, 0x55);
        memcpy(want.data(), &reports[0].cbSize, 4);
        std::fill(want.begin() + 8, want.begin() + filled, 0);
        EXPECT_EQ(memcmp(reports, want.data(), want.size()), 0) << size;
    }
    EXPECT_EQ(GetConversionReport(nullptr), -1);
}

// Back, or far ahead, they began anew.
TEST(Report, CountsFramesThatAreMissingByTheirNumbers)
{
    TempDir dir;
    Frames frames;
    for (const uint32_t number : {1, 2, 5, 5, 4, 2000000, 2000002})
        frames.push_back(picture(number, 100, number != 1));
    write_file(dir / "in", recording(frames));
    convert(dir / "in", dir / "out");
    SdvReport all{};
    all.cbSize = sizeof(all);
    GetConversionReport(&all);
    EXPECT_EQ(all.u64FramesMissing, 3u);
    EXPECT_EQ(all.u64NumberGaps, 5u);
}

// A recorder that is told that all is well goes on for days. Of 1,000 frames of 132 bytes, 100 fit.
TEST(Report, FramesOnAFullDiskAreNotRecorded)
{
    EXPECT_EQ(in_child([] {
                  Recording open;
                  limit_files(224 + 100 * 108);
                  for (uint32_t i = 1; i <= 1000; ++i) {
                      push_frame(sdv::frame(picture(i)));
                      SdvReport all{};
                      all.cbSize = sizeof(all);
                      GetConversionReport(&all);
                      EXPECT_EQ(all.u64FramesRecorded, std::min(i, 100u));
                      EXPECT_EQ(all.u64FramesNotWritten, i - all.u64FramesRecorded);
                      EXPECT_EQ(file_size(open.path), 224 + all.u64FramesRecorded * 108);
                      if (testing::Test::HasFailure()) return 1;
                  }
                  return StopRecordEx(0) == 1 ? 0 : 2;
              }),
              0);
}

TEST(Report, IsReadWhileAConversionRuns)
{
    TempDir dir;
    Frames frames; // for three blocks of the index
    for (uint32_t i = 1; i <= 6001; ++i) frames.push_back(picture(i, i < 3000 ? 300 : 8, i != 1));
    write_file(dir / "in", recording(frames));
    std::atomic<bool> over = false;
    std::thread reader([&] {
        const std::atomic_ref<int32_t> place(g_tSdv2Avi.m_iPosition);
        while (!over) {
            EXPECT_LE(place.load(), 100);
            EXPECT_LE(report()[0], frames.size());
        }
    });
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(convert(dir / "in", dir / "out"), done);
        EXPECT_EQ(report()[0], frames.size());
    }
    over = true;
    reader.join();
    expect_video(dir / "out", frames);
}
