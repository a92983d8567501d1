#include "convert_job.h"
#include "avi_parts.h"
#include "avi_sound.h"
#include "end_signals.h"
#include "files.h"
#include "frame_cutter.h"
#include "human.h"
#include "report_text.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <system_error>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tools {
namespace {

using namespace std::chrono_literals;
namespace cause = cli::cause;

struct Conversion
{
    const Job& job;
    const ConvertSettings& settings;
    std::atomic<uint32_t>& kib;
    bool pushed = false; // frame by frame, which counts their numbers
    AviParts parts{};
    Result result{};
    std::string why{};
};

struct OpenFile
{
    int fd;

    OpenFile(const std::string& path, int flags) : fd(open(path.c_str(), flags | O_CLOEXEC)) {}
    ~OpenFile()
    {
        if (fd >= 0) close(fd);
    }
    OpenFile(const OpenFile&) = delete;
    OpenFile& operator=(const OpenFile&) = delete;
};

bool fail(Result& result, cli::Exit exit, const char* code, const std::string& cause)
{
    result.exit = exit;
    result.code = code;
    result.cause = cause;
    return false;
}

// An output, with the error number where there is one. A limit on the size of files leaves room for others.
bool fail_output(Result& result, int error, const std::string& cause)
{
    if (error == EEXIST) return fail(result, cli::Exists, cli::cause::Exists, cause);
    result.noRoom = error == ENOSPC || error == EDQUOT;
    const bool full = result.noRoom || error == EFBIG;
    return fail(result, cli::NoOutput, full ? cli::cause::DiskFull : cli::cause::CannotWrite, cause);
}

void follow_position(std::stop_token stop, const Conversion& c)
{
    const std::atomic_ref<int32_t> percent(g_tSdv2Avi.m_iPosition);
    std::mutex lock; // nobody else's: the wait wants one
    // cppcheck-suppress localMutex
    std::unique_lock guard(lock);
    std::condition_variable_any ended;
    do c.kib = uint32_t((c.job.size >> 10) * uint64_t(std::clamp(percent.load(), 0, 100)) / 100);
    while (!ended.wait_for(guard, stop, 50ms, [&stop] { return stop.stop_requested(); }));
}

// Until the thread goes. The signals are for the one that converts.
std::jthread watch_position(const Conversion& c)
{
    sigset_t all, old;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &old);
    std::jthread watcher;
    try {
        watcher = std::jthread(follow_position, std::cref(c));
    } catch (const std::system_error&) {
        // nobody sees how far it is: the work is what counts
    }
    pthread_sigmask(SIG_SETMASK, &old, nullptr);
    return watcher;
}

std::string part_name(const std::string& output, size_t number)
{
    const size_t dot = output.rfind('.');
    const bool extension = dot != std::string::npos && output.find('/', dot) == std::string::npos;
    char text[24];
    snprintf(text, sizeof(text), "-%03zu", number);
    return output.substr(0, extension ? dot : output.size()) + text + (extension ? output.substr(dot) : "");
}

bool is_split(const Conversion& c)
{
    return c.settings.split.bytes || c.settings.split.seconds > 0;
}

// ---- what went wrong

bool fail_empty(Conversion& c)
{
    const SdvReport& report = c.result.report;
    const std::string what = c.job.input + ": no frame could be recorded: ";
    const std::string lost = describe_lost(c.parts.input);
    if (report.u64DroppedWrongKey)
        return fail(c.result, cli::KeyTrouble, cause::WrongKey, what + "the key is wrong");
    if (report.u64DroppedNoKey)
        return fail(c.result, cli::KeyTrouble, cause::NoKey, what + "it is encrypted and needs a key");
    if (report.u64DroppedNumber0 || report.u64DroppedInconsistent)
        return fail(c.result, cli::Failed, cause::Failed, what + describe_report(report));
    if (!lost.empty()) return fail(c.result, cli::Failed, cause::CannotRead, what + lost);
    return fail(c.result, cli::NoKeyFrame, cause::NoKeyFrame, c.job.input + ": no whole frame in it");
}

// The library does not say why it could not write. The file is gone, but as long as it is open its bytes are
// not: what stopped it stops us.
bool fail_to_write(Conversion& c, int fd)
{
    DiskRoom room{fd, 0};
    const std::string cannot = c.job.output + ": cannot be written";
    if (reserve_room(room, c.job.size, c.why)) return fail_output(c.result, 0, cannot);
    return fail_output(c.result, errno, cannot + ": " + c.why);
}

