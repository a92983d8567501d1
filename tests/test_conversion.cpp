#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <limits>

#include "support.h"

using Frames = std::vector<sdv::FrameFields>;

static const Outcome done = {0, 100, ""}, refused = {-1, 0, "140217====2222\nTC_SDVtoAVI error"},
                     noHeader = {-1, 0, "140217====3333TC_SDVtoAVI error"},
                     noKeyFrame = {0, -4, "140217====8888"}, noOutput = {0, -2, ""};

static const Frames three = {picture(1, 500, 0), picture(2, 301), picture(3, 400)};

static Bytes operator+(Bytes left, const Bytes& right)
{
    sdv::append(left, right);
    return left;
}

static Bytes header_with(uint16_t mode, uint16_t rate = 25)
{
    sdv::FileFields file;
    file.mode = mode;
    file.frameRate = rate;
    return recording(three, file);
}

static Frames flagged(uint32_t flag)
{
    Frames frames = three;
    for (sdv::FrameFields& frame : frames) frame.flag = flag;
    return frames;
}

TEST(Conversion, OutcomesByInput)
{
    Frames noKeys = three;
    noKeys[0].type = 1;
    Bytes cut = recording(three);
    cut.resize(50);
    const std::tuple<const char*, Bytes, Outcome> rows[] = {
        {"sound", recording(three), done},
        {"mode 11", header_with(11), done},
        {"mode 41", header_with(41), done},
        {"mode 22", header_with(22), noHeader},
        {"rate 31", header_with(21, 31), noHeader},
        {"empty", {}, noHeader},
        {"cut header", cut, noKeyFrame},
        {"no frames", recording({}), noKeyFrame},
        {"no key frame", recording(noKeys), noKeyFrame},
        {"frames of mode 31", recording(flagged(0x03000000)), noKeyFrame},
        {"frames of mode 32", recording(flagged(0x04000000)), noKeyFrame},
    };
    for (const auto& [what, bytes, want] : rows) {
        SCOPED_TRACE(what);
        TempDir dir;
        write_file(dir / "in", bytes);
        write_file(dir / "out", hex("00"));
        EXPECT_EQ(convert(dir / "in", dir / "out"), want);
        EXPECT_EQ(g_tSdv2Avi.m_iIsSwitching, 0);
        if (want == done)
            expect_chunks(dir / "out", video_chunks(three));
        else
            EXPECT_EQ(file_size(dir / "out"), want == noHeader ? 1u : 0u);
        EXPECT_EQ(exists(dir / "out"), !(want == noKeyFrame));
    }
}

TEST(Conversion, OutcomesByPath)
{
    TempDir dir;
    const Bytes sound = recording(three);
    write_file(dir / "in", sound);
    ASSERT_EQ(mkfifo((dir / "pipe").c_str(), 0600), 0);
    ASSERT_EQ(mkdir((dir / "folder").c_str(), 0700), 0);
    ASSERT_EQ(symlink("in", (dir / "soft").c_str()), 0);
    ASSERT_EQ(link((dir / "in").c_str(), (dir / "hard").c_str()), 0);
    ASSERT_EQ(symlink("target", (dir / "away").c_str()), 0);
    const std::tuple<std::string, std::string, Outcome> rows[] = {
        {dir / "missing", dir / "out", refused},
        {dir / "folder", dir / "out", noHeader},
        {dir / "pipe", dir / "out", noHeader},
        {"/dev/zero", dir / "out", noHeader},
        {dir / "in", dir / "none/out", noOutput},
        {dir / "in", dir / "folder", noOutput},
        {dir / "in", dir / "pipe", noOutput},
        {dir / "in", "/dev/full", noOutput},
        {dir / "in", dir / "in", refused},
        {dir / "in", dir / "soft", refused},
        {dir / "soft", dir / "in", refused},
        {dir / "in", dir / "hard", refused},
        {dir / "in", dir / "folder/../in", refused},
        {dir / "soft", dir / "out", done},
        {dir / "in", dir / "away", done},
    };
    for (const auto& [in, out, want] : rows) {
        EXPECT_EQ(convert(in, out), want) << in << " to " << out;
        EXPECT_TRUE(read_file(dir / "in") == sound) << in << " to " << out;
        EXPECT_EQ(exists(dir / "out"), want == done && out == dir / "out");
        unlink((dir / "out").c_str());
    }
    EXPECT_TRUE(exists(dir / "pipe") && exists(dir / "folder") && exists("/dev/full") &&
                exists(dir / "soft"));
    expect_chunks(dir / "target", video_chunks(three));
}

