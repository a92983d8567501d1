#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <limits>

#include "support.h"

static const Outcome refused = {-1, 0, "140217====2222\nTC_SDVtoAVI error"}, noOutput = {0, -2, ""};

static const Frames three = {picture(1, 500, 0), picture(2, 301), picture(3, 400)};
static const Bytes first = sdv::frame(three[0]), second = sdv::frame(three[1]), third = sdv::frame(three[2]);

TEST(Conversion, OutcomesByInput)
{
    const std::tuple<const char*, Bytes, Outcome> rows[] = {
        {"mode 41", recording(three, {.mode = 41}), done},
        {"mode 22", recording(three, {.mode = 22}), noHeader},
        {"no key frame", recording({three[1], three[2]}), noKeyFrame},
        {"frames of mode 31", recording({}) + with(first, 0, 0x03000000), noKeyFrame},
    };
    for (const auto& [what, bytes, want] : rows) {
        SCOPED_TRACE(what);
        TempDir dir;
        write_file(dir / "in", bytes);
        write_file(dir / "out", hex("00"));
        EXPECT_EQ(convert(dir / "in", dir / "out"), want);
        EXPECT_EQ(g_tSdv2Avi.m_iIsSwitching, 0);
        if (want == done) expect_video(dir / "out", three);
        EXPECT_EQ(file_size(dir / "out") == 1, want == noHeader);
        EXPECT_EQ(exists(dir / "out"), want != noKeyFrame);
    }
}

TEST(Conversion, OutcomesByPath)
{
    TempDir dir;
    const std::string in = dir / "in", out = dir / "out", folder = dir / "folder", pipe = dir / "pipe",
                      soft = dir / "soft";
    const Bytes sound = recording(three);
    write_file(in, sound);
    // For /dev/full a link, which is what a library that removes too much takes away.
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600) | mkdir(folder.c_str(), 0700) | symlink("in", soft.c_str()) |
                  link(in.c_str(), (dir / "hard").c_str()) | symlink("target", (dir / "away").c_str()) |
                  symlink("/dev/full", (dir / "full").c_str()),
              0);
    const std::tuple<std::string, std::string, Outcome> rows[] = {
        {dir / "missing", out, refused},
        {folder, out, noHeader},
        {pipe, out, noHeader},
        {"/dev/zero", out, noHeader},
        {in, dir / "none/o", noOutput},
        {in, "/sys/out", noOutput}, // a directory that root cannot write to either
        {in, folder, noOutput},
        {in, pipe, noOutput},
        {in, dir / "full", noOutput},
        {in, in, refused},
        {soft, in, refused},
        {in, soft, refused},
        {in, dir / "hard", refused},
        {soft, out, done},
        {in, dir / "away", done},
    };
    for (const auto& [from, to, want] : rows) {
        SCOPED_TRACE(from + " to " + to);
        EXPECT_EQ(convert(from, to), want);
        EXPECT_TRUE(read_file(in) == sound);
        EXPECT_EQ(exists(out), want == done && to == out);
        unlink(out.c_str());
    }
    EXPECT_TRUE(exists(pipe) && exists(folder) && exists("/dev/full") && exists(soft));
    expect_video(dir / "target", three);
}

TEST(Conversion, LongAndMissingPathsAreRefusedNotCut)
{
    TempDir dir;
    const auto named = [&](size_t length, char letter) {
        return dir / std::string(length - dir.path.size() - 1, letter);
    };
    const std::string in = named(259, 'i'), longIn = named(260, 'i'), out = named(259, 'o'),
                      longOut = named(260, 'o');
    for (const std::string& path : {in, longIn}) write_file(path, recording(three));
    char* const pairs[][2] = {
        {text(longIn), text(out)}, {text(in), text(longOut)}, {nullptr, text(out)}, {text(in), nullptr}};
    for (const auto& [from, to] : pairs) {
        EXPECT_EQ(told(1, [&] { return KtConvert_SDVtoAVI(from, to); }), Told(-1, "TC_SDVtoAVI error"));
        Job job;
        EXPECT_EQ(told(1, [&] { return StartChange(from, to); }), Told(-1, "140217====2222\n"));
        EXPECT_EQ(g_tSdv2Avi.m_iIsSwitching, 0);
        EXPECT_FALSE(exists(out) || exists(longOut));
    }
    EXPECT_EQ(convert(in, out), done);
    expect_video(out, three);
}

