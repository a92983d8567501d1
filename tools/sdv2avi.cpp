// sdv2avi: SDV recordings become AVI files. An output appears under its name only when it is complete.
#include "cli.h"
#include "cli_report.h"
#include "convert_plan.h"
#include "descriptors.h"
#include "files.h"
#include "human.h"
#include "key.h"
#include "worker_pool.h"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <new>
#include <thread>

#include <nlohmann/json.hpp>

#include <unistd.h>

namespace {

using Json = nlohmann::ordered_json;

struct Options
{
    tools::PlanRequest plan;
    tools::PoolSettings pool;
    std::optional<std::string> key, keyFile;
    std::string split, like;
    bool json = false, quiet = false, strict = false;
};

// Everything that was done.
struct Run
{
    tools::Plan plan;
    std::vector<tools::Result> results; // of each job
    double seconds = 0;
    int signal = 0; // that ended it
};

struct Totals
{
    size_t done = 0, damaged = 0, failed = 0, left = 0;
    uint64_t pictures = 0, bytes = 0;
    cli::Exit exit = cli::Fine;
};

int fail(cli::Exit code, const std::string& why)
{
    fprintf(stderr, "sdv2avi: %s\n", tools::printable(why).c_str());
    return code;
}

// ---- what became of them

bool is_left(const tools::Result& result)
{
    return result.code == cli::cause::NotStarted;
}

const char* status_of(const tools::Result& result)
{
    if (is_left(result)) return "not_begun";
    if (!result.cause.empty()) return "failed";
    return result.damaged ? "damaged" : "done";
}

int colour_of(const tools::Result& result)
{
    if (!result.cause.empty()) return 31;
    return result.damaged ? 33 : 32;
}

cli::Exit exit_of(const Options& options, const tools::Result& result)
{
    return result.exit == cli::Fine && result.damaged && options.strict ? cli::Damaged : result.exit;
}

Totals add_up(const Options& options, const Run& run)
{
    Totals totals;
    for (const tools::Result& result : run.results) {
        (is_left(result)         ? totals.left
         : !result.cause.empty() ? totals.failed
         : result.damaged        ? totals.damaged
                                 : totals.done) += 1;
        totals.pictures += result.pictures;
        totals.bytes += result.bytes;
        totals.exit = cli::worse(totals.exit, exit_of(options, result));
    }
    return totals;
}

int exit_of(const Run& run, const Totals& totals)
{
    return run.signal ? 128 + run.signal : totals.exit;
}

// ---- as JSON

Json text_or_null(const std::string& text)
{
    return text.empty() ? Json(nullptr) : Json(text);
}

Json file_json(const Options& options, const tools::Job& job, const tools::Result& result)
{
    Json file = {{"input", job.input},
                 {"outputs", result.outputs},
                 {"pictures", result.pictures},
                 {"bytes", result.bytes},
                 {"seconds", result.seconds},
                 {"report", cli::report_json(result.report)},
                 {"sound_early_seconds", result.soundEarly},
                 {"status", status_of(result)},
                 {"cause", text_or_null(result.cause)},
                 {"code", text_or_null(result.code)},
                 {"notes", result.notes},
                 {"exit_code", int(exit_of(options, result))}};
    if (!cli::is_utf8(job.input)) file["input_hex"] = cli::hex(job.input);
    if (std::all_of(result.outputs.begin(), result.outputs.end(), cli::is_utf8)) return file;
    for (const std::string& output : result.outputs) file["outputs_hex"].push_back(cli::hex(output));
    return file;
}

void print_json(const Options& options, const Run& run)
{
    Json files = Json::array();
    for (size_t i = 0; i < run.results.size(); ++i)
        files.push_back(file_json(options, run.plan.jobs[i], run.results[i]));
    const Totals totals = add_up(options, run);
    const Json document = {{"files", files},
                           {"notes", run.plan.notes},
                           {"summary",
                            {{"files", run.results.size()},
                             {"done", totals.done},
                             {"damaged", totals.damaged},
                             {"failed", totals.failed},
                             {"not_begun", totals.left},
                             {"pictures", totals.pictures},
                             {"bytes", totals.bytes},
                             {"seconds", run.seconds},
                             {"exit_code", exit_of(run, totals)}}}};
    // File names are bytes; what is no UTF-8 in them cannot stand in JSON.
    printf("%s\n", document.dump(2, ' ', false, Json::error_handler_t::replace).c_str());
}

// ---- as text

void print_messages(const Run& run)
{
    for (const std::string& note : run.plan.notes) fail(cli::Fine, "warning: " + note);
    for (size_t i = 0; i < run.results.size(); ++i) {
        const tools::Result& result = run.results[i];
        if (is_left(result)) continue;
        for (const std::string& note : result.notes)
            fail(cli::Fine, "warning: " + run.plan.jobs[i].input + ": " + note);
        if (!result.cause.empty()) fail(cli::Failed, result.cause);
        if (result.left)
            fail(cli::Failed, "the disk is full: " + tools::counted(result.left, "more file") + " not begun");
    }
}

std::string outputs_text(const tools::Result& result)
{
    if (result.outputs.empty()) return "";
    const std::string more = result.outputs.size() > 1
                                 ? " to " + std::filesystem::path(result.outputs.back()).filename().string()
                                 : "";
    return tools::printable(result.outputs.front() + more);
}

void print_one(const tools::Result& result)
{
    if (result.cause.empty())
        printf("%s: %s\n", outputs_text(result).c_str(), tools::counted(result.pictures, "picture").c_str());
}

void print_row(const char* status, int colour, uint64_t pictures, uint64_t bytes, double seconds,
               const std::string& what)
{
    char cell[16];
    snprintf(cell, sizeof(cell), "%-8s", status);
    printf("%s %9llu  %10s  %8s  %s\n", cli::paint(cell, colour, cli::has_colour(STDOUT_FILENO)).c_str(),
           static_cast<unsigned long long>(pictures), tools::human_bytes(bytes).c_str(),
           tools::human_duration(seconds).c_str(), what.c_str());
}

void print_rows(const Run& run)
{
    printf("%-8s %9s  %10s  %8s  %s\n", "result", "pictures", "size", "time", "file");
    for (size_t i = 0; i < run.results.size(); ++i) {
        const tools::Result& result = run.results[i];
        if (is_left(result)) continue; // perhaps thousands
        const std::string to = result.outputs.empty() ? "" : " -> " + outputs_text(result);
        print_row(status_of(result), colour_of(result), result.pictures, result.bytes, result.seconds,
                  tools::printable(run.plan.jobs[i].input) + to);
    }
}

void print_total(const Options& options, const Run& run)
{
    const Totals totals = add_up(options, run);
    print_row("total", 1, totals.pictures, totals.bytes, run.seconds,
              tools::counted(run.results.size(), "file") + ": " + std::to_string(totals.done) + " done, " +
                  std::to_string(totals.damaged) + " damaged, " + std::to_string(totals.failed) + " failed" +
                  (totals.left ? ", " + std::to_string(totals.left) + " not begun" : ""));
}

int print_outcome(const Options& options, const Run& run, bool many)
{
    const bool table = many && !options.json && !options.quiet;
    if (table) print_rows(run);
    fflush(stdout);
    print_messages(run); // behind the rows: of ten thousand, the causes are what is left on the screen
    if (table) print_total(options, run);
    if (options.json)
        print_json(options, run);
    else if (!options.quiet && !many && !run.results.empty())
        print_one(run.results.front());
    if (fflush(stdout) != 0) return fail(cli::Failed, "standard output cannot be written");
    return exit_of(run, add_up(options, run));
}

// ---- the program

bool set_key(const Options& options, std::string& why)
{
    std::vector<uint8_t> key;
    if (!tools::find_key(options.key, options.keyFile, key, why)) return false;
    SetDecryptKey(key.data(), int(key.size()));
    return true;
}

int convert(Options& options)
{
    std::string why;
    Run run;
    if (!options.split.empty() && !tools::parse_split(options.split, options.pool.convert.split, why))
        return fail(cli::Usage, "--split: " + why);
    if (!set_key(options, why)) return fail(cli::KeyTrouble, why);
    if (!options.like.empty() && !sdv::read_like(options.like, options.plan.like, why))
        return fail(cli::NoRecording, why);
    options.plan.keyFile = options.keyFile.value_or("");
    if (!tools::plan_jobs(options.plan, run.plan, why)) return fail(cli::Usage, why);

    options.pool.progress = !options.quiet && cli::moves_cursor(STDERR_FILENO);
    const auto begin = std::chrono::steady_clock::now();
    const std::vector<tools::Job>& jobs = run.plan.jobs;
    run.signal = tools::run_jobs(jobs, options.pool, run.results);
    run.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    return print_outcome(options, run, jobs.size() > 1 || jobs.front().input != options.plan.inputs.front());
}

void add_options(CLI::App& app, Options& options)
{
    app.add_option("input", options.plan.inputs,
                   "recordings, folders with *.sdv in them, or - for standard input")
        ->required();
    app.add_option("-o,--output", options.plan.output,
                   "the AVI file, or the folder for several (default: beside the input, with .avi)");
    app.add_flag("-r,--recurse", options.plan.recurse, "look into the folders of folders, too");
    cli::names_file(app.add_option(
        "--like", options.like, "recording of the same camera, whose file header stands in for lost ones"));
    auto* key = app.add_option("--key", options.key, "key of encrypted recordings: up to 32 hex digits");
    cli::names_file(app.add_option("--key-file", options.keyFile,
                                   "file that holds the key, not seen by other users (default: $SDV_KEY)"))
        ->excludes(key);
    app.add_option("-j,--jobs", options.pool.atOnce, "conversions at a time (default: one for each core)")
        ->check(CLI::Range(1, 1024));
    app.add_flag("--overwrite", options.pool.convert.overwrite, "replace files that are there already");
    app.add_option("--split", options.split,
                   "parts NAME-001.avi and so on, cut at key frames: by size (700M, 2G) or time (10m, 1h)");
    app.add_flag("--start-time", options.plan.nameByStart, "name outputs by their recording's start");
    app.add_flag("--strict", options.strict, "exit with 7 when something was damaged or missing");
    app.add_flag("--json", options.json, "tell the outcome as one JSON document");
    app.add_flag("-q,--quiet", options.quiet, "print warnings and errors only");
}

} // namespace

int main(int argc, char** argv)
try {
    Options options;
    options.pool.atOnce = std::max(1u, std::thread::hardware_concurrency());
    CLI::App app{"Convert SDV recordings to AVI files.", "sdv2avi"};
    add_options(app, options);
    cli::complete(app, {"sdv2avi IN.sdv -o OUT.avi\n"
                        "sdv2avi --key-file camera.key IN.sdv\n"
                        "sdv2avi -r CARD -o FOLDER --start-time\n"
                        "sdv2avi --split 10m LONG.sdv",
                        {{cli::Failed, ""},
                         {cli::NoRecording, ""},
                         {cli::NoKeyFrame, ""},
                         {cli::KeyTrouble, "the key is wrong or missing, be it for some frames only"},
                         {cli::NoOutput, ""},
                         {cli::Damaged, "with --strict: done, but damage was left out"},
                         {cli::Exists, "an output exists already (--overwrite replaces it)"}}});
    if (const auto over = cli::parse(app, argc, argv)) return *over;

    tools::fill_standard_descriptors();
    signal(SIGXFSZ, SIG_IGN); // a limit on file sizes is a write that fails, not an end without a word
    return convert(options);
} catch (const std::exception& error) {
    return cli::give_up("sdv2avi", error);
}
