// avicheck: is an AVI file sound? And the end of one whose recording was cut off.
#include "avi_check.h"
#include "avi_repair.h"
#include "cli.h"
#include "cli_names.h"
#include "descriptors.h"
#include "files.h"
#include "human.h"
#include "temp_output.h"

#include <algorithm>
#include <cinttypes>
#include <csignal>

#include <nlohmann/json.hpp>

namespace {

using Json = nlohmann::ordered_json;

struct Options
{
    std::vector<std::string> files;
    bool json = false, quiet = false, repair = false, overwrite = false;
    std::string output, from, like;
    tools::AviHints given;
};

// ---- checking

const char* coding(uint16_t formatTag)
{
    switch (formatTag) {
    case 6:
        return "alaw";
    case 7:
        return "mulaw";
    case 0xFF:
        return "aac";
    default:
        return "unknown";
    }
}

Json streams_of(const avi::Report& report)
{
    if (report.moviOffset == 0) return Json::array();
    Json streams = {{{"type", "video"},
                     {"width", report.width},
                     {"height", report.height},
                     {"rate", report.rate},
                     {"length", report.videoLength},
                     {"chunks", report.videoChunks}}};
    const avi::Audio& audio = report.audio;
    if (audio.present)
        streams.push_back({{"type", "audio"},
                           {"coding", coding(audio.formatTag)},
                           {"channels", audio.channels},
                           {"rate", audio.sampleRate},
                           {"length", audio.length},
                           {"chunks", report.audioChunks}});
    return streams;
}

Json list_of(const std::vector<avi::Finding>& findings)
{
    Json list = Json::array();
    for (const avi::Finding& finding : findings)
        list.push_back({{"offset", finding.offset}, {"what", finding.what}, {"code", finding.code}});
    return list;
}

Json as_json(const std::string& path, const avi::Report& report)
{
    Json object;
    cli::name_into(object, "path", path);
    object["sound"] = report.sound();
    object["findings"] = list_of(report.findings);
    object["notes"] = list_of(report.notes);
    object["streams"] = streams_of(report);
    return object;
}

// Header lists of another size hold other headers, which are no damage. The sizes are at these offsets.
bool is_foreign(const avi::Report& report)
{
    const auto wrong = [&report](uint64_t offset) {
        return std::any_of(report.findings.begin(), report.findings.end(),
                           [offset](const avi::Finding& finding) { return finding.offset == offset; });
    };
    return wrong(16) && wrong(92);
}

void print_text(const std::string& file, const avi::Report& report)
{
    const std::string path = tools::printable(file);
    if (report.kind != avi::Kind::avi)
        return (void)printf("%s: %s\n", path.c_str(), report.findings[0].what.c_str());
    for (const avi::Finding& finding : report.findings)
        printf("%s: offset %" PRIu64 ": %s\n", path.c_str(), finding.offset, finding.what.c_str());
    if (is_foreign(report))
        printf("%s: the headers are not those of our recorder or converter: another program's file?\n",
               path.c_str());
    for (const avi::Finding& note : report.notes) printf("%s: note: %s\n", path.c_str(), note.what.c_str());
    if (!report.sound()) return;
    const avi::Audio& audio = report.audio;
    printf("%s: sound: %s of %" PRIu32 " x %" PRIu32, path.c_str(),
           tools::counted(report.videoLength, "picture").c_str(), report.width, report.height);
    if (audio.present) printf(", %s at %" PRIu32 " Hz", coding(audio.formatTag), audio.sampleRate);
    printf("\n");
}

cli::Exit exit_code(const avi::Report& report)
{
    if (report.kind == avi::Kind::unreadable) return cli::Failed;
    if (report.kind == avi::Kind::other) return cli::NoRecording;
    return report.sound() ? cli::Fine : cli::Damaged;
}

int check(const Options& options)
{
    int worst = cli::Fine;
    Json all = Json::array();
    for (const std::string& path : options.files) {
        const avi::Report report = avi::check_file(path, {.strict = true});
        worst = std::max<int>(worst, exit_code(report));
        if (options.json)
            all.push_back(as_json(path, report));
        else if (!options.quiet)
            print_text(path, report);
    }
    // A path may be any bytes.
    if (options.json) printf("%s\n", all.dump(2, ' ', false, Json::error_handler_t::replace).c_str());
    return worst;
}

// ---- repairing

bool gather_hints(const Options& options, tools::AviHints& hints, std::string& why)
{
    tools::AviHints others;
    if (!options.from.empty() && !tools::hints_of_recording(options.from, others, why)) return false;
    if (!options.like.empty() && !tools::hints_of_avi(options.like, others, why)) return false;
    hints = options.given;
    tools::add_hints(hints, others);
    return true;
}

// A repair finishes a file. What else is wrong with it, its owner has to know.
cli::Exit check_repaired(const Options& options, const std::string& path)
{
    const avi::Report report = avi::check_file(path, {.strict = true});
    if (!report.sound() && !options.quiet) print_text(path, report);
    return exit_code(report);
}

int repair(const Options& options)
{
    // A recording cannot be made again.
    for (const std::string& input : {options.from, options.like})
        if (tools::same_file(input, options.output)) {
            fprintf(stderr, "avicheck: the output is also an input: %s\n", tools::printable(input).c_str());
            return cli::Usage;
        }

    tools::AviHints hints;
    std::string why;
    if (!gather_hints(options, hints, why)) {
        fprintf(stderr, "avicheck: %s\n", tools::printable(why).c_str());
        return cli::Failed;
    }
    cli::Exit worst = cli::Fine;
    const bool taken = !options.output.empty() && tools::is_taken(options.output, options.overwrite, why);
    for (const std::string& path : options.files) {
        const std::string name = tools::printable(path);
        const bool done =
            !taken && (options.output.empty()
                           ? tools::repair_avi(path, hints, why)
                           : tools::repair_avi_into(path, options.output, hints, why, options.overwrite));
        if (!done) {
            fprintf(stderr, "avicheck: %s: not repaired: %s\n", name.c_str(), tools::printable(why).c_str());
            worst = cli::worse(worst, taken ? cli::Exists : cli::Failed);
            continue;
        }
        if (!options.quiet) printf("%s: %s\n", name.c_str(), why.c_str());
        worst = cli::worse(worst, check_repaired(options, options.output.empty() ? path : options.output));
    }
    return worst;
}

// ---- the command line

void add_repair_options(CLI::App& app, Options& options, CLI::Option* flag)
{
    tools::AviHints& given = options.given;
    const auto range = [](uint32_t from, uint32_t to) { return CLI::Range(from, to); };
    auto* output = cli::names_file(app.add_option("-o,--output", options.output,
                                                  "leave FILE as it is and write a repaired copy"))
                       ->needs(flag);
    app.add_flag("--overwrite", options.overwrite, "the copy may replace a file")->needs(output);
    auto* from =
        cli::names_file(app.add_option("--from", options.from, "SDV recording that the file was made of"))
            ->needs(flag);
    cli::names_file(app.add_option("--like", options.like, "sound AVI file of the same camera"))
        ->needs(flag)
        ->excludes(from);
    auto* width = app.add_option("--width", given.width, "picture width [as the video says]")
                      ->needs(flag)
                      ->check(range(1, 65535));
    app.add_option("--height", given.height, "picture height [as the video says]")
        ->needs(flag, width)
        ->check(range(1, 65535));
    width->needs(app.get_option("--height"));
    app.add_option("--rate", given.rate, "pictures a second [as the video says]")
        ->needs(flag)
        ->check(range(0, 30));
    cli::choose(app.add_option("--audio", given.audioCode, "coding of the audio")->needs(flag),
                {{"none", 0}, {"alaw", 1}, {"mulaw", 2}, {"aac", 22}});
    app.add_option("--audio-rate", given.audioRate, "samples a second [G.711: 8000]")
        ->needs(flag)
        ->check(range(1, 192000));
}

} // namespace