TEST(Conversion, BusyJobIsRefused)
{
    TempDir dir;
    write_file(dir / "in", recording(three));
    Job job;
    const std::tuple<int, int, Told> rows[] = {
        {1, 0, {-1, ""}}, {1, 50, {-1, ""}}, {0, 1, {-2, "140217====1111"}}, {0, 99, {-2, "140217====1111"}},
        {0, -4, {0, ""}}, {0, 100, {0, ""}}};
    for (const auto& [switching, position, want] : rows) {
        g_tSdv2Avi.m_iIsSwitching = switching;
        g_tSdv2Avi.m_iPosition = position;
        EXPECT_EQ(told(1, [&] { return TC_SDVtoAVI(5, text(dir / "in"), text(dir / "out")); }), want);
        EXPECT_EQ(exists(dir / "out"), want.first == 0);
        WaitThreadTerminate(); // nothing is left to wait for
    }
    EXPECT_EQ(g_tSdv2Avi.m_iPosition, 100);

    unlink((dir / "in").c_str()); // between the test of the input and the thread
    g_tSdv2Avi.m_iIsSwitching = 1;
    const Told body = told(1, [] { return ThreadChangeProc(&g_tSdv2Avi) != nullptr; });
    EXPECT_EQ(body, Told(0, "140217====6666"));
    EXPECT_EQ(std::pair(g_tSdv2Avi.m_iPosition, g_tSdv2Avi.m_iIsSwitching), std::pair(-1, 0));
    EXPECT_FALSE(exists(dir / "out"));
}

static Bytes false_starts(size_t count)
{
    Bytes bytes;
    for (size_t i = 0; i < count; ++i) sdv::append(bytes, hex("00000002"));
    return bytes;
}

TEST(Conversion, DamageIsSkipped)
{
    const Bytes zero = sdv::frame(picture(0, 50, 0)), large = sdv::frame(picture(5, 1048577 - 32, 0));
    const Frames big = {picture(1, 524288 - 32, 0), picture(2, 524288), picture(3, 1048576 - 32), picture(6)};
    const Frames two = {three[0], three[1]};
    std::vector<std::tuple<std::string, Bytes, Frames>> rows = {
        {"numbered zero first", zero + zero + second, {three[1]}},
        {"numbered zero between and last", first + zero + second + zero, two},
        {"numbered zero before a size of 31", first + zero + with(second, 4, 31) + second, two},
        {"numbered zero before a cut frame", first + zero + part(second, 0, second.size() - 1), {three[0]}},
        {"numbered zero before a cut header", first + zero + part(second, 0, 31), {three[0]}},
        {"large frames, a cut one last", part(recording(big), 88, 9999999) + part(large, 0, 999999), big},
    };
    std::vector<std::pair<std::string, Bytes>> damages = {
        {"false start codes", false_starts(50)},
        {"many false start codes", false_starts(20000)},
        {"header cut before its sizes end", part(sdv::frame(picture(9)), 0, 20)},
        {"header of a frame above 1 MiB", part(large, 0, 32)},
        {"whole frame above 1 MiB", large},
        {"frame of another mode", with(second, 0, 0x03000000)},
    };
    for (const size_t size : {1, 31, 32, 33, 4096, 65536, 523636, 523637, 523667, 523668, 1100000})
        damages.push_back({"stray bytes: " + std::to_string(size), Bytes(size, 0xAA)});
    for (const auto& [what, between] : damages) {
        rows.push_back({what, first + between + second + third + between, three});
        rows.push_back({what + " early", sdv::frame(picture(8)) + between + first + second, two});
        // Behind a frame numbered 0 the next header is taken as it comes, when its size can be one.
        if (between.size() >= 32 && between[0] == 0xAA)
            rows.push_back({what + " behind zero", first + zero + between + second + third, three});
    }
    for (const auto& [what, bytes, want] : rows) {
        SCOPED_TRACE(what);
        TempDir dir;
        write_file(dir / "in", recording({}) + bytes);
        EXPECT_EQ(convert(dir / "in", dir / "out"), done);
        expect_video(dir / "out", want);
    }
}

