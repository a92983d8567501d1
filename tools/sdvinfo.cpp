// sdvinfo: what is in a recording, and what is wrong with it.
#include "cli.h"
#include "cli_names.h"
#include "descriptors.h"
#include "files.h"
#include "human.h"
#include "info_page.h"
#include "key.h"
#include "progress.h"
#include "sdv_facts.h"
#include "temp_output.h"

#include <nlohmann/json.hpp>

#include <cerrno>
#include <chrono>
#include <cinttypes>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <new>

#include <unistd.h>

namespace {

using Json = nlohmann::ordered_json;

struct Options
{
    std::vector<std::string> files;
    std::optional<std::string> key, keyFile;
    std::string report, like;
    bool frames = false, json = false, overwrite = false;
};

struct Run
{
    const Options& options;
    std::vector<uint8_t> key;
    sdv::Like like{};
    bool colour = false;
    size_t printed = 0; // files
};

cli::Exit complain(const std::string& what, cli::Exit code)
{
    fprintf(stderr, "sdvinfo: %s\n", tools::printable(what).c_str());
    return code;
}

// ---- for programs

Json as_json(const sdv::FactValue& value)
{
    return std::visit(
        [](const auto& held) -> Json {
            if constexpr (std::is_same_v<std::decay_t<decltype(held)>, std::monostate>)
                return nullptr;
            else
                return held;
        },
        value);
}

double rounded(double seconds)
{
    return std::round(seconds * 1000) / 1000;
}

Json damage_list(const sdv::Stats& stats)
{
    Json list = Json::array();
    for (const sdv::DamagePlace& place : stats.damage)
        list.push_back({{"offset", place.gap.offset},
                        {"length", place.gap.length},
                        {"atSeconds", rounded(place.seconds)},
                        {"cause", cause_text(place.gap.cause)},
                        {"code", cause_code(place.gap.cause)},
                        {"framesLost", place.lost ? Json(*place.lost) : Json()}});
    return list;
}

Json numbering_list(const sdv::Stats& stats)
{
    Json list = Json::array();
    for (const sdv::NumberGap& gap : stats.numberGaps)
        list.push_back({{"offset", gap.offset},
                        {"atSeconds", rounded(gap.seconds)},
                        {"before", gap.before},
                        {"after", gap.after},
                        {"missing", gap.missing}});
    return list;
}

Json chart_json(const sdv::Chart& chart, const char* unit)
{
    Json bins = Json::array();
    for (const sdv::Bin& bin : chart.bins)
        bins.push_back({bin.frames, bin.keyFrames, bin.audioSlots, bin.bytes, bin.largest, bin.damage,
                        bin.missing, bin.busiest, rounded(bin.begins)});
    return {{unit, chart.width},
            {"columns",
             {"frames", "keyFrames", "audioSlots", "bytes", "largestFrame", "damage", "missing",
              "busiestSecond", "begins"}},
            {"bins", bins}};
}

// JSON text that can stand inside a page's script element, too.
std::string json_text(const Json& json)
{
    const std::string text = json.dump(-1, ' ', false, Json::error_handler_t::replace);
    std::string safe;
    for (const char letter : text) letter == '<' ? safe += "\\u003c" : safe += letter;
    return safe;
}

std::string stats_json(const std::string& path, const sdv::Stats& stats)
{
    Json json;
    cli::name_into(json, "file", path);
    json["state"] = state_word(state_of(stats));
    json["verdict"] = verdict(stats);
    if (!stats.borrowed.empty()) cli::name_into(json, "headerFrom", stats.borrowed);
    for (const sdv::FactGroup& group : facts_of(stats))
        for (const sdv::Fact& fact : group.facts)
            json[Json::json_pointer("/" + fact.id)] = as_json(fact.value);
    json["damage"]["list"] = damage_list(stats);
    json["numbering"]["list"] = numbering_list(stats);
    json["timeline"] = chart_json(stats.byFrame, "framesInBin");
    if (has_time_stamps(stats)) json["seconds"] = chart_json(stats.bySecond, "secondsInBin");
    return json_text(json);
}

Json frame_json(const sdv::ScannedFrame& frame)
{
    const S_FrameHeader& header = frame.header;
    const char* const code = fate_code(frame.fate);
    return {{"offset", frame.offset},
            {"size", frame.bytes.size()},
            {"number", header.u32FrameNO},
            {"key", header.u8FrameType == 0},
            {"timeStamp", header.u32TimeStamp},
            {"video", header.u32VStreamLen},
            {"audioSlots", (header.u16AFrames >> 8) + (header.u16AFrames & 0xFF)},
            {"audioSlotSize", header.u16AFrameSize},
            {"encrypted", frame.cipher != sdv::Cipher::Plain},
            {"fate", fate_text(frame.fate)},
            {"code", code ? Json(code) : Json()}};
}

// ---- for people

void print_facts(const Run& run, const std::string& path, const sdv::Stats& stats)
{
    if (run.printed) putchar('\n');
    const int colours[] = {32, 33, 31}; // of the states
    const std::string told = cli::paint(verdict(stats), colours[size_t(state_of(stats))], run.colour);
    printf("%s: %s\n", tools::printable(path).c_str(), told.c_str());
    for (const sdv::FactGroup& group : facts_of(stats)) {
        printf("%s\n", cli::paint(group.title, 1, run.colour).c_str());
        for (const sdv::Fact& fact : group.facts)
            if (fact.worthALine) printf("  %-50s %s\n", fact.label.c_str(), fact.text.c_str());
    }
}

void print_more(uint64_t count)
{
    if (count > sdv::MostListed) printf("  ... the first %zu of %" PRIu64 "\n", sdv::MostListed, count);
}

void print_places(const Run& run, const sdv::Stats& stats)
{
    if (!stats.damage.empty())
        printf("%s\n  %10s %14s %12s %12s  %s\n", cli::paint("Damage map", 1, run.colour).c_str(), "time",
               "position", "bytes", "frames lost", "likely cause");
    for (const auto& [gap, lost, seconds] : stats.damage)
        printf("  %10s %14" PRIu64 " %12" PRIu64 " %12s  %s\n", sdv::place_text(seconds).c_str(), gap.offset,
               gap.length, lost ? std::to_string(*lost).c_str() : "?", cause_text(gap.cause));
    print_more(stats.damageCount);

    if (!stats.numberGaps.empty())
        printf("%s\n  %10s %14s %12s %12s %12s\n", cli::paint("Numbering", 1, run.colour).c_str(), "time",
               "position", "before", "behind", "missing");
    for (const sdv::NumberGap& gap : stats.numberGaps)
        printf("  %10s %14" PRIu64 " %12u %12u %12" PRIu64 "\n", sdv::place_text(gap.seconds).c_str(),
               gap.offset, gap.before, gap.after, gap.missing);
    print_more(stats.numberGapCount);
}

void print_frame(uint64_t place, const sdv::ScannedFrame& frame)
{
    const S_FrameHeader& header = frame.header;
    if (place == 0)
        printf("%14s %8s %10s %4s %10s %9s %11s  %s\n", "position", "bytes", "number", "key", "time stamp",
               "video", "audio", "");
    printf("%14" PRIu64 " %8zu %10u %4s %10u %9u %5u x %-3u  %s%s\n", frame.offset, frame.bytes.size(),
           header.u32FrameNO, header.u8FrameType == 0 ? "key" : "", header.u32TimeStamp, header.u32VStreamLen,
           (header.u16AFrames >> 8) + (header.u16AFrames & 0xFFu), header.u16AFrameSize,
           fate_text(frame.fate), frame.cipher == sdv::Cipher::Opened ? ", deciphered" : "");
}

// ---- one recording

void list_frame(const Run& run, uint64_t place, const sdv::ScannedFrame& frame)
{
    if (!run.options.frames) return;
    if (!run.options.json) return print_frame(place, frame);
    printf("%s\n%s", place ? "," : "", json_text(frame_json(frame)).c_str());
}

void begin_object(const Run& run)
{
    if (!run.options.json) return;
    if (run.printed) fputs(",\n", stdout);
    if (run.options.frames) fputs("{\"frameList\":[", stdout);
}

// The rest of the object that begin_object() began; the list of frames is never held in memory.
void end_object(const Run& run, const std::string& object)
{
    if (!run.options.json) return;
    const bool listed = run.options.frames;
    printf("%s%s", listed ? "],\n" : "", object.c_str() + (listed ? 1 : 0));
}

cli::Exit give_up(Run& run, const std::string& path, const std::string& why, const char* code, cli::Exit exit)
{
    Json json;
    cli::name_into(json, "file", path);
    json["error"] = why;
    json["code"] = code;
    end_object(run, json_text(json));
    ++run.printed;
    return complain(why, exit);
}

bool write_page(const std::string& target, const std::string& page, std::string& why)
{
    tools::TempOutput beside;
    tools::remove_abandoned_temps(target);
    if (!tools::create_temp(beside, target, why)) return false;
    tools::OutputFile output(beside.path);
    const auto* bytes = reinterpret_cast<const uint8_t*>(page.data());
    if (!output.file || !tools::write_output(output, {bytes, page.size()}) || !tools::finish_output(output)) {
        why = target + ": " + strerror(errno);
        return false;
    }
    return tools::commit_temp(beside, why);
}

// The line on a terminal, a few times a second.
struct Watch
{
    using Clock = std::chrono::steady_clock;

