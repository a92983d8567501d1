#include "part_files.h"
#include "avi_bytes.h"
#include "disk_room.h"
#include "file_lock.h"
#include "files.h"
#include "recording_name.h"

#include "Quorlin.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <optional>
#include <string_view>
#include <system_error>
#include <vector>

#include <sys/stat.h>
#include <unistd.h>

namespace tools {
namespace {

namespace fs = std::filesystem;

constexpr std::string_view Suffix = ".avi.part";

// Oldest first, as their names sort.
std::vector<std::string> part_files(const std::string& directory)
{
    std::vector<std::string> paths;
    std::error_code error;
    for (fs::directory_iterator at(directory, error), end; !error && at != end; at.increment(error)) {
        const std::string path = directory + "/" + at->path().filename().string();
        std::error_code unknown;
        if (path.ends_with(Suffix) && fs::is_regular_file(at->symlink_status(unknown))) paths.push_back(path);
    }
    std::sort(paths.begin(), paths.end());
    return paths;
}

// A file that was written anew is another one, and anybody's.
bool keeps_lock(const std::string& part, FileLock& lock)
{
    return still_names(part, lock) || lock_file(part, lock) == Locked::ours;
}

// Nothing when somebody else has taken it over.
std::optional<Recovered> finish_part(const Recovery& recovery, const std::string& part, FileLock& lock)
{
    Recovered recovered{part, false, ""};
    if (!repair_locked(part, {}, {&recovery.stop, recovery.withJob}, recovered.what)) return recovered;
    if (!keeps_lock(part, lock)) return std::nullopt;
    release_room(part);
    RecordingName name{part.substr(0, part.size() - Suffix.size()), 1};
    std::string why;
    // A file that was finished before the kill need not have come to the disk yet.
    if (!sync_in_pieces(lock.fd, &recovery.stop))
        recovered.what = strerror(errno);
    else if (!publish_name(name, why))
        recovered.what = why;
    else
        recovered = {name.final_name(), true, recovered.what};
    return recovered;
}

// Headers at most: the kill came before the first frame.
bool is_bare(const std::string& part)
{
    const avi::File file(part);
    avi::Window window(file);
    const bool silent = avi::look_word(window, avi::VideoHeaderArea) == avi::fcc("LIST");
    const uint32_t area = silent ? avi::VideoHeaderArea : avi::AudioHeaderArea;
    const bool ours = file.length == 0 || avi::look_word(window, 0) == avi::fcc("RIFF");
    return file.fd >= 0 && ours && !window.failed && file.length <= area + sizeof(AVI_MoviHeader);
}

std::optional<Recovered> recover(const Recovery& recovery, const std::string& part)
{
    FileLock lock;
    const Locked locked = lock_file(part, lock);
    if (locked == Locked::not_at_all)
        return Recovered{part, false, "it cannot be locked: " + std::string(strerror(errno))};
    if (locked != Locked::ours) return std::nullopt;
    if (!is_bare(part)) return finish_part(recovery, part, lock);
    unlink(part.c_str());
    return std::nullopt;
}

void recover_and_tell(const Recovery& recovery, const std::string& part)
{
    std::optional<Recovered> recovered;
    try {
        recovered = recover(recovery, part);
    } catch (const std::exception& error) {
        recovered = {part, false, error.what()};
    }
    if (!recovered) return;
    if (!recovered->finished && recovery.stop) recovered->what = "interrupted, and left to the next start";
    recovery.told(*recovered);
}

void work(const Recovery& recovery)
try {
    for (const std::string& part : recovery.parts) {
        if (recovery.stop) break;
        recover_and_tell(recovery, part);
    }
    recovery.ended();
} catch (const std::exception&) {
    recovery.ended(); // there is not even the memory to tell of it
}

} // namespace

Recovery::~Recovery()
{
    end_recovery(*this);
}

void find_parts(Recovery& recovery)
{
    recovery.parts = part_files(recovery.directory);
}

void start_recovery(Recovery& recovery)
try {
    recovery.thread = std::thread(work, std::cref(recovery));
} catch (const std::system_error& error) {
    recovery.told({recovery.directory, false, error.what()});
    recovery.ended();
}

void end_recovery(Recovery& recovery)
{
    recovery.stop = true;
    if (recovery.thread.joinable()) recovery.thread.join();
}

} // namespace tools
