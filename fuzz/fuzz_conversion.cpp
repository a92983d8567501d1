// A recording from the fuzzer's bytes, converted as a file, pushed in pieces and converted the older way.
#include <fuzzer/FuzzedDataProvider.h>
#include <unistd.h>

#include <cstring>

#include "../tests/support.h"

static const TempDir s_directory;
static const std::string s_input = s_directory / "in.sdv", s_output = s_directory / "out.avi";

struct Run
{
    uint8_t options;
    sdv::FileFields fields;
    Bytes frames; // behind the file header
};

// Frames that are well formed, of which the fuzzer spoils a few bytes, between bytes of its own.
static Bytes build_frames(FuzzedDataProvider& data, bool large)
{
    Bytes all;
    while (data.remaining_bytes() > 4 && all.size() < 3000000) {
        sdv::FrameFields fields;
        const uint8_t shape = data.ConsumeIntegral<uint8_t>();
        fields.number = data.ConsumeIntegralInRange<uint32_t>(0, 300);
        fields.type = shape & 1;
        fields.flag = shape & 2 ? 0x02000000 : data.PickValueInArray({0x03000000u, 0x04000000u, 0x00820000u});
        fields.video = data.ConsumeBytes<uint8_t>(data.ConsumeIntegralInRange<size_t>(0, 90));
        if (large && shape & 64) fields.video.resize(size_t(shape) << 13, 1);
        fields.audioCode = data.PickValueInArray<uint8_t>({0, 1, 2, 3, 22});
        const Bytes slot = shape & 4 ? sdv::g711_slot(Bytes(data.ConsumeIntegralInRange<size_t>(0, 64), 9))
                                     : data.ConsumeBytes<uint8_t>(data.ConsumeIntegralInRange<size_t>(0, 40));
        fields.audioBefore.assign(shape >> 3 & 1, slot);
        fields.audioAfter.assign(shape >> 4 & 1, slot);
        Bytes frame = sdv::frame(fields);
        if (shape & 32) sdv::encipher(frame, Bytes(16, data.ConsumeBool() ? 7 : 8));
        if (shape & 128) frame[data.ConsumeIntegralInRange<size_t>(0, 31)] = data.ConsumeIntegral<uint8_t>();
        sdv::append(all, frame);
        if (shape >= 192)
            sdv::append(all, data.ConsumeBytes<uint8_t>(data.ConsumeIntegralInRange<size_t>(0, 50)));
    }
    return all;
}

static Run make_run(const uint8_t* bytes, size_t size)
{
    FuzzedDataProvider data(bytes, size);
    Run run;
    run.options = data.ConsumeIntegral<uint8_t>();
    run.fields.mode = data.PickValueInArray<uint16_t>({21, 41, 11, 22, 31, 32, 0});
    run.fields.channels = data.ConsumeIntegral<uint8_t>();
    run.fields.sampleRate = data.PickValueInArray({8000u, 16000u, 48000u, 0u, 0xFFFFFFFFu, 11025u});
    run.fields.frameCount = 1000;
    run.frames =
        run.options & 1 ? build_frames(data, run.options >= 240) : data.ConsumeRemainingBytes<uint8_t>();
    return run;
}

static void expect_sound_output()
{
    if (file_size(s_output) > 316) expect_sound(s_output); // more than the header area without chunks
}

static SdvReport report()
{
    SdvReport all{};
    all.cbSize = sizeof(all);
    EXPECT_EQ(GetConversionReport(&all), 0);
    return all;
}

// Where both searches take the same positions for frames, their results are the same bytes.
static bool searches_agree(const Bytes& file, int mode)
{
    for (size_t at = 0; at + sizeof(S_FrameHeader) <= file.size(); ++at) {
        if (memcmp(&file[at], "\0\0\0\2", 4) != 0) continue;
        Bytes header = part(file, at, at + sizeof(S_FrameHeader));
        if (IsValidFrmHeader(header.data()) != IsValidFrameHeader(header.data(), mode)) return false;
    }
    return true;
}

static void record_stream(const S_FileHeader& header, const Bytes& bytes, size_t from, uint8_t piece)
{
    Job job;
    g_tSdv2Avi.m_Header = header;
    EXPECT_EQ(StartRecord(0, s_output.c_str(), 1), 0);
    for (size_t at = from; at < bytes.size(); piece = uint8_t(piece * 5 + 1)) {
        Bytes copy = part(bytes, at, at + 1 + (piece < 200 ? piece : piece * 200u));
        EXPECT_EQ(RecordAviEx(copy.data(), int(copy.size())), 0);
        at += copy.size();
    }
    EXPECT_EQ(StopRecordEx(0), 0);
    EXPECT_LE(report().u64BytesSkipped, bytes.size() - from);
    expect_sound_output();
}

static void convert_and_compare(const Run& run, Bytes& file)
{
    const int result = KtConvert_SDVtoAVI(text(s_input), text(s_output));
    const bool finished = result == 0 && g_tSdv2Avi.m_iPosition == 100;
    EXPECT_EQ(finished, exists(s_output));
    if (!finished) return;

    expect_sound_output();
    const Bytes whole = read_file(s_output);
    const SdvReport of_whole = report();
    const S_FileHeader header = g_tSdv2Avi.m_Header;
    int key = -1;
    EXPECT_EQ(FindFrame(file.data(), int(file.size()), &key, 1), 1);
    record_stream(header, file, size_t(key), run.options);
    const bool streamed_only = header.Mode != 21 && header.Mode != 41;
    if (of_whole.u64DroppedNumber0 || streamed_only || !searches_agree(file, header.Mode)) return;
    EXPECT_TRUE(same_bytes(read_file(s_output), whole));
    EXPECT_EQ(report().u64FramesRecorded, of_whole.u64FramesRecorded);
}

// A check that fails ends the run, and only libFuzzer's texts are seen.
extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    testing::GTEST_FLAG(throw_on_failure) = true;
    EXPECT_TRUE(freopen("/dev/null", "w", stdout));
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size)
{
    const Run run = make_run(bytes, size);
    const Bytes header = sdv::file_header(run.fields);
    Bytes key(16, 7), file = run.options & 4 ? run.frames : header + run.frames;
    SetDecryptKey(run.options & 8 ? key.data() : nullptr, 16);
    write_file(s_input, file);
    unlink(s_output.c_str());
    convert_and_compare(run, file);
    record_stream(*reinterpret_cast<const S_FileHeader*>(header.data()), run.frames, 0, run.options);

    const Job older_way;
    EXPECT_EQ(ChangeFile2AVI(text(s_input), text(s_output)), 0);
    expect_sound_output();
    return 0;
}