TEST(Conversion, AudioDefaultsReachTheFile)
{
    // Channels and rate in the recording; in the file; and what HeaderChange() makes of them.
    const std::tuple<uint8_t, uint32_t, uint32_t, uint32_t, int, int> rows[] = {
        {0, 0, 1, 8000, 1, 8000},       {255, 0xFFFFFFFF, 1, 8000, 1, 8000}, {2, 44100, 2, 44100, 2, 8000},
        {2, 8000, 2, 8000, 9, 8000},    {2, 16000, 2, 16000, 2, 16000},      {2, 32000, 2, 32000, 2, 32000},
        {1, 48000, 1, 48000, 1, 48000}, {3, 48000, 3, 48000, 1, 48000},
    };
    for (const auto& [channels, rate, channelsOut, rateOut, channelsAfter, rateAfter] : rows) {
        TempDir dir;
        const sdv::FileFields header = {.channels = channels, .sampleRate = rate};
        const sdv::FrameFields frame = with_audio(picture(1, 100, 0), 1, {}, {sdv::g711_slot(Bytes(320, 1))});
        write_file(dir / "in", recording({frame}, header));
        EXPECT_EQ(convert(dir / "in", dir / "out"), done);
        const avi::Audio audio = expect_sound(dir / "out").audio;
        EXPECT_EQ(std::tuple(audio.channels, audio.sampleRate, audio.formatTag),
                  std::tuple(channelsOut, rateOut, 6));
        Job job(header);
        g_tSdv2Avi.m_iAudioChannel = 9;
        EXPECT_EQ(HeaderChange(), 0);
        EXPECT_EQ(std::pair(g_tSdv2Avi.m_iAudioChannel, g_tSdv2Avi.m_iAudioSampleRate),
                  std::pair(channelsAfter, rateAfter));
    }
}

// At every 4 KiB of the output, and where its headers and its index are written.
TEST(Conversion, FullDiskIsNoSuccess)
{
    TempDir dir;
    write_file(dir / "in", recording({picture(1, 30000, 0), picture(2, 20001), picture(3, 9000)}));
    convert(dir / "in", dir / "out");
    const uint64_t whole = file_size(dir / "out");
    std::vector<uint64_t> limits = {800, whole - 40, whole - 1, whole};
    for (uint64_t limit = 0; limit < whole; limit += 4096) limits.push_back(limit);
    for (const uint64_t limit : limits) {
        const int position = in_child([&] {
            limit_files(limit);
            const int result = KtConvert_SDVtoAVI(text(dir / "in"), text(dir / "out"));
            const int outcome = result == 0 ? g_tSdv2Avi.m_iPosition & 0xFF : 200;
            limit_files(UINT64_MAX);
            return convert(dir / "in", dir / "next") == done ? outcome : 201;
        });
        EXPECT_EQ(position, limit == whole ? 100 : 0xFE) << limit;
        EXPECT_EQ(exists(dir / "out"), limit == whole);
    }
}

// It stops where it fails: a long recording does not run to its end on a full disk.
TEST(Conversion, AFullDiskEndsIt)
{
    TempDir dir;
    Frames frames;
    for (uint32_t i = 1; i <= 60; ++i) frames.push_back(picture(i, 200000, i != 1));
    write_file(dir / "in", recording(frames));
    EXPECT_EQ(in_child([&] {
                  limit_files(400000);
                  KtConvert_SDVtoAVI(text(dir / "in"), text(dir / "out"));
                  SdvReport report = {};
                  report.cbSize = sizeof(report);
                  GetConversionReport(&report);
                  EXPECT_LT(report.u64FramesRecorded + report.u64FramesNotWritten, 20u);
                  EXPECT_LT(report.u64FramesRecorded, 3u);
                  return testing::Test::HasFailure() ? 1 : 0;
              }),
              0);
}