int main(int argc, char** argv)
try {
    Options options;
    CLI::App app{
        "Check AVI files that were made of SDV recordings, and finish those whose recording was cut off.",
        "avicheck"};
    cli::names_file(app.add_option("FILE", options.files, "AVI file"))->required();
    auto* json = app.add_flag("--json", options.json, "findings and streams as JSON");
    app.add_flag("-q,--quiet", options.quiet, "tell by the exit code alone")->excludes(json);
    auto* flag =
        app.add_flag("--repair", options.repair, "write the headers and the index that are missing, in place")
            ->excludes(json);
    add_repair_options(app, options, flag);
    cli::complete(app, {"avicheck *.avi\navicheck --repair 20260309-140559.avi.part --audio mulaw",
                        {{cli::Failed, "a file cannot be read, or not be repaired"},
                         {cli::NoRecording, "a file is no AVI file"},
                         {cli::Damaged, "a file is not sound"},
                         {cli::Exists, "--output exists already (--overwrite replaces it)"}}});
    if (const auto over = cli::parse(app, argc, argv)) return *over;
    if (!options.output.empty() && options.files.size() != 1) {
        fprintf(stderr, "avicheck: --output goes with one FILE\n");
        return cli::Usage;
    }

    tools::fill_standard_descriptors();
    signal(SIGXFSZ, SIG_IGN); // a limit on file sizes is a write that fails
    const int code = options.repair ? repair(options) : check(options);
    if (fflush(stdout) == 0) return code;
    fprintf(stderr, "avicheck: standard output cannot be written\n");
    return std::max<int>(code, cli::Failed);
} catch (const std::exception& error) {
    return cli::give_up("avicheck", error);
}