static bool refused_alone(const std::string& in, const std::string& out)
{
    const Outcome outcome = convert(in, out);
    return outcome.result == -1 && outcome.text == "TC_SDVtoAVI error";
}

TEST(Conversion, LongAndMissingPathsAreRefusedNotCut)
{
    TempDir dir;
    std::string folder = dir / std::string(100, 'd');
    ASSERT_EQ(mkdir(folder.c_str(), 0700), 0);
    folder += "/";
    const auto path_of = [&](size_t length, char letter) {
        return folder + std::string(length - folder.size(), letter);
    };
    for (const size_t length : {259, 260, 300}) write_file(path_of(length, 'i'), recording(three));
    EXPECT_EQ(convert(path_of(259, 'i'), path_of(259, 'o')), done);
    expect_chunks(path_of(259, 'o'), video_chunks(three));
    for (const size_t length : {260, 300}) {
        EXPECT_TRUE(refused_alone(path_of(length, 'i'), path_of(200, 'n')));
        EXPECT_TRUE(refused_alone(path_of(259, 'i'), path_of(length, 'n')));
        EXPECT_FALSE(exists(path_of(200, 'n')) || exists(path_of(length, 'n')) || exists(path_of(259, 'n')));
    }
    Job job;
    const std::string in = path_of(259, 'i'), out = path_of(200, 'n'), tooLong = path_of(260, 'i');
    char* const pairs[][2] = {
        {text(tooLong), text(out)}, {text(in), text(tooLong)}, {nullptr, text(out)}, {text(in), nullptr}};
    for (const auto& pair : pairs) {
        EXPECT_EQ(written_to(1, [&] { EXPECT_EQ(StartChange(pair[0], pair[1]), -1); }), "140217====2222\n");
        EXPECT_EQ(g_tSdv2Avi.m_iIsSwitching, 0);
        EXPECT_FALSE(exists(out));
    }
    QuorlinRelease();
    for (const auto& pair : pairs)
        EXPECT_EQ(written_to(1, [&] { EXPECT_EQ(KtConvert_SDVtoAVI(pair[0], pair[1]), -1); }),
                  "TC_SDVtoAVI error");
}

TEST(Conversion, BusyJobIsRefused)
{
    TempDir dir;
    write_file(dir / "in", recording(three));
    Job job;
    struct
    {
        int switching, position, result;
        const char* said;
    } const rows[] = {
        {1, 0, -1, ""}, {1, 50, -1, ""}, {0, 1, -2, "140217====1111"}, {0, 99, -2, "140217====1111"},
        {0, -4, 0, ""}, {0, 100, 0, ""}};
    for (const auto& row : rows) {
        g_tSdv2Avi.m_iIsSwitching = row.switching;
        g_tSdv2Avi.m_iPosition = row.position;
        int result = 9;
        EXPECT_EQ(written_to(1, [&] { result = TC_SDVtoAVI(5, text(dir / "in"), text(dir / "out")); }),
                  row.said);
        EXPECT_EQ(result, row.result);
        EXPECT_EQ(exists(dir / "out"), row.result == 0);
        WaitThreadTerminate(); // nothing is left to wait for
    }
    EXPECT_EQ(g_tSdv2Avi.m_iPosition, 100);
    EXPECT_EQ(written_to(1, [] { errorprint(text("some text")); }), "some text\n");
}

TEST(Conversion, ThreadTellsAMissingInput)
{
    TempDir dir;
    write_file(dir / "out", hex("00"));
    Job job;
    g_tSdv2Avi.m_iIsSwitching = 1;
    strcpy(g_tSdv2Avi.m_szInputPath, (dir / "in").c_str());
    strcpy(g_tSdv2Avi.m_szOutputPath, (dir / "out").c_str());
    EXPECT_EQ(written_to(1, [] { EXPECT_EQ(ThreadChangeProc(&g_tSdv2Avi), nullptr); }), "140217====6666");
    EXPECT_EQ(g_tSdv2Avi.m_iPosition, -1);
    EXPECT_EQ(g_tSdv2Avi.m_iIsSwitching, 0);
    EXPECT_FALSE(exists(dir / "out"));
}

