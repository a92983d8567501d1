#include "cli_record_options.h"
#include "endpoint.h"

#include <map>

namespace cli {

namespace {

CLI::Validator endpoint_check()
{
    const auto check = [](const std::string& text) {
        return tools::parse_endpoint(text) ? "" : text + " is no host and port, such as 0.0.0.0:8000";
    };
    return {check, "HOST:PORT", "endpoint"};
}

// There are several files, and a key is no stream: "-" is neither.
CLI::Validator path_check()
{
    const auto check = [](const std::string& text) {
        return text != "-" ? "" : "standard input and output cannot be used here; ./- is what is called so";
    };
    return {check, "", "path"};
}

void add_options(CLI::App& app, RecordOptions& options)
{
    const std::map<std::string, int> units = {{"s", 1}, {"m", 60}, {"h", 3600}, {"d", 86400}};
    const std::map<std::string, uint64_t> sizes = {{"K", 1u << 10}, {"M", 1u << 20}, {"G", 1u << 30}};
    auto* listen = app.add_option("--listen", options.listen,
                                  "where to wait for the camera; port 0 lets the system choose");
    listen->check(endpoint_check());
    app.add_option("--connect", options.connect, "the camera to call, again whenever it is lost")
        ->check(endpoint_check())
        ->excludes(listen);
    app.add_option("--out", options.directory, "directory of the AVI files")->required()->check(path_check());
    app.add_option("--key-file", options.keyFile,
                   "file with the key of an encrypted stream (default: $SDV_KEY)")
        ->check(path_check());
    app.add_option("--max-size", options.maxSize,
                   "bytes after which the next key frame begins a new file, such as 700M or 2G")
        ->transform(CLI::AsNumberWithUnit(sizes))
        ->check(CLI::Range(uint64_t{1}, tools::LargestAvi))
        ->capture_default_str();
    app.add_option("--max-time", options.maxTime,
                   "time after which the next key frame begins a new file, such as 10m or 1h")
        ->transform(CLI::AsNumberWithUnit(units))
        ->check(CLI::Range(1, 366 * 86400));
    app.add_option("--idle", options.idle,
                   "seconds without a whole frame, and hardly a byte, after which a connection is dropped")
        ->check(CLI::Range(1, 86400))
        ->capture_default_str();
    app.add_flag("--once", options.once, "end after the first camera");
    app.add_flag("--preview", options.preview, "tell every second how the recording stands");
    app.add_flag("--json", options.json, "tell what happens as JSON, one object a line");
    app.callback([&options] {
        if (options.listen.empty() && options.connect.empty())
            throw CLI::RequiredError("--listen or --connect");
    });
}

} // namespace

std::optional<int> parse_record_options(RecordOptions& options, int argc, char** argv)
{
    CLI::App app{
        "Record the SDV stream of a camera over TCP. SIGHUP begins a new file at the next key frame; "
        "SIGTERM and SIGINT finish the file and end.",
        "sdvrecord"};
    add_options(app, options);
    complete(app, {"sdvrecord --listen 0.0.0.0:9000 --out recordings\n"
                   "sdvrecord --connect camera.local:9000 --out recordings --max-time 1h --json",
                   {{Failed, "it failed, or --once brought no recording"},
                    {NoRecording, "--once: the camera sent no SDV recording"},
                    {NoKeyFrame, ""},
                    {KeyTrouble, ""},
                    {NoOutput, ""}}});
    return parse(app, argc, argv);
}

} // namespace cli