    const sdv::RecordingFile& file;
    const std::string& name;
    tools::Progress progress;
    Clock::time_point begin = Clock::now(), drawn = begin;
};

void show_place(Watch& watch, uint64_t place)
{
    if (!watch.progress.shown) return;
    const auto now = Watch::Clock::now();
    if (now - watch.drawn < std::chrono::milliseconds(200)) return;
    watch.drawn = now;
    const double seconds = std::chrono::duration<double>(now - watch.begin).count();
    tools::draw_progress(watch.progress, {{watch.name, place, watch.file.size, seconds}});
}

bool scan(const Run& run, const std::string& path, const sdv::RecordingFile& file, sdv::Stats& stats,
          std::string& why)
{
    Watch watch{file, path, {!run.options.frames && cli::moves_cursor(STDERR_FILENO)}};
    sdv::begin_stats(stats, file, !run.key.empty());
    const sdv::ScanCalls calls = {[&](const sdv::ScannedFrame& frame) {
                                      show_place(watch, frame.offset);
                                      list_frame(run, stats.frames, frame);
                                      sdv::add_frame(stats, frame);
                                  },
                                  [&](const sdv::Gap& gap) { sdv::add_gap(stats, gap); },
                                  [&](uint64_t place) { show_place(watch, place); }};
    const bool scanned = sdv::scan_frames(file, run.key, calls, why);
    tools::wipe_progress(watch.progress);
    return scanned;
}

cli::Exit exit_of(const std::string& path, const sdv::Stats& stats)
{
    switch (state_of(stats)) {
    case sdv::State::Kept:
        return cli::Fine;
    case sdv::State::NeedsKey:
        return complain(path + ": it is encrypted and needs a key", cli::KeyTrouble);
    case sdv::State::Lost:
        break;
    }
    return sdv::plays(stats) ? cli::Damaged : cli::NoKeyFrame;
}

// Who reads a page months later wants to know what it tells of.
std::string made_text()
{
    const time_t now = time(nullptr);
    tm date{};
    char text[60] = "";
    if (localtime_r(&now, &date)) strftime(text, sizeof(text), ", %Y-%m-%d %H:%M %Z", &date);
    return std::string("sdvinfo ") + cli::version() + text;
}

cli::Exit inspect(Run& run, const std::string& path)
{
    sdv::RecordingFile file;
    sdv::Stats stats;
    std::string why;
    const char* code = nullptr;
    begin_object(run);
    const sdv::Opened opened = sdv::open_recording(file, path, run.like, why, code);
    if (opened != sdv::Opened::Fine)
        return give_up(run, path, why, code,
                       opened == sdv::Opened::NoRecording ? cli::NoRecording : cli::Failed);
    const bool whole = scan(run, path, file, stats, why);
    if (!whole) complain(path + ": " + why, cli::Failed);
    if (!file.borrowed.empty()) complain(path + ": " + sdv::borrowed_text(file.borrowed), cli::Fine);

    const std::string json = stats_json(path, stats);
    end_object(run, json);
    if (!run.options.json) {
        print_facts(run, path, stats);
        print_places(run, stats);
    }
    ++run.printed;
    const std::string& report = run.options.report;
    if (!report.empty() && !write_page(report, tools::info_page(path, stats, json, made_text()), why))
        return complain(why, cli::NoOutput);
    if (stats.wrongKey) return complain(path + ": the key does not open every frame", cli::KeyTrouble);
    if (!whole) return cli::Failed;
    return exit_of(path, stats);
}

cli::Exit inspect_all(const Options& options)
{
    Run run{.options = options, .key = {}, .colour = cli::has_colour(STDOUT_FILENO)};
    std::string why;
    if (!options.like.empty() && !sdv::read_like(options.like, run.like, why))
        return complain(why, cli::NoRecording);
    if (!tools::find_key(options.key, options.keyFile, run.key, why)) return complain(why, cli::KeyTrouble);
    if (!options.report.empty()) {
        for (const std::string& input : {options.files[0], options.keyFile.value_or(""), options.like})
            if (tools::same_file(input, options.report))
                return complain("the report would replace " + input, cli::Usage);
        if (tools::is_taken(options.report, options.overwrite, why)) return complain(why, cli::Exists);
    }

    const bool array = options.json && options.files.size() > 1;
    cli::Exit result = cli::Fine;
    if (array) puts("[");
    for (const std::string& path : options.files) result = cli::worse(result, inspect(run, path));
    if (options.json) puts(array ? "]" : "");
    if (fflush(stdout) != 0) return complain("standard output cannot be written", cli::NoOutput);
    return result;
}

} // namespace

