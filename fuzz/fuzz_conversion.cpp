// A recording from the fuzzer's bytes, converted as a file, pushed in pieces and converted the older way.
#include "Quorlin.h"
#include "avi_check.h"
#include "files.h"
#include "fuzz.h"
#include "sdv_build.h"

#include <cstring>
#include <filesystem>
#include <fstream>

#include <unistd.h>

static std::string s_input, s_output;

struct Run
{
    uint8_t options;
    sdv::FileFields fields;
    Bytes frames; // behind the file header
};

static bool is_streamed(uint16_t mode)
{
    return mode != 21 && mode != 41;
}

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

static Bytes output_bytes()
{
    Bytes bytes;
    std::string why;
    REQUIRE(tools::read_file(s_output, bytes, why));
    return bytes;
}

static void require_sound_output()
{
    if (std::filesystem::file_size(s_output) <= 316)
        return; // the bare header area of a recording without chunks
    const avi::Report report = avi::check_file(s_output);
    // What the recording itself says wrongly is no fault of the file's structure.
    for (const avi::Finding& finding : report.findings) {
        if (finding.what.find("start code") != std::string::npos) continue;
        fprintf(stderr, "at %llu: %s\n", static_cast<unsigned long long>(finding.offset),
                finding.what.c_str());
        abort();
    }
}

static SdvReport report()
{
    SdvReport all{};
    all.cbSize = sizeof(all);
    REQUIRE(GetConversionReport(&all) == 0);
    return all;
}

// Where both searches take the same positions for frames, their results are the same bytes.
static bool searches_agree(const Bytes& file, int mode)
{
    for (size_t at = 0; at + sizeof(S_FrameHeader) <= file.size(); ++at) {
        if (memcmp(&file[at], "\0\0\0\2", 4) != 0) continue;
        Bytes header(file.begin() + long(at), file.begin() + long(at + sizeof(S_FrameHeader)));
        if (IsValidFrmHeader(header.data()) != IsValidFrameHeader(header.data(), mode)) return false;
    }
    return true;
}

static void push(const Bytes& bytes, size_t from, uint8_t piece)
{
    while (from < bytes.size()) {
        const size_t len = std::min(bytes.size() - from, size_t{1} + (piece < 200 ? piece : piece * 200u));
        Bytes copy(bytes.begin() + long(from), bytes.begin() + long(from + len));
        REQUIRE(RecordAviEx(copy.data(), int(len)) == 0);
        from += len;
        piece = uint8_t(piece * 5 + 1);
    }
}

static void record_stream(const S_FileHeader& header, const Bytes& bytes, size_t from, uint8_t piece)
{
    Initialize(8000);
    g_tSdv2Avi.m_Header = header;
    REQUIRE(StartRecord(0, s_output.c_str(), 1) == 0);
    push(bytes, from, piece);
    REQUIRE(StopRecordEx(0) == 0);
    REQUIRE(report().u64BytesSkipped <= bytes.size() - from);
    QuorlinRelease();
    require_sound_output();
}

static void convert_and_compare(const Run& run, Bytes& file)
{
    const int result = KtConvert_SDVtoAVI(s_input.data(), s_output.data());
    const bool finished = result == 0 && g_tSdv2Avi.m_iPosition == 100;
    REQUIRE(finished == std::filesystem::exists(s_output));
    if (!finished) return;

    require_sound_output();
    const Bytes whole = output_bytes();
    const SdvReport of_whole = report();
    const S_FileHeader header = g_tSdv2Avi.m_Header;
    int key = -1;
    REQUIRE(FindFrame(file.data(), int(file.size()), &key, 1) == 1);
    record_stream(header, file, size_t(key), run.options);
    if (of_whole.u64DroppedNumber0 || is_streamed(header.Mode) || !searches_agree(file, header.Mode)) return;
    REQUIRE(whole == output_bytes());
    REQUIRE(of_whole.u64FramesRecorded == report().u64FramesRecorded);
}

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    silence_output();
    std::string directory = (std::filesystem::temp_directory_path() / "quorlin-fuzz-XXXXXX").string();
    REQUIRE(mkdtemp(directory.data()) != nullptr);
    static const std::string s_directory = directory;
    s_input = directory + "/in.sdv";
    s_output = directory + "/out.avi";
    atexit([] { std::filesystem::remove_all(s_directory); });
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size)
{
    const Run run = make_run(bytes, size);
    Bytes key(16, 7), file = run.options & 4 ? Bytes{} : sdv::file_header(run.fields);
    SetDecryptKey(run.options & 8 ? key.data() : nullptr, 16);
    sdv::append(file, run.frames);
    std::ofstream(s_input, std::ios::binary)
        .write(reinterpret_cast<const char*>(file.data()), long(file.size()));
    unlink(s_output.c_str());
    convert_and_compare(run, file);

    S_FileHeader header{};
    const Bytes start = sdv::file_header(run.fields);
    memcpy(&header, start.data(), sizeof(header));
    record_stream(header, run.frames, 0, run.options);

    Initialize(8000);
    REQUIRE(ChangeFile2AVI(s_input.data(), s_output.data()) == 0);
    QuorlinRelease();
    require_sound_output();
    return 0;
}
