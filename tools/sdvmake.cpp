// sdvmake: an SDV recording from an H.264 byte stream and, if wanted, audio, or from an AVI file; with damage
// for tests.
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <random>

#include "CommonFun.h"
#include "adts.h"
#include "annexb.h"
#include "audio_slots.h"
#include "cli.h"
#include "files.h"
#include "from_avi.h"
#include "human.h"
#include "key.h"
#include "recording_name.h"
#include "sdv_build.h"
#include "sps.h"
#include "temp_output.h"

#include <nlohmann/json.hpp>

namespace {

const uint32_t MAX_FRAME_SIZE = 0x100000;
const uint16_t TIMING_RATE = 25; // pictures a second where the recording names none
const uint32_t MAX_GARBAGE_RUN = 40000;
const int CODE_ALAW = 1;
const int CODE_MULAW = 2;
const int CODE_AAC = 22;

struct Options
{
    std::string video, avi, output, audio, keyText, keyFile, start;
    int audioCode = 0;
    uint32_t audioRate = 0; // 0: as the audio says
    size_t slotSamples = 320;
    uint16_t mode = 21, rate = 25, width = 0, height = 0;
    size_t drop = 0, garbage = 0;
    uint64_t truncate = 0, seed = 1;
    bool json = false, overwrite = false;
};

// Everything that goes into a recording, read and tested.
struct Recording
{
    sdv::FileFields header;
    sdv::Bytes stream;
    std::vector<annexb::Nal> nals;
    std::vector<annexb::AccessUnit> pictures;
    std::vector<audio::Slots> audio;     // empty, or one for every picture
    std::vector<sdv::FrameFields> ready; // from an AVI file: one for every picture, with all of its bytes
    sdv::Bytes key;                      // empty: not enciphered
};

// What is done to the frames of a recording, by their place in it.
struct Damage
{
    std::vector<bool> dropped;
    std::vector<bool> garbageBehind;
    std::mt19937_64 random; // draws the same numbers everywhere, which the library's distributions do not
};

// What came out.
struct Made
{
    size_t frames = 0;
    uint64_t bytes = 0, garbage = 0;
};

struct Failure
{
    int exitCode;
    std::string why;
};

[[noreturn]] void refuse(const std::string& why)
{
    throw Failure{cli::Usage, why};
}

[[noreturn]] void fail_output(const std::string& path)
{
    throw Failure{cli::NoOutput, "cannot write " + path + ": " + strerror(errno)};
}

void warn(const std::string& text)
{
    fprintf(stderr, "sdvmake: warning: %s\n", text.c_str());
}

sdv::Bytes read_input(const std::string& path)
{
    sdv::Bytes bytes;
    std::string why;
    if (!tools::read_file(path, bytes, why)) throw Failure{cli::Failed, why};
    return bytes;
}

uint16_t timing_rate(const Options& options)
{
    return options.rate ? options.rate : TIMING_RATE;
}

void add_options(CLI::App& app, Options& options)
{
    auto* video = cli::names_file(app.add_option("VIDEO", options.video, "H.264 byte stream (Annex B)"));
    auto* avi =
        cli::names_file(app.add_option("--from-avi", options.avi, "Instead: AVI file made of a recording"))
            ->excludes(video);
    cli::names_file(app.add_option("-o,--output", options.output, "SDV recording to write"))->required();
    app.add_flag("--overwrite", options.overwrite, "Replace a recording that is there already");
    auto* file = cli::names_file(app.add_option("--audio", options.audio, "Raw G.711 or AAC in ADTS frames"));
    auto* code = app.add_option("--audio-code", options.audioCode, "Coding of the audio");
    cli::choose(code, {{"alaw", CODE_ALAW}, {"mulaw", CODE_MULAW}, {"aac", CODE_AAC}});
    file->needs(code);
    code->needs(file);
    app.add_option("--audio-rate", options.audioRate,
                   "Samples a second [G.711: 8000; AAC: as its frames say]")
        ->needs(file)
        ->check(CLI::Range(1u, 192000u));
    auto* slot = app.add_option("--slot", options.slotSamples, "Samples in a G.711 slot")
                     ->capture_default_str()
                     ->check(CLI::Range(1, 65531));
    app.add_option("--mode", options.mode, "Stream mode: 21, 31, 32 or 41")->capture_default_str();
    auto* rate = app.add_option("--rate", options.rate, "Pictures a second")
                     ->capture_default_str()
                     ->check(CLI::Range(0, 65535));
    auto* width = app.add_option("--width", options.width, "Picture width [as the stream says]")
                      ->check(CLI::Range(1, 65535));
    auto* height = app.add_option("--height", options.height, "Picture height [as the stream says]")
                       ->check(CLI::Range(1, 65535));
    width->needs(height);
    height->needs(width);
    for (CLI::Option* option : {file, slot, rate, width}) avi->excludes(option);
    app.add_option("--start", options.start, "Start of the recording, \"YYYY-MM-DD hh:mm:ss\"");
    auto* key = app.add_option("--key", options.keyText, "Encipher every frame: 1 to 16 bytes in hex");
    cli::names_file(app.add_option("--key-file", options.keyFile, "The same, from a file of hex text"))
        ->excludes(key);
    app.add_option("--drop", options.drop, "Frames to leave out");
    app.add_option("--garbage", options.garbage, "Runs of random bytes to put between frames");
    app.add_option("--truncate", options.truncate, "Bytes to cut off the end");
    app.add_option("--seed", options.seed, "Where and what the damage is")->capture_default_str();
    app.add_flag("--json", options.json, "Tell what was made, as JSON");
}

void test_header_options(const Options& options)
{
    S_FileHeader header = {};
    header.Mode = options.mode;
    if (options.mode == 11) refuse("mode 11 is MPEG-4, not H.264");
    if (!IsValidFileHeader(&header)) refuse("mode " + std::to_string(options.mode) + " is no mode of a file");

    header.FrameRate = options.rate;
    if (!IsValidFileHeader(&header)) refuse("a recording has at most 30 pictures a second");
    if (options.mode == 31 || options.mode == 32)
        warn("recordings of mode " + std::to_string(options.mode) +
             " are converted by pushing them as a stream, as sdv2avi does");
    if (options.rate == 0) warn("no player can time a recording of 0 pictures a second");
}

void parse_start(const std::string& text, sdv::FileFields& header)
{
    if (text.empty()) return;
    tm parts = {};
    const char* end = strptime(text.c_str(), "%Y-%m-%d %H:%M:%S", &parts);
    if (!end || *end != '\0' || text.size() != 19)
        refuse("\"" + text + "\" is no start: it is to be \"YYYY-MM-DD hh:mm:ss\"");
    S_FileHeader date = {};
    date.Year = uint16_t(parts.tm_year + 1900);
    date.Month = uint16_t(parts.tm_mon + 1);
    date.Day = uint16_t(parts.tm_mday);
    date.Hour = uint16_t(parts.tm_hour);
    date.Minute = uint16_t(parts.tm_min);
    date.Second = uint16_t(parts.tm_sec);
    if (!tools::start_of(date))
        refuse("\"" + text + "\" is no start: no calendar has it, or it is before 2000");
    header.year = date.Year;
    header.month = date.Month;
    header.day = date.Day;
    header.hour = date.Hour;
    header.minute = date.Minute;
    header.second = date.Second;
}

sdv::Bytes read_key(const Options& options, bool wanted)
{
    if (!wanted) return {};
    if (options.mode != 21) refuse("only frames of mode 21 can be enciphered");

    sdv::Bytes key;
    std::string why;
    const bool read = options.keyFile.empty() ? tools::parse_key(options.keyText, key, why)
                                              : tools::read_key_file(options.keyFile, key, why);
    if (!read) refuse(why);
    return key;
}

void read_video(const Options& options, Recording& recording)
{
    recording.stream = read_input(options.video);
    recording.nals = annexb::split_nals(recording.stream);
    if (annexb::is_h265(recording.stream, recording.nals))
        refuse(options.video + " is H.265 (HEVC); a recording holds H.264");
    recording.pictures = annexb::split_access_units(recording.stream, recording.nals);
    if (recording.pictures.empty())
        refuse(options.video + " holds no H.264 picture between Annex B start codes");
    // Recordings and AVI files hold start codes as well, behind headers that are no video.
    const auto first = recording.stream.begin() + long(recording.nals.front().begin);
    if (std::any_of(recording.stream.begin(), first, [](uint8_t byte) { return byte != 0; }))
        refuse(options.video + " does not begin with an Annex B start code");
}

void read_avi(Options& options, Recording& recording)
{
    std::string why;
    if (!sdv::from_avi(options.avi, recording.header, recording.ready, why)) throw Failure{cli::Failed, why};
    options.rate = recording.header.frameRate;
    for (const sdv::FrameFields& frame : recording.ready)
        recording.pictures.push_back({0, 0, frame.type == 0});
}

void warn_about_key_frames(const std::vector<annexb::AccessUnit>& pictures)
{
    const auto isKey = [](const annexb::AccessUnit& unit) { return unit.key; };
    if (std::none_of(pictures.begin(), pictures.end(), isKey))
        warn("the video has no key frame; a file conversion starts at one");
}

void set_picture_size(const Options& options, Recording& recording)
{
    recording.header.width = options.width;
    recording.header.height = options.height;
    if (options.width && options.height) return;

    for (const annexb::Nal& nal : recording.nals) {
        sps::PictureSize size;
        const sdv::View stream = recording.stream;
        if (!sps::picture_size(stream.subspan(nal.payload, nal.end - nal.payload), size)) continue;
        recording.header.width = static_cast<uint16_t>(size.width);
        recording.header.height = static_cast<uint16_t>(size.height);
        return;
    }
    refuse("the video does not tell its picture size: give --width and --height");
}

void warn_about_aac(const adts::Header& header, uint32_t rate)
{
    if (rate != 48000 && rate != 32000 && rate != 16000 && rate != 8000)
        warn("AAC of " + std::to_string(rate) +
             " Hz: an AVI file can tell 48000, 32000, 16000 and 8000 only");
    if (rate != header.sampleRate)
        warn("the AAC frames themselves say " + std::to_string(header.sampleRate) + " Hz");
    if (header.channels != 2) warn("the AAC is not stereo, which the AVI file will say it is");
    if (header.crc) warn("the ADTS frames have a CRC, which would end up in the audio of the AVI file");
}

void deal_aac(const Options& options, sdv::View bytes, Recording& recording)
{
    const adts::Split split = adts::split(bytes);
    if (split.frames.empty()) refuse(options.audio + " holds no ADTS frame");
    if (split.skipped)
        warn(std::to_string(split.skipped) + " bytes of the audio are no ADTS frame; left out");

    const adts::Header& first = split.frames.front().header;
    const uint32_t rate = options.audioRate ? options.audioRate : first.sampleRate;
    warn_about_aac(first, rate);
    recording.header.sampleRate = rate;
    recording.header.channels = static_cast<uint8_t>(first.channels);

    std::string why;
    const audio::Timing timing = {rate, timing_rate(options), recording.pictures.size()};
    if (!audio::deal_aac(bytes, split.frames, timing, recording.audio, why)) refuse(why);
}

void deal_g711(const Options& options, sdv::View bytes, Recording& recording)
{
    if (bytes.empty()) refuse(options.audio + " is empty");
    if (options.slotSamples + 4 >= 516)
        warn("G.711 slots of 516 bytes and more are left out of the AVI file");

    if (options.audioRate) recording.header.sampleRate = options.audioRate;
    const audio::Timing timing = {recording.header.sampleRate, timing_rate(options),
                                  recording.pictures.size()};
    std::string why;
    if (!audio::deal_g711(bytes, options.slotSamples, timing, recording.audio, why)) refuse(why);
}

void read_audio(const Options& options, Recording& recording)
{
    if (options.audio.empty()) return;
    const sdv::Bytes bytes = read_input(options.audio);
    recording.header.hasAudio = 1;
    options.audioCode == CODE_AAC ? deal_aac(options, bytes, recording)
                                  : deal_g711(options, bytes, recording);
}

sdv::FrameFields read_frame(const Options& options, Recording& recording, size_t place)
{
    const annexb::AccessUnit& picture = recording.pictures[place];
    if (picture.end - picture.begin > MAX_FRAME_SIZE)
        refuse("picture " + std::to_string(place + 1) + " is bigger than 1 MiB");

    sdv::FrameFields fields;
    fields.type = picture.key ? 0 : 1;
    const sdv::View stream = recording.stream;
    fields.video = annexb::with_long_start_code(stream.subspan(picture.begin, picture.end - picture.begin));
    // Every frame names the coding, for it is the first one that decides whether the AVI file has audio.
    fields.audioCode = static_cast<uint8_t>(options.audioCode);
    if (!recording.audio.empty()) fields.audioAfter = std::move(recording.audio[place]);
    return fields;
}

sdv::Bytes build_frame(const Options& options, Recording& recording, size_t place)
{
    sdv::FrameFields fields =
        recording.ready.empty() ? read_frame(options, recording, place) : std::move(recording.ready[place]);
    fields.flag = static_cast<uint32_t>(GetFrameFlagByMode(options.mode));
    fields.number = static_cast<uint32_t>(place + 1);
    fields.timeStamp = static_cast<uint32_t>(uint64_t{place} * 1000 / timing_rate(options));

    sdv::Bytes frame = sdv::frame(fields);
    if (!IsValidFrmHeader(frame.data()))
        refuse("frame " + std::to_string(place + 1) + " is bigger than 1 MiB (" +
               std::to_string(frame.size()) + " bytes)");
    if (!recording.key.empty()) sdv::encipher(frame, recording.key);
    return frame;
}

// `count` different ones of the candidates, marked in a list of `places`.
std::vector<bool> pick(std::vector<size_t> candidates, size_t count, size_t places, std::mt19937_64& random)
{
    std::vector<bool> picked(places, false);
    for (size_t i = 0; i < count; ++i) {
        std::swap(candidates[i], candidates[i + random() % (candidates.size() - i)]);
        picked[candidates[i]] = true;
    }
    return picked;
}

Damage plan_damage(const Options& options, const std::vector<annexb::AccessUnit>& pictures)
{
    std::vector<size_t> droppable, gaps;
    bool keySeen = false;
    for (size_t place = 0; place < pictures.size(); ++place) {
        const bool firstKey = pictures[place].key && !keySeen;
        keySeen = keySeen || firstKey;
        if (!firstKey) droppable.push_back(place);
        if (place + 1 < pictures.size()) gaps.push_back(place);
    }
    if (options.drop > droppable.size())
        refuse("at most " + std::to_string(droppable.size()) + " frames can be left out");
    if (options.garbage > gaps.size())
        refuse("there are only " + std::to_string(gaps.size()) + " places between frames for garbage");

    Damage damage{{}, {}, std::mt19937_64(options.seed)};
    damage.dropped = pick(droppable, options.drop, pictures.size(), damage.random);
    damage.garbageBehind = pick(gaps, options.garbage, pictures.size(), damage.random);
    return damage;
}

sdv::Bytes garbage_run(std::mt19937_64& random)
{
    sdv::Bytes run(1 + random() % MAX_GARBAGE_RUN);
    for (uint8_t& byte : run) byte = static_cast<uint8_t>(random());
    return run;
}

// The header describes the recording as it was before anything happened to it.
Made write_recording(const Options& options, Recording& recording, Damage& damage)
{
    Made made;
    tools::TempOutput beside; // an older file is not touched until the new one is whole
    std::string why;
    tools::remove_abandoned_temps(options.output);
    if (!tools::create_temp(beside, options.output, why)) throw Failure{cli::NoOutput, why};
    tools::OutputFile output(beside.path);
    if (!output.file) fail_output(options.output);

    sdv::Bytes header = sdv::file_header(recording.header);
    if (!tools::write_output(output, header)) fail_output(options.output);
    uint64_t undamaged = header.size();
    made.bytes = undamaged;
    for (size_t place = 0; place < recording.pictures.size(); ++place) {
        sdv::Bytes bytes = build_frame(options, recording, place);
        undamaged += bytes.size();
        made.frames += !damage.dropped[place];
        if (damage.dropped[place]) bytes.clear();
        const size_t sound = bytes.size();
        if (damage.garbageBehind[place]) sdv::append(bytes, garbage_run(damage.random));
        made.garbage += bytes.size() - sound;
        if (!tools::write_output(output, bytes)) fail_output(options.output);
        made.bytes += bytes.size();
    }
    if (undamaged > UINT32_MAX) refuse("the recording is bigger than 4 GiB");
    if (options.truncate > made.bytes)
        refuse("the recording has only " + std::to_string(made.bytes) + " bytes to cut");
    made.bytes -= options.truncate;

    recording.header.totalSize = static_cast<uint32_t>(undamaged);
    recording.header.frameCount = static_cast<uint32_t>(recording.pictures.size());
    header = sdv::file_header(recording.header);
    if (!tools::rewrite_start(output, header)) fail_output(options.output);
    if (options.truncate && !tools::cut_output(output, made.bytes)) fail_output(options.output);
    if (!tools::finish_output(output)) fail_output(options.output);
    if (!tools::commit_temp(beside, why, options.overwrite)) throw Failure{cli::NoOutput, why};
    return made;
}

// Of frames that were cut off at the end, all are counted.
void print_json(const Options& options, const Recording& recording, const Made& made)
{
    using Json = nlohmann::ordered_json;
    const Json told = {{"output", options.output},
                       {"bytes", made.bytes},
                       {"frames", made.frames},
                       {"mode", recording.header.mode},
                       {"width", recording.header.width},
                       {"height", recording.header.height},
                       {"rate", recording.header.frameRate},
                       {"audio", recording.header.hasAudio != 0},
                       {"encrypted", !recording.key.empty()},
                       {"dropped", recording.pictures.size() - made.frames},
                       {"garbage_bytes", made.garbage},
                       {"cut_off_bytes", options.truncate}};
    printf("%s\n", told.dump(2, ' ', false, Json::error_handler_t::replace).c_str());
    if (fflush(stdout) != 0) throw Failure{cli::Failed, "standard output cannot be written"};
}

void make_recording(Options options, bool keyGiven)
{
    if (options.video.empty() == options.avi.empty()) refuse("there is to be a VIDEO or --from-avi");
    test_header_options(options);
    for (const std::string* input : {&options.video, &options.avi, &options.audio, &options.keyFile})
        if (tools::same_file(*input, options.output)) refuse("the output is also an input: " + *input);

    std::string why;
    if (tools::is_taken(options.output, options.overwrite, why)) throw Failure{cli::Exists, why};

    Recording recording;
    recording.header.mode = options.mode;
    recording.header.frameRate = options.rate;
    parse_start(options.start, recording.header);
    recording.key = read_key(options, keyGiven);
    if (options.avi.empty()) {
        read_video(options, recording);
        set_picture_size(options, recording);
        read_audio(options, recording);
    } else {
        read_avi(options, recording);
    }
    warn_about_key_frames(recording.pictures);
    Damage damage = plan_damage(options, recording.pictures);
    const Made made = write_recording(options, recording, damage);
    if (options.json) print_json(options, recording, made);
}

int run(int argc, char** argv)
{
    signal(SIGXFSZ, SIG_IGN); // a limit on file sizes is a write that fails
    Options options;
    CLI::App app("Make an SDV recording from an H.264 byte stream or an AVI file", "sdvmake");
    add_options(app, options);
    cli::complete(app, {"sdvmake clip.h264 -o clip.sdv\n"
                        "sdvmake clip.h264 --audio tone.aac --audio-code aac -o clip.sdv\n"
                        "sdvmake --from-avi clip.avi -o clip.sdv",
                        {{cli::Failed, ""}, {cli::NoOutput, ""}, {cli::Exists, ""}}});
    if (const auto over = cli::parse(app, argc, argv)) return *over;
    try {
        make_recording(options, app.count("--key") + app.count("--key-file") > 0);
        return 0;
    } catch (const Failure& failure) {
        fprintf(stderr, "sdvmake: %s\n", tools::printable(failure.why).c_str());
        return failure.exitCode;
    }
}

} // namespace

int main(int argc, char** argv)
try {
    return run(argc, argv);
} catch (const std::exception& error) {
    return cli::give_up("sdvmake", error);
}