static Bytes false_starts(size_t count)
{
    Bytes bytes;
    for (size_t i = 0; i < count; ++i) sdv::append(bytes, hex("00000002"));
    return bytes;
}

struct Damage
{
    std::string what;
    Bytes between;
};

static std::vector<Damage> damages()
{
    Bytes cutHeader = sdv::frame(picture(9));
    cutHeader.resize(20);
    std::vector<Damage> rows = {
        {"false start codes", false_starts(50)},
        {"many false start codes", false_starts(20000)},
        {"header cut before its sizes end", cutHeader},
        {"header of a frame above 1 MiB",
         hex("0000000201001000000000000900000000000000e1ff0f000000000000000000")},
        {"frame of another mode", sdv::frame(flagged(0x03000000)[1])},
    };
    for (const size_t size : {1, 31, 32, 33, 4096, 32379, 32704, 32705, 32735, 32736, 32737, 32767, 32768,
                              32769, 65472, 65536, 70000, 1100000})
        rows.push_back({"stray bytes: " + std::to_string(size), Bytes(size, 0xAA)});
    return rows;
}

TEST(Conversion, DamageIsSkipped)
{
    for (const Damage& row : damages()) {
        SCOPED_TRACE(row.what);
        TempDir dir;
        const Bytes frames[] = {sdv::frame(three[0]), sdv::frame(three[1]), sdv::frame(three[2])};
        write_file(dir / "gap",
                   recording({}) + frames[0] + row.between + frames[1] + frames[2] + row.between);
        EXPECT_EQ(convert(dir / "gap", dir / "out"), done);
        expect_chunks(dir / "out", video_chunks(three));

        write_file(dir / "late", recording({picture(8)}) + row.between + frames[0] + frames[1]);
        EXPECT_EQ(convert(dir / "late", dir / "out"), done);
        expect_chunks(dir / "out", video_chunks({three[0], three[1]}));

        // Behind a frame numbered 0 the next header is taken as it comes, when its size can be one.
        if (row.between.size() < 32 || row.between[0] != 0xAA) continue;
        write_file(dir / "zero", recording({three[0], picture(0)}) + row.between + frames[1] + frames[2]);
        EXPECT_EQ(convert(dir / "zero", dir / "out"), done);
        expect_chunks(dir / "out", video_chunks(three));
    }
}

TEST(Conversion, FramesNumberedZero)
{
    const Bytes zero = sdv::frame(picture(0, 50, 0)), first = sdv::frame(three[0]),
                second = sdv::frame(three[1]);
    Bytes tooSmall = second, unsound = second;
    tooSmall[4] = 31, tooSmall[5] = 0;
    unsound[20] ^= 1; // sizes do not add up, and yet the frame is whole: it is handed on, and declares less
    const std::tuple<const char*, Bytes, Frames> rows[] = {
        {"first", zero + zero + second, {three[1]}},
        {"between and last", first + zero + second + zero, {three[0], three[1]}},
        {"before a size of 31", first + zero + tooSmall + second, {three[0], three[1]}},
        {"cut short behind", first + zero + Bytes(second.begin(), second.end() - 1), {three[0]}},
        {"header cut behind", first + zero + Bytes(second.begin(), second.begin() + 31), {three[0]}},
    };
    for (const auto& [what, bytes, want] : rows) {
        SCOPED_TRACE(what);
        TempDir dir;
        write_file(dir / "in", recording({}) + bytes);
        EXPECT_EQ(convert(dir / "in", dir / "out"), done);
        expect_chunks(dir / "out", video_chunks(want));
    }
}

TEST(Conversion, LargeFramesAndTruncatedLastOne)
{
    const Frames big = {picture(1, 524288 - 32, 0), picture(2, 524288), picture(3, 1048576 - 32),
                        picture(4, 10)};
    TempDir dir;
    Bytes bytes = recording(big);
    sdv::append(bytes, sdv::frame(picture(5, 1048577 - 32, 0))); // one byte above the limit: damage
    sdv::append(bytes, sdv::frame(picture(6, 20)));
    Bytes last = sdv::frame(picture(7, 3000));
    last.pop_back();
    sdv::append(bytes, last);
    write_file(dir / "in", bytes);
    EXPECT_EQ(convert(dir / "in", dir / "out"), done);
    Frames want = big;
    want.push_back(picture(6, 20));
    expect_chunks(dir / "out", video_chunks(want));
}

