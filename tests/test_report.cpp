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

TEST(Report, WritesOnlyTheRecordOfThisVersion)
{
    SdvReport reports[2]; // the second one stands for what a later version adds
    memset(reports, 0x55, sizeof(reports));
    EXPECT_EQ(GetConversionReport(reports), 0);
    EXPECT_EQ(std::pair(reports[0].cbSize, reports[0].reserved), std::pair(0x55555555u, 0x55555555u));
    EXPECT_EQ(reports[1].cbSize, 0x55555555u);
    reports[1].cbSize = sizeof(SdvReport) - 1;
    EXPECT_EQ(GetConversionReport(&reports[1]), -1);
    EXPECT_EQ(reports[1].u64Gaps, 0x5555555555555555u);
    EXPECT_EQ(GetConversionReport(nullptr), -1);
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