// A file server's lease is given up to those who wait; its holder dies of the request.
TEST(Conversion, WaitsForAFileThatIsLeased)
{
    TempDir dir;
    write_file(dir / "in", recording({picture(1, 100, 0)}));
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    const pid_t holder = fork();
    if (holder == 0) {
        const bool held = fcntl(open((dir / "in").c_str(), O_RDWR), F_SETLEASE, F_WRLCK) == 0;
        if (write(ready[1], held ? "y" : "n", 1) == 1) pause();
        _exit(1);
    }
    char held = 0;
    EXPECT_EQ(read(ready[0], &held, 1), 1);
    const Outcome outcome = convert(dir / "in", dir / "out");
    kill(holder, SIGKILL);
    waitpid(holder, nullptr, 0);
    if (held != 'y') GTEST_SKIP() << "no leases here";
    EXPECT_EQ(outcome, done);
}

// Both may have come to name one file since it was tested.
TEST(Conversion, TheThreadItselfSparesItsInput)
{
    TempDir dir;
    write_file(dir / "in", recording({picture(1, 100, 0)}));
    const Bytes before = read_file(dir / "in");
    const Job job;
    for (char* path : {g_tSdv2Avi.m_szInputPath, g_tSdv2Avi.m_szOutputPath})
        strcpy(path, (dir / "in").c_str());
    ThreadChangeProc(&g_tSdv2Avi);
    EXPECT_EQ(g_tSdv2Avi.m_iPosition, -2);
    EXPECT_TRUE(same_bytes(read_file(dir / "in"), before));
}

TEST(Conversion, OldSinglePass)
{
    const Bytes two = sdv::file_header({.frameCount = 2}), endless = sdv::file_header({.frameCount = 1000}),
                stray(1100000, 1);
    const std::tuple<const char*, Bytes, Frames> rows[] = {
        {"as many as counted", two + first + second + third, {three[0], three[1]}},
        {"fewer than counted", endless + first + second + third, three},
        {"the last cut", endless + first + part(second, 0, second.size() - 1), {three[0]}},
        {"size below 32 ends it", endless + first + with(second, 4, 31) + second, {three[0]}},
        {"size above 1 MiB ends it", endless + first + with(second, 4, 0x100001) + stray, {three[0]}},
        {"negative count", sdv::file_header({.frameCount = 0xFFFFFFFF}) + first, {}},
    };
    TempDir dir;
    const std::string in = dir / "in", out = dir / "out";
    for (const auto& [what, bytes, want] : rows) {
        SCOPED_TRACE(what);
        write_file(in, bytes);
        Job job;
        EXPECT_EQ(ChangeFile2AVI(text(in), text(out)), 0);
        if (!want.empty()) expect_video(out, want);
        EXPECT_EQ(file_size(out) == 212, want.empty());
    }
    const std::tuple<std::string, std::string, Told> refusals[] = {
        {dir / "none", out, {1, "Can't read the inputfile!\n"}},
        {in, dir / "none/out", {2, "Record failed!\n\n"}},
        {in, in, {2, "Record failed!\n\n"}},
    };
    const Bytes before = read_file(in);
    for (const auto& [from, to, want] : refusals) {
        Job job;
        EXPECT_EQ(told(1, [&] { return ChangeFile2AVI(text(from), text(to)); }), want);
        EXPECT_EQ(g_tSdv2Avi.m_fsRec, nullptr);
    }
    EXPECT_TRUE(read_file(in) == before);
}

TEST(FindFrame, FirstMatchOfItsKind)
{
    Bytes bytes = Bytes(5, 0) + false_starts(3) + sdv::frame(picture(1, 40)) + Bytes(3, 0) +
                  sdv::frame(picture(2, 40, 0));
    const int all = int(bytes.size()), least = std::numeric_limits<int>::min();
    const std::tuple<int, int, int> rows[] = {{all, 0, 17},     {all, 1, 92},     {all, 2, -1},
                                              {17 + 32, 0, 17}, {17 + 31, 0, -1}, {0, 0, -1},
                                              {92 + 32, 1, 92}, {92 + 31, 1, -1}, {least, 0, -1}};
    for (const auto& [size, kind, want] : rows) {
        int position = -1; // stays when nothing is found
        EXPECT_EQ(FindFrame(bytes.data(), size, &position, kind), want >= 0) << size << " " << kind;
        EXPECT_EQ(position, want);
    }
}