TEST(Conversion, EncryptedFramesNeedTheirKey)
{
    Bytes key = hex("6b657921");
    Bytes bytes = recording({});
    for (const sdv::FrameFields& fields : three) {
        Bytes frame = sdv::frame(fields);
        if (fields.number != 2) sdv::encipher(frame, key);
        sdv::append(bytes, frame);
    }
    TempDir dir;
    write_file(dir / "in", bytes);
    SetDecryptKey(key.data(), 4);
    for (int times = 0; times < 2; ++times) {
        EXPECT_EQ(convert(dir / "in", dir / "out"), done);
        expect_chunks(dir / "out", video_chunks(three));
    }
    key[0] ^= 1;
    SetDecryptKey(key.data(), 4);
    EXPECT_EQ(convert(dir / "in", dir / "out"), done);
    expect_chunks(dir / "out", video_chunks({three[1]}));
    SetDecryptKey(nullptr, 0);
}

TEST(Conversion, AudioDefaultsReachTheFile)
{
    const std::tuple<int, uint32_t, uint32_t, uint32_t> rows[] = {
        {0, 0, 1, 8000}, {255, 0xFFFFFFFF, 1, 8000}, {2, 44100, 2, 44100}, {3, 16000, 3, 16000}};
    for (const auto& [channels, rate, channelsOut, rateOut] : rows) {
        TempDir dir;
        sdv::FileFields file;
        file.channels = uint8_t(channels);
        file.bitsPerSample = 0;
        file.sampleRate = rate;
        sdv::FrameFields frame = picture(1, 100, 0);
        frame.audioCode = 1;
        frame.audioAfter = {sdv::g711_slot(Bytes(320, 1))};
        write_file(dir / "in", recording({frame}, file));
        EXPECT_EQ(convert(dir / "in", dir / "out"), done);
        const avi::Report report = expect_sound(dir / "out");
        EXPECT_EQ(report.audio.channels, channelsOut);
        EXPECT_EQ(report.audio.sampleRate, rateOut);
        EXPECT_EQ(report.audio.formatTag, 6);
        EXPECT_EQ(g_tSdv2Avi.m_Header.BitsPerSample, 16);
    }
}

TEST(Conversion, ManyLeaveNothingBehind)
{
    TempDir dir;
    Frames frames;
    for (uint32_t i = 1; i <= 3500; ++i) frames.push_back(picture(i, 8, i == 1 ? 0 : 1));
    write_file(dir / "in", recording(frames));
    write_file(dir / "nokey", recording({picture(1)}));
    for (int i = 0; i < 10; ++i) {
        convert(dir / (i % 3 == 1 ? "nokey" : i % 3 == 2 ? "missing" : "in"), dir / "out");
        EXPECT_EQ(m_iSize, g_tSdv2Avi.m_IndexBlock ? 1 : 0);
        EXPECT_EQ(g_tSdv2Avi.m_lstIndex, nullptr);
        EXPECT_EQ(m_lstIndexPoll, nullptr);
        EXPECT_EQ(g_tSdv2Avi.m_pStreamBuf, nullptr);
        EXPECT_EQ(g_tSdv2Avi.m_fsRec, nullptr);
    }
    EXPECT_EQ(convert(dir / "in", dir / "out"), done);
    expect_chunks(dir / "out", video_chunks(frames));
}

TEST(Conversion, FullDiskIsNoSuccess)
{
    TempDir dir;
    write_file(dir / "in", recording(three));
    convert(dir / "in", dir / "out");
    const rlim_t whole = file_size(dir / "out");
    for (const rlim_t limit : {rlim_t(0), rlim_t(100), rlim_t(800), whole - 40, whole - 1, whole}) {
        EXPECT_EQ(in_child([&] {
                      signal(SIGXFSZ, SIG_IGN);
                      const rlimit size = {limit, limit};
                      setrlimit(RLIMIT_FSIZE, &size);
                      const int result = KtConvert_SDVtoAVI(text(dir / "in"), text(dir / "out"));
                      return result == 0 ? g_tSdv2Avi.m_iPosition & 0xFF : 200;
                  }),
                  limit == whole ? 100 : 0xFE)
            << limit;
        EXPECT_EQ(exists(dir / "out"), limit == whole);
    }
}

