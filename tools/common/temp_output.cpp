#include "temp_output.h"
#include "files.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <random>
#include <string_view>
#include <vector>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tools {
namespace {

namespace fs = std::filesystem;

constexpr mode_t Owner = S_IRUSR | S_IWUSR;
constexpr int EndSignals[] = {SIGINT, SIGTERM, SIGHUP};

// What the signal handler removes: it can know nothing but a static. Changed under ListChange.
TempOutput* s_first;
std::mutex s_listMutex;

constexpr int MostLinks = 40; // one behind the other, as the kernel has it

// Behind it come six digits. Nobody else's files are called so: those that nobody holds are removed.
constexpr std::string_view TempMark = ".quorlin-";
constexpr size_t TempDigits = 6;

void end_by_signal(int number)
{
    // Another thread may be about to open the file; once it is removed nobody shall create it again.
    const rlimit none{0, 0};
    setrlimit(RLIMIT_NOFILE, &none);
    for (const TempOutput* doomed = s_first; doomed; doomed = doomed->next) unlink(doomed->path.c_str());
    _exit(128 + number);
}

// No signal comes between, nor another thread. One that leaves the signals to another goes on leaving them.
struct ListChange
{
    sigset_t before;

    ListChange()
    {
        sigset_t set;
        sigemptyset(&set);
        for (int number : EndSignals) sigaddset(&set, number);
        pthread_sigmask(SIG_BLOCK, &set, &before);
        s_listMutex.lock();
    }
    ListChange(const ListChange&) = delete;
    ListChange& operator=(const ListChange&) = delete;
    ~ListChange()
    {
        s_listMutex.unlock();
        pthread_sigmask(SIG_SETMASK, &before, nullptr);
    }
};

// A signal that was ignored when the program started (nohup, a job in the background) stays ignored.
void watch_signals(void (*handler)(int))
{
    for (int number : EndSignals) {
        struct sigaction old, action{};
        sigaction(number, nullptr, &old);
        if (old.sa_handler == SIG_IGN) continue;
        action.sa_handler = handler;
        sigfillset(&action.sa_mask);
        sigaction(number, &action, nullptr);
    }
}

bool fail(std::string& why, const std::string& path, const char* reason)
{
    why = path + ": " + reason;
    return false;
}

// Where all can write and none can remove what is another's, as in /tmp, a link may be a trap: whoever put it
// there chose which of our files we replace. Not every kernel refuses to follow it.
bool is_planted(const fs::path& link)
{
    struct stat own, folder;
    const fs::path parent = link.parent_path();
    if (lstat(link.c_str(), &own) != 0 || stat(parent.empty() ? "." : parent.c_str(), &folder) != 0)
        return false;
    return (folder.st_mode & S_ISVTX) && (folder.st_mode & S_IWOTH) && own.st_uid != geteuid() &&
           own.st_uid != folder.st_uid;
}

// A link is followed once: what it leads to now is what is replaced.
bool resolve(const std::string& name, std::string& target, std::string& why)
{
    std::error_code error;
    fs::path at = name;
    for (int links = 0; fs::is_symlink(fs::symlink_status(at, error)); ++links) {
        if (is_planted(at)) return fail(why, name, "a symbolic link of another user, where all can put some");
        at = at.parent_path() / fs::read_symlink(at, error);
        if (error || links == MostLinks || !exists(at.string()))
            return fail(why, name, "a symbolic link that leads nowhere");
    }
    target = at.string();
    struct stat status;
    if (stat(target.c_str(), &status) < 0) return true;
    if (S_ISDIR(status.st_mode)) return fail(why, name, "is a directory");
    if (!S_ISREG(status.st_mode)) return fail(why, name, "is no regular file");
    return true;
}

void arm(TempOutput& output, const std::string& path, int fd)
{
    output.path = path;
    output.fd = fd;
    output.next = s_first;
    s_first = &output;
    watch_signals(end_by_signal);
}

void disarm(TempOutput& output)
{
    TempOutput** at = &s_first;
    while (*at != &output) at = &(*at)->next;
    *at = output.next;
    if (!s_first) watch_signals(SIG_DFL);
    output.path.clear();
    close(output.fd);
    output.fd = -1;
}

// A name beside the target, which may itself be as long as names can be.
std::string temp_name(const std::string& target, unsigned number)
{
    char digits[TempDigits + 1];
    snprintf(digits, sizeof(digits), "%06x", number & 0xFFFFFF);
    const size_t name = target.rfind('/') + 1, most = NAME_MAX - TempMark.size() - TempDigits;
    return target.substr(0, name + std::min(target.size() - name, most)).append(TempMark) + digits;
}

bool is_temp_name(const std::string& name)
{
    const size_t mark = name.rfind(TempMark);
    return mark != std::string::npos && mark > 0 && name.size() == mark + TempMark.size() + TempDigits &&
           name.find_first_not_of("0123456789abcdef", mark + TempMark.size()) == std::string::npos;
}

// The lock tells that the owner lives. False when somebody who clears up came between, and removes the file.
bool lock_temp(int fd, const std::string& path)
{
    const bool taken = flock(fd, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK;
    return !taken && exists(path);
}

// Where there are no locks, nothing is known to be abandoned.
void remove_if_abandoned(const std::string& path)
{
    struct stat named, held;
    if (lstat(path.c_str(), &named) != 0 || !S_ISREG(named.st_mode) || named.st_uid != geteuid()) return;
    const int fd = open(path.c_str(), O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) return;
    // Its owner may have given it its name, and let it go, since it was opened.
    if (flock(fd, LOCK_EX | LOCK_NB) == 0 && fstat(fd, &held) == 0 && lstat(path.c_str(), &named) == 0 &&
        held.st_dev == named.st_dev && held.st_ino == named.st_ino)
        unlink(path.c_str());
    close(fd);
}

// A descriptor is held for each file, and there may be thousands of parts.
void allow_descriptors()
{
    rlimit limit;
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur == limit.rlim_max) return;
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
}

enum class Placed
{
    not_at_all,
    fresh,
    exchanged, // the older file has the temporary name
    replaced   // the older file is gone: its file system cannot exchange two
};

// One file alone needs no way back.
Placed place(const TempOutput& output, bool replace, bool alone)
{
    const char *from = output.path.c_str(), *to = output.target.c_str();
    struct stat older;
    if (!replace || lstat(to, &older) != 0)
        return rename_new(output.path, output.target) ? Placed::fresh : Placed::not_at_all;
    errno = EISDIR;
    if (S_ISDIR(older.st_mode)) return Placed::not_at_all;
    if (!alone && renameat2(AT_FDCWD, from, AT_FDCWD, to, RENAME_EXCHANGE) == 0) return Placed::exchanged;
    if (!alone && errno != EINVAL && errno != ENOSYS) return Placed::not_at_all;
    return rename(from, to) == 0 ? Placed::replaced : Placed::not_at_all;
}

void take_back(const TempOutput& output, Placed placed)
{
    const char *from = output.path.c_str(), *to = output.target.c_str();
    if (placed == Placed::fresh) unlink(to);
    if (placed == Placed::exchanged) renameat2(AT_FDCWD, from, AT_FDCWD, to, RENAME_EXCHANGE);
}

// All or none, as far as the file system can.
bool put_in_place(std::span<TempOutput* const> outputs, std::string& why, bool replace)
{
    std::vector<Placed> placed;
    for (const TempOutput* output : outputs) {
        placed.push_back(place(*output, replace, outputs.size() == 1));
        if (placed.back() != Placed::not_at_all) continue;
        const int reason = errno;
        fail(why, output->target, strerror(reason));
        for (size_t i = 0; i < placed.size(); ++i) take_back(*outputs[i], placed[i]);
        errno = reason;
        return false;
    }
    for (size_t i = 0; i < placed.size(); ++i) {
        if (placed[i] == Placed::exchanged) unlink(outputs[i]->path.c_str());
        disarm(*outputs[i]);
    }
    return true;
}

// Somebody writes to it, or finishes it.
bool is_held(const std::string& path)
{
    const int fd = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC);
    const bool held = fd >= 0 && flock(fd, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK;
    if (fd >= 0) close(fd);
    return held;
}

// Only where its owner needed more than that until now.
void restrict_owner(const TempOutput& output)
{
    struct stat status;
    if ((output.rights & Owner) == Owner || fstat(output.fd, &status) != 0) return;
    if (fchmod(output.fd, status.st_mode & output.rights) != 0) return; // a file system without rights
}

} // namespace

