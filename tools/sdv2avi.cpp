// sdv2avi: an SDV recording becomes an AVI file. The output appears under its name only when it is complete.
#include "Quorlin.h"
#include "cli.h"
#include "descriptors.h"
#include "key.h"
#include "progress.h"
#include "report_text.h"
#include "temp_output.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <new>
#include <optional>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

struct Options
{
    std::string input, output;
    std::optional<std::string> key, keyFile;
};

constexpr size_t PathLimit = sizeof(g_tSdv2Avi.m_szInputPath) - 1;

int fail(const std::string& why)
{
    fprintf(stderr, "sdv2avi: %s\n", why.c_str());
    return 1;
}

void warn(const std::string& what)
{
    fprintf(stderr, "sdv2avi: warning: %s\n", what.c_str());
}

int position()
{
    return std::atomic_ref<int32_t>(g_tSdv2Avi.m_iPosition).load(std::memory_order_relaxed);
}

bool same_file(const std::string& a, const std::string& b)
{
    struct stat first, second;
    return stat(a.c_str(), &first) == 0 && stat(b.c_str(), &second) == 0 && first.st_dev == second.st_dev &&
           first.st_ino == second.st_ino;
}

size_t read_start(const std::string& path, void* to, size_t count)
{
    const int fd = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) return 0;
    const ssize_t got = read(fd, to, count);
    const int reason = errno;
    close(fd);
    errno = reason;
    return got < 0 ? 0 : size_t(got);
}

// The input's file header, or the reason why there is none.
std::optional<std::string> check_input(const std::string& path, S_FileHeader& header)
{
    struct stat status;
    if (stat(path.c_str(), &status) < 0 || access(path.c_str(), R_OK) < 0)
        return path + ": " + strerror(errno);
    if (!S_ISREG(status.st_mode)) return path + ": is no regular file";
    if (path.size() > PathLimit)
        return path + ": the path is longer than " + std::to_string(PathLimit) + " bytes";
    if (read_start(path, &header, sizeof(header)) < sizeof(header) || !IsValidFileHeader(&header))
        return path + ": is no SDV recording";
    return std::nullopt;
}

bool set_key(const Options& options, std::string& why)
{
    std::vector<uint8_t> key;
    if (!tools::find_key(options.key, options.keyFile, key, why)) return false;
    SetDecryptKey(key.data(), int(key.size()));
    return true;
}

void warn_of_limits(const S_FileHeader& header, bool aac)
{
    const uint32_t rate = g_tSdv2Avi.m_Header.SamplesPerSec;
    if (header.FrameRate == 0)
        warn("the recording's frame rate is 0: players do not know how fast to show it");
    if (aac && rate != 48000 && rate != 32000 && rate != 16000 && rate != 8000)
        warn("AAC at " + std::to_string(rate) +
             " Hz: the AVI file describes it as 8000 Hz, players get it wrong");
}

// The finished file itself says what is in it: a recording without any chunk has RIFF size 0.
bool holds_frames(const std::string& path, uint32_t& pictures)
{
    std::array<uint8_t, 52> start{};
    uint32_t riffSize = 0;
    if (read_start(path, start.data(), start.size()) < start.size()) return false;
    memcpy(&riffSize, &start[4], sizeof(riffSize));
    memcpy(&pictures, &start[48], sizeof(pictures));
    return riffSize != 0;
}

std::string explain_nothing(const std::string& input, const SdvReport& report)
{
    const std::string what = input + ": no frame could be recorded: ";
    if (report.u64DroppedWrongKey) return what + "the key is wrong";
    if (report.u64DroppedNoKey) return what + "it is encrypted and needs a key";
    return what + tools::describe_report(report);
}

std::string explain(int outcome, int mode, const Options& options)
{
    switch (outcome) {
    case -1:
        return options.input + ": cannot be opened";
    case -2:
        return options.output + ": cannot be written (the disk is full, a limit on file sizes is reached, or "
                                "the file would pass 4 GiB)";
    case -3:
        return "out of memory";
    case -4:
        if (mode == 31 || mode == 32)
            return options.input + ": recordings of mode " + std::to_string(mode) +
                   " can only be pushed as a stream, not converted as a file";
        return options.input + ": no key frame in it";
    default:
        return options.input + ": the conversion was refused (no thread could be started)";
    }
}

int run_library(const std::string& input, const std::string& output)
{
    std::string from = input, to = output; // the call takes writable texts
    const tools::Silence silence;
    tools::Progress progress;
    tools::start_progress(progress, position);
    return KtConvert_SDVtoAVI(from.data(), to.data());
}

int convert(const Options& options)
{
    S_FileHeader header{};
    std::string why;
    if (const auto bad = check_input(options.input, header)) return fail(*bad);
    if (same_file(options.input, options.output)) return fail("input and output are the same file");
    if (!set_key(options, why)) return fail(why);

    tools::TempOutput output;
    if (!tools::create_temp(output, options.output, why)) return fail(why);
    if (output.path.size() > PathLimit)
        return fail(options.output + ": the path is longer than " +
                    std::to_string(PathLimit - (output.path.size() - output.target.size())) + " bytes");

    const bool ran = run_library(options.input, output.path) == 0;
    if (!ran || position() != 100) return fail(explain(ran ? position() : 0, header.Mode, options));
    const SdvReport report = tools::conversion_report();
    uint32_t pictures = 0;
    if (!holds_frames(output.path, pictures)) return fail(explain_nothing(options.input, report));
    if (tools::is_anything_lost(report)) warn(options.input + ": " + tools::describe_report(report));
    warn_of_limits(header, g_tSdv2Avi.m_iDestType == 1);
    if (!tools::commit_temp(output, why)) return fail(why);
    printf("%s: %u pictures\n", options.output.c_str(), pictures);
    return fflush(stdout) == 0 ? 0 : fail("standard output cannot be written");
}

} // namespace

int main(int argc, char** argv)
{
    Options options;
    CLI::App app{"Convert an SDV recording to an AVI file.", "sdv2avi"};
    app.add_option("input", options.input, "the recording")->required();
    app.add_option("-o,--output", options.output, "the AVI file (default: the input's name with .avi)");
    auto* key = app.add_option("--key", options.key, "key of an encrypted recording: up to 32 hex digits");
    app.add_option("--key-file", options.keyFile,
                   "file that holds the key, not seen by other users (default: $SDV_KEY)")
        ->excludes(key);
    cli::complete(app,
                  {"sdv2avi IN.sdv -o OUT.avi\nsdv2avi --key-file camera.key IN.sdv", {{cli::Failed, ""}}});
    if (const auto over = cli::parse(app, argc, argv)) return *over;

    tools::fill_standard_descriptors();
    signal(SIGXFSZ, SIG_IGN); // a limit on file sizes is a write that fails, not an end without a word
    if (options.output.empty())
        options.output = std::filesystem::path(options.input).replace_extension(".avi").string();
    try {
        return convert(options);
    } catch (const std::bad_alloc&) {
        return fail("out of memory");
    }
}