int main(int argc, char** argv)
try {
    Options options;
    CLI::App app{"Tell what is in SDV recordings, and what is wrong with them.", "sdvinfo"};
    auto* files = cli::names_file(app.add_option("FILE", options.files, "the recordings"))->required();
    app.add_flag("--frames", options.frames, "list every frame, too");
    app.add_flag("--json", options.json, "for programs: one object, or an array for several recordings");
    auto* report = cli::names_file(
        app.add_option("--report", options.report, "write a page with charts, for one recording"));
    app.add_flag("--overwrite", options.overwrite, "replace a page that is there already")->needs(report);
    cli::names_file(app.add_option(
        "--like", options.like, "recording of the same camera, whose file header stands in for lost ones"));
    auto* key = app.add_option("--key", options.key, "key of an encrypted recording: up to 32 hex digits");
    cli::names_file(app.add_option("--key-file", options.keyFile,
                                   "file that holds the key, not seen by other users (default: $SDV_KEY)"))
        ->excludes(key);
    cli::complete(app, {"sdvinfo IN.sdv\nsdvinfo --json *.sdv\nsdvinfo --key-file camera.key "
                        "--report OUT.html IN.sdv",
                        {{cli::Failed, "a file cannot be read, or not all of it"},
                         {cli::NoRecording, ""},
                         {cli::NoKeyFrame, "no frame in it that a conversion keeps"},
                         {cli::KeyTrouble, "a key, or another one, is needed"},
                         {cli::NoOutput, ""},
                         {cli::Damaged, "something is damaged, missing or left out"},
                         {cli::Exists, "the page exists already (--overwrite replaces it)"}}});
    if (const auto over = cli::parse(app, argc, argv)) return *over;
    if (report->count() && files->count() > 1) return complain("--report takes one recording", cli::Usage);

    tools::fill_standard_descriptors();
    signal(SIGXFSZ, SIG_IGN); // a limit on file sizes is a write that fails
    return inspect_all(options);
} catch (const std::exception& error) {
    return cli::give_up("sdvinfo", error);
}