bool fail_by_outcome(Conversion& c, int outcome, int output)
{
    switch (outcome) {
    case -1:
        return fail(c.result, cli::Failed, cause::CannotRead,
                    c.job.input + ": cannot be opened, or its file header not be read");
    case -2:
        return fail_to_write(c, output);
    case -3:
        return fail(c.result, cli::Failed, cause::OutOfMemory, c.job.input + ": out of memory");
    case -4:
        return fail(c.result, cli::NoKeyFrame, cause::NoKeyFrame, c.job.input + ": no key frame in it");
    default:
        return fail(c.result, cli::Failed, cause::Failed, c.job.input + ": no thread could be started");
    }
}

void note_limits(Conversion& c)
{
    const uint32_t rate = g_tSdv2Avi.m_Header.SamplesPerSec;
    if (c.job.header.FrameRate == 0)
        c.result.notes.push_back("the recording's frame rate is 0: players do not know how fast to show it");
    if (g_tSdv2Avi.m_iDestType == 1 && rate != 48000 && rate != 32000 && rate != 16000 && rate != 8000)
        c.result.notes.push_back("AAC at " + std::to_string(rate) +
                                 " Hz: the AVI file describes it as 8000 Hz, players get it wrong");
    const uint32_t channels = c.job.header.AChannels;
    if (g_tSdv2Avi.m_iAudioFrames && g_tSdv2Avi.m_iDestType != 1 && channels > 2 && channels < 255)
        c.result.notes.push_back("the recording's header tells of " + std::to_string(channels) +
                                 " audio channels, and so does the AVI file: players take one or two");
}

// ---- converting

// Larger ones do not fit one AVI file, and the library's own conversion does not find the frames of all
// modes.
bool needs_pushing(const Conversion& c)
{
    const int mode = c.job.header.Mode;
    return c.job.input == "-" || is_split(c) || c.job.size >= LargestAvi || mode == 31 || mode == 32 ||
           !c.job.ahead.empty();
}

int run_library(const Conversion& c, const std::string& input, const std::string& output)
{
    std::string from = input, to = output; // the call takes writable texts
    const std::jthread watcher = watch_position(c);
    return KtConvert_SDVtoAVI(from.data(), to.data());
}

// Behind the header of a frame that ends the file too soon.
bool has_whole_frame(int input, uint64_t at)
{
    sdv::FrameCutter cutter;
    cutter.begun = true;
    const auto room = sdv::piece_room(cutter);
    sdv::add_piece(cutter, size_t(std::max<ssize_t>(0, pread(input, room.data(), room.size(), off_t(at)))));
    while (sdv::skip_torn(cutter))
        if (!sdv::take_file_frame(cutter).empty()) return true;
    return false;
}

// A file that grew too large is no failure: `again`, and it is to be made in parts. Nor is an input that the
// library could not read to its end, or gave up inside a frame: there may be more behind the place.
bool convert_whole(Conversion& c, int input, bool& again)
{
    TempOutput& file = c.parts.files.emplace_back();
    c.parts.firstPictures.push_back(0);
    if (!create_temp(file, c.job.output, c.why, c.job.rights)) return fail_output(c.result, errno, c.why);
    const OpenFile output(file.path, O_RDWR);

    const bool ran =
        run_library(c, library_path(c.job.input, input), library_path(file.path, output.fd)) == 0;
    const int outcome = ran ? g_tSdv2Avi.m_iPosition : 0;
    c.parts.report = conversion_report();
    c.parts.pictures = uint64_t(pictures_recorded());
    struct stat status
    {
    };
    const SdvReport& report = c.parts.report;
    const bool more = report.u64BytesUnreadable ||
                      (report.u64CutOff && outcome == 100 && has_whole_frame(input, report.u64CutOff));
    c.parts.asFile = more && (outcome == 100 || outcome == -4);
    again = c.parts.asFile ||
            (outcome == -2 && fstat(output.fd, &status) == 0 && uint64_t(status.st_size) > LargestAvi);
    return outcome == 100 || again || fail_by_outcome(c, outcome, output.fd);
}

