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
    std::string split;
    bool json = false, quiet = false, strict = false;
};

// Everything that was done.
struct Run
{
    std::vector<tools::Job> jobs;
    std::vector<tools::Result> results; // fewer, when a signal came
    double seconds = 0;
    int signal = 0; // that ended it
};

struct Totals
{
    size_t done = 0, damaged = 0, failed = 0;
    uint64_t pictures = 0, bytes = 0;
    cli::Exit exit = cli::Fine;
};

int fail(cli::Exit code, const std::string& why)
{
    fprintf(stderr, "sdv2avi: %s\n", tools::printable(why).c_str());
    return code;
}

// ---- what became of them

const char* status_of(const tools::Result& result)
{
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
        (!result.cause.empty() ? totals.failed : result.damaged ? totals.damaged : totals.done) += 1;
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

Json file_json(const Options& options, const tools::Job& job, const tools::Result& result)
{
    const bool failed = !result.cause.empty();
    return {{"input", job.input},          {"outputs", result.outputs},
            {"pictures", result.pictures}, {"bytes", result.bytes},
            {"seconds", result.seconds},   {"report", cli::report_json(result.report)},
            {"status", status_of(result)}, {"cause", failed ? Json(result.cause) : Json(nullptr)},
            {"notes", result.notes},       {"exit_code", int(exit_of(options, result))}};
}

void print_json(const Options& options, const Run& run)
{
    Json files = Json::array();
    for (size_t i = 0; i < run.results.size(); ++i)
        files.push_back(file_json(options, run.jobs[i], run.results[i]));
    const Totals totals = add_up(options, run);
    const Json document = {{"files", files},
                           {"summary",
                            {{"files", run.jobs.size()},
                             {"done", totals.done},
                             {"damaged", totals.damaged},
                             {"failed", totals.failed},
                             {"not_begun", run.jobs.size() - run.results.size()},
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
    for (size_t i = 0; i < run.results.size(); ++i) {
        for (const std::string& note : run.results[i].notes)
            fail(cli::Fine, "warning: " + run.jobs[i].input + ": " + note);
        if (!run.results[i].cause.empty()) fail(cli::Failed, run.results[i].cause);
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
        const std::string to = result.outputs.empty() ? "" : " -> " + outputs_text(result);
        print_row(status_of(result), colour_of(result), result.pictures, result.bytes, result.seconds,
                  tools::printable(run.jobs[i].input) + to);
    }
}

void print_total(const Options& options, const Run& run)
{
    const Totals totals = add_up(options, run);
    const size_t left = run.jobs.size() - run.results.size();
    print_row("total", 1, totals.pictures, totals.bytes, run.seconds,
              tools::counted(run.jobs.size(), "file") + ": " + std::to_string(totals.done) + " done, " +
                  std::to_string(totals.damaged) + " damaged, " + std::to_string(totals.failed) + " failed" +
                  (left ? ", " + std::to_string(left) + " not begun" : ""));
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

bool spares_key_file(const Options& options, const std::vector<tools::Job>& jobs, std::string& why)
{
    if (!options.keyFile) return true;
    for (const tools::Job& job : jobs)
        if (tools::same_file(job.output, *options.keyFile)) {
            why = job.output + ": is the same file as the key file";
            return false;
        }
    return true;
}

int convert(Options& options)
{
    std::string why;
    Run run;
    if (!options.split.empty() && !tools::parse_split(options.split, options.pool.convert.split, why))
        return fail(cli::Usage, "--split: " + why);
    if (!set_key(options, why)) return fail(cli::KeyTrouble, why);
    if (!tools::plan_jobs(options.plan, run.jobs, why) || !spares_key_file(options, run.jobs, why))
        return fail(cli::Usage, why);

    options.pool.progress = !options.quiet && isatty(STDERR_FILENO);
    const auto begin = std::chrono::steady_clock::now();
    run.signal = tools::run_jobs(run.jobs, options.pool, run.results);
    run.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    return print_outcome(options, run,
                         run.jobs.size() > 1 || run.jobs.front().input != options.plan.inputs.front());
}

void add_options(CLI::App& app, Options& options)
{
    app.add_option("input", options.plan.inputs,
                   "recordings, folders with *.sdv in them, or - for standard input")
        ->required();
    app.add_option("-o,--output", options.plan.output,
                   "the AVI file, or the folder for several (default: beside the input, with .avi)");
    app.add_flag("-r,--recurse", options.plan.recurse, "look into the folders of folders, too");
    auto* key = app.add_option("--key", options.key, "key of encrypted recordings: up to 32 hex digits");
    app.add_option("--key-file", options.keyFile,
                   "file that holds the key, not seen by other users (default: $SDV_KEY)")
        ->excludes(key);
    app.add_option("-j,--jobs", options.pool.atOnce, "conversions at a time (default: one for each core)")
        ->check(CLI::Range(1, 1024));
    app.add_flag("--overwrite", options.pool.convert.overwrite, "replace files that are there already");
    app.add_option("--split", options.split,
                   "parts NAME-001.avi and so on, cut at key frames: by size (700M, 2G) or time (10m, 1h)");
    app.add_flag("--start-time", options.plan.nameByStart, "name outputs by their recording's start");
    app.add_flag("--strict", options.strict, "exit with 7 when something damaged was left out");
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
                         {cli::KeyTrouble, ""},
                         {cli::NoOutput, ""},
                         {cli::Damaged, "with --strict: done, but damage was left out"}}});
    if (const auto over = cli::parse(app, argc, argv)) return *over;

    tools::fill_standard_descriptors();
    signal(SIGXFSZ, SIG_IGN); // a limit on file sizes is a write that fails, not an end without a word
    return convert(options);
} catch (const std::exception& error) {
    return cli::give_up("sdv2avi", error);
}