TEST(Conversion, OldSinglePass)
{
    const Bytes first = sdv::frame(three[0]), second = sdv::frame(three[1]), third = sdv::frame(three[2]);
    Bytes small = second, large = second;
    small[4] = 31, small[5] = 0;
    large[6] = 0x10, large[4] = 1, large[5] = 0;
    sdv::FileFields two, endless, negative;
    two.frameCount = 2, endless.frameCount = 1000, negative.frameCount = 0xFFFFFFFF;
    const std::tuple<const char*, Bytes, Frames> rows[] = {
        {"as many as counted", sdv::file_header(two) + first + second + third, {three[0], three[1]}},
        {"fewer than counted", sdv::file_header(endless) + first + second + third, three},
        {"the last cut",
         sdv::file_header(endless) + first + Bytes(second.begin(), second.end() - 1),
         {three[0]}},
        {"size below 32 ends it", sdv::file_header(endless) + first + small + second, {three[0]}},
        {"size above 1 MiB ends it",
         sdv::file_header(endless) + first + large + Bytes(1100000, 1),
         {three[0]}},
        {"negative count", sdv::file_header(negative) + first, {}},
    };
    for (const auto& [what, bytes, want] : rows) {
        SCOPED_TRACE(what);
        TempDir dir;
        write_file(dir / "in", bytes);
        Job job;
        EXPECT_EQ(ChangeFile2AVI(text(dir / "in"), text(dir / "out")), 0);
        if (want.empty())
            EXPECT_EQ(file_size(dir / "out"), 212u);
        else
            expect_chunks(dir / "out", video_chunks(want));
    }
    TempDir dir;
    write_file(dir / "in", recording(three));
    const std::tuple<const char*, const char*, int, const char*> refusals[] = {
        {"none", "out", 1, "Can't read the inputfile!\n"},
        {"in", "none/out", 2, "Record failed!\n\n"},
        {"in", "in", 2, "Record failed!\n\n"},
    };
    for (const auto& [in, out, result, said] : refusals) {
        Job job;
        int got = -9;
        EXPECT_EQ(written_to(1, [&] { got = ChangeFile2AVI(text(dir / in), text(dir / out)); }), said);
        EXPECT_EQ(got, result);
        EXPECT_EQ(g_tSdv2Avi.m_fsRec, nullptr);
    }
    EXPECT_TRUE(read_file(dir / "in") == recording(three));
}

TEST(FindFrame, FirstMatchOfItsKind)
{
    Bytes predicted = sdv::frame(picture(1, 40)), key = sdv::frame(picture(2, 40, 0));
    Bytes bytes = Bytes(5, 0) + false_starts(3) + predicted + Bytes(3, 0) + key;
    struct
    {
        int size, kind, position; // -1: not found
    } const rows[] = {{int(bytes.size()), 0, 17},
                      {int(bytes.size()), 1, 92},
                      {int(bytes.size()), 2, -1},
                      {int(bytes.size()), -1, -1},
                      {17 + 32, 0, 17},
                      {17 + 31, 0, -1},
                      {92 + 32, 1, 92},
                      {92 + 31, 1, -1},
                      {31, 0, -1},
                      {0, 0, -1},
                      {-5, 0, -1},
                      {std::numeric_limits<int>::min(), 0, -1}};
    for (const auto& row : rows) {
        int position = -1;
        EXPECT_EQ(FindFrame(bytes.data(), row.size, &position, row.kind), row.position >= 0)
            << row.size << " " << row.kind;
        EXPECT_EQ(position, row.position);
    }
}

TEST(HeaderChange, TakesOverWhatDiffers)
{
    struct
    {
        uint32_t rate;
        int channels, rateAfter, channelsAfter;
    } const rows[] = {{8000, 2, 8000, 9},   {16000, 2, 16000, 2}, {44100, 2, 8000, 2},
                      {48000, 3, 48000, 1}, {32000, 0, 32000, 1}, {0xFFFFFFFF, 1, 8000, 1}};
    for (const auto& row : rows) {
        Job job;
        g_tSdv2Avi.m_iAudioChannel = 9;
        g_tSdv2Avi.m_Header.SamplesPerSec = row.rate;
        g_tSdv2Avi.m_Header.AChannels = uint8_t(row.channels);
        EXPECT_EQ(HeaderChange(), 0);
        EXPECT_EQ(g_tSdv2Avi.m_iAudioSampleRate, row.rateAfter);
        EXPECT_EQ(g_tSdv2Avi.m_iAudioChannel, row.channelsAfter);
    }
}