bool set_limits(Conversion& c)
{
    const Split& split = c.settings.split;
    if (split.bytes) c.parts.limits.bytes = std::min(split.bytes, LargestAvi);
    if (split.seconds <= 0) return true;
    if (c.job.header.FrameRate == 0)
        return fail(c.result, cli::Failed, cause::Failed,
                    c.job.input + ": its frame rate is 0: it can be split by size only");
    c.parts.limits.pictures = std::max(uint64_t{1}, uint64_t(split.seconds * c.job.header.FrameRate));
    return true;
}

bool push(Conversion& c, int input)
{
    c.parts.target = c.job.output;
    c.parts.rights = c.job.rights;
    c.pushed = true;
    if (!set_limits(c)) return false;
    c.parts.ahead = c.job.ahead;
    if (c.job.input != "-") lseek(input, c.parts.asFile ? 0 : sizeof(S_FileHeader), SEEK_SET);
    const Pushed pushed = push_recording(input, c.job.header, c.parts, c.kib, c.why);
    c.result.report = c.parts.report;
    switch (pushed) {
    case Pushed::no_key_frame:
        if (c.parts.input.error)
            return fail(c.result, cli::Failed, cause::CannotRead,
                        c.job.input + ": no key frame in it: " + describe_lost(c.parts.input));
        return fail_by_outcome(c, -4, -1);
    case Pushed::no_memory:
        return fail_by_outcome(c, -3, -1);
    case Pushed::no_output:
        return fail_output(c.result, c.parts.outputError, c.why);
    case Pushed::all:
        break;
    }
    return true;
}

bool run(Conversion& c)
{
    const OpenFile file(c.job.input, O_RDONLY | O_NONBLOCK | O_NOCTTY);
    const int input = c.job.input == "-" ? STDIN_FILENO : file.fd;
    if (input < 0)
        return fail(c.result, cli::Failed, cause::CannotRead, c.job.input + ": " + strerror(errno));
    if (!needs_pushing(c)) {
        bool again = false;
        if (!convert_whole(c, input, again)) return false;
        if (!again) return true;
        c.parts.files.clear();
        c.parts.firstPictures.clear();
        c.parts.pictures = 0;
        c.parts.report = {};
    }
    return push(c, input);
}

// ---- publishing

// When the part began. The header's clock is local time.
std::optional<timespec> start_time(const Conversion& c, size_t place)
{
    const auto start = start_of(c.job.header);
    if (!start) return std::nullopt;
    tm date{};
    gmtime_r(&*start, &date);
    date.tm_isdst = -1;
    const uint64_t rate = std::max<uint64_t>(c.job.header.FrameRate, 1);
    return timespec{mktime(&date) + time_t(c.parts.firstPictures[place] / rate), 0};
}

// Files show when their recording was made; without a date in it, when its last byte was.
void set_time(const Conversion& c, size_t place)
{
    const auto start = start_time(c, place);
    const auto time = start ? start : c.job.modified;
    if (!time) return;
    const timespec times[2] = {*time, *time};
    utimensat(AT_FDCWD, c.parts.files[place].path.c_str(), times, 0);
}

// Below that it is the time that a slot takes to fill.
constexpr double LeastEarly = 0.2;

void note_sound(Conversion& c, size_t place)
{
    const TempOutput& file = c.parts.files[place];
    const double early =
        double(pictures_before_sound(file.path)) / std::max<double>(c.job.header.FrameRate, 1);
    if (early < LeastEarly || c.job.header.FrameRate == 0) return;
    c.result.soundEarly = std::max(c.result.soundEarly, early);
    char text[128];
    snprintf(text, sizeof(text),
             "the sound begins %.1f s behind the pictures, and players play it %.1f s early", early, early);
    c.result.notes.push_back((c.parts.files.size() > 1 ? file.target + ": " : "") + text);
}

bool refuse_existing(Conversion& c, const std::string& name)
{
    return !is_taken(name, c.settings.overwrite, c.why) || fail_output(c.result, EEXIST, c.why);
}