TempOutput::~TempOutput()
{
    if (path.empty()) return;
    const ListChange change;
    unlink(path.c_str());
    disarm(*this);
}

bool is_taken(const std::string& name, bool overwrite, std::string& why)
{
    if (!exists(name)) return false;
    if (!overwrite) return !fail(why, name, "exists already (--overwrite replaces it)");
    return is_held(name) && !fail(why, name, "is being written");
}

bool create_temp(TempOutput& output, const std::string& target, std::string& why, mode_t rights)
{
    if (!resolve(target, output.target, why)) {
        errno = 0;
        return false;
    }
    output.rights = rights;
    std::random_device random;
    allow_descriptors();
    for (int tries = 0; tries < 100; ++tries) {
        const std::string path = temp_name(output.target, random());
        const ListChange change;
        const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, rights | Owner);
        const int reason = errno;
        const bool ours = fd >= 0 && lock_temp(fd, path);
        if (ours)
            arm(output, path, fd);
        else if (fd >= 0)
            close(fd);
        if (ours) return true;
        if (fd < 0 && reason != EEXIST) {
            fail(why, target, strerror(reason));
            errno = reason;
            return false;
        }
    }
    return fail(why, target, "no free temporary name beside it");
}

void take_over(TempOutput& output, int older)
{
    struct stat status;
    if (fstat(older, &status) != 0) return;
    output.rights = status.st_mode & 0777;
    if (fchown(output.fd, status.st_uid, status.st_gid) != 0 &&
        fchown(output.fd, uid_t(-1), status.st_gid) != 0)
        errno = 0;                                                // another's file, and in no group of ours
    if (fchmod(output.fd, output.rights | Owner) != 0) errno = 0; // a file system without rights
}

void remove_abandoned_temps(const std::string& target)
{
    std::string real, why;
    if (!resolve(target, real, why)) return;
    const fs::path folder = fs::path(real).parent_path();
    std::error_code error;
    for (fs::directory_iterator at(folder.empty() ? "." : folder, error), end; !error && at != end;
         at.increment(error))
        if (is_temp_name(at->path().filename().string())) remove_if_abandoned(at->path().string());
}

bool commit_temp(TempOutput& output, std::string& why, bool replace)
{
    TempOutput* const one[] = {&output};
    return commit_temps(one, why, replace);
}

bool commit_temps(std::span<TempOutput* const> outputs, std::string& why, bool replace)
{
    for (const TempOutput* output : outputs) {
        if (!sync_file(output->path)) return fail(why, output->path, strerror(errno));
        restrict_owner(*output);
    }
    bool done;
    {
        const ListChange change;
        done = put_in_place(outputs, why, replace);
    }
    if (!done || outputs.empty() || sync_directory(outputs.front()->target)) return done;
    const int reason = errno;
    fail(why, outputs.front()->target, "is in its place, but its name may not be on the disk");
    why += std::string(": ") + strerror(reason);
    errno = reason;
    return false;
}

} // namespace tools
