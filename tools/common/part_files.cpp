#include "part_files.h"
#include "avi_repair.h"
#include "disk_room.h"
#include "files.h"
#include "recording_name.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <string_view>
#include <vector>

#include <fcntl.h>
#include <sys/file.h>
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

Recovered recover(const std::string& part)
{
    Recovered recovered{part, false, ""};
    if (!repair_avi(part, {}, recovered.what)) return recovered;
    release_room(part);
    RecordingName name{part.substr(0, part.size() - Suffix.size()), 1};
    std::string why;
    // A file that was finished before the kill need not have come to the disk yet.
    if (!sync_file(part)) {
        recovered.what = strerror(errno);
        return recovered;
    }
    recovered.finished = publish_name(name, why);
    if (recovered.finished)
        recovered.path = name.final_name();
    else
        recovered.what = why;
    return recovered;
}

} // namespace

DirectoryUse::~DirectoryUse()
{
    if (fd >= 0) close(fd);
}

void use_directory(DirectoryUse& use, const std::string& directory,
                   const std::function<void(const Recovered&)>& told)
{
    use.fd = open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (flock(use.fd, LOCK_EX | LOCK_NB) == 0) {
        for (const std::string& part : part_files(directory)) {
            std::error_code error;
            if (fs::file_size(part, error) == 0 && !error)
                unlink(part.c_str());
            else
                told(recover(part));
        }
    }
    flock(use.fd, LOCK_SH); // waits for another one that repairs now
}

} // namespace tools