bool publish(Conversion& c)
{
    auto& files = c.parts.files;
    const bool numbered = is_split(c) || files.size() > 1;
    if (files.size() > 1 && !is_split(c))
        c.result.notes.push_back("larger than one AVI file can be: converted into " +
                                 counted(files.size(), "part"));
    std::vector<TempOutput*> all;
    for (size_t i = 0; i < files.size(); ++i) {
        if (numbered) files[i].target = part_name(files[i].target, i + 1);
        struct stat status
        {
        };
        if (stat(files[i].path.c_str(), &status) == 0) c.result.bytes += uint64_t(status.st_size);
        note_sound(c, i);
        set_time(c, i);
        all.push_back(&files[i]);
    }
    // The long part of it, and that can be interrupted. Once the files are in their places, a signal would
    // only keep that from being told.
    for (const TempOutput* file : all)
        if (!sync_file(file->path)) return fail_output(c.result, errno, file->path + ": " + strerror(errno));
    block_signals();
    if (!commit_temps(all, c.why, c.settings.overwrite)) return fail_output(c.result, errno, c.why);
    for (const TempOutput& file : files) c.result.outputs.push_back(numbered ? file.target : c.job.output);
    const std::string next = part_name(c.job.output, files.size() + 1);
    if (numbered && exists(next)) c.result.notes.push_back(next + " is an older file, no part of this");
    return true;
}

// What could be made is kept; the exit code says that it is not all.
void note_losses(Conversion& c)
{
    Result& result = c.result;
    const SdvReport& report = result.report;
    result.damaged =
        is_anything_lost(report) || !c.parts.losses.empty() || report.u64NumberGaps || c.parts.input.error;
    if (is_anything_lost(report)) result.notes.push_back(describe_report(report));
    if (report.u64NumberGaps)
        result.notes.push_back(counted(report.u64FramesMissing, "frame") +
                               " missing by their numbers, which jump in " +
                               counted(report.u64NumberGaps, "place"));
    result.notes.insert(result.notes.end(), c.parts.losses.begin(), c.parts.losses.end());
    if (report.u64DroppedNoKey || report.u64DroppedWrongKey) {
        result.exit = cli::KeyTrouble;
        result.code = report.u64DroppedWrongKey ? cause::WrongKey : cause::NoKey;
    }
    if (c.parts.input.error) {
        result.exit = cli::Failed;
        result.code = cause::CannotRead;
        result.notes.push_back(describe_lost(c.parts.input));
    }
}

// A file conversion skips what lies in front of the first key frame; a frame that is missing there is missing
// all the same.
void count_leading(Conversion& c)
{
    SdvReport& report = c.result.report;
    if (c.pushed || report.u64Gaps == 0 || report.u64FirstGap > sizeof(S_FileHeader)) return;
    const sdv::FrameNumbers numbers = sdv::numbers_of(c.job.input);
    report.u64FramesMissing = numbers.missing;
    report.u64NumberGaps = numbers.gaps;
}

bool finish(Conversion& c)
{
    c.result.report = c.parts.report;
    c.result.pictures = c.parts.pictures;
    if (c.parts.files.empty() || c.result.report.u64FramesRecorded == 0) return fail_empty(c);
    note_limits(c);
    count_leading(c);
    note_losses(c);
    c.result.notes.insert(c.result.notes.end(), c.job.notes.begin(), c.job.notes.end());
    return publish(c);
}

} // namespace

bool parse_split(const std::string& text, Split& split, std::string& why)
{
    const struct
    {
        const char* unit;
        double bytes, seconds;
    } units[] = {{"K", 1024, 0}, {"M", 1024 * 1024, 0}, {"G", 1024 * 1024 * 1024, 0},
                 {"s", 0, 1},    {"m", 0, 60},          {"h", 0, 3600}};
    why = "\"" + text + "\" is neither a size (K, M, G) nor a time (s, m, h), such as 700M or 10m";
    if (text.empty() || text[0] < '0' || text[0] > '9') return false;
    char* rest = nullptr;
    const double amount = strtod(text.c_str(), &rest);
    for (const auto& [unit, bytes, seconds] : units) {
        if (strcmp(rest, unit) != 0 || !(amount > 0) || amount > 1e9) continue;
        split = {uint64_t(std::ceil(amount * bytes)), amount * seconds};
        return true;
    }
    return false;
}

Result convert(const Job& job, const ConvertSettings& settings, std::atomic<uint32_t>& kib)
{
    const auto begin = std::chrono::steady_clock::now();
    Conversion c{.job = job, .settings = settings, .kib = kib};
    const bool numbered = is_split(c);
    const bool done =
        refuse_existing(c, numbered ? part_name(job.output, 1) : job.output) && run(c) && finish(c);
    if (!done) {
        c.result.outputs.clear();
        c.result.pictures = c.result.bytes = 0;
    }
    c.result.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    return c.result;
}

} // namespace tools
