#include "temp_output.h"

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <random>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tools {
namespace {

constexpr int EndSignals[] = {SIGINT, SIGTERM, SIGHUP};

// What the signal handler removes: it can know nothing but a static.
char s_doomed[PATH_MAX];

void end_by_signal(int number)
{
    // Another thread may be about to open the file; once it is removed nobody shall create it again.
    const rlimit none{0, 0};
    setrlimit(RLIMIT_NOFILE, &none);
    unlink(s_doomed);
    _exit(128 + number);
}

void block_signals(bool block)
{
    sigset_t set;
    sigemptyset(&set);
    for (int number : EndSignals) sigaddset(&set, number);
    pthread_sigmask(block ? SIG_BLOCK : SIG_UNBLOCK, &set, nullptr);
}

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

bool resolve(const std::string& name, std::string& target, std::string& why)
{
    std::error_code error;
    target = name;
    if (std::filesystem::is_symlink(name, error)) {
        const auto real = std::filesystem::canonical(name, error);
        if (error) return fail(why, name, "a symbolic link that leads nowhere");
        target = real.string();
    }
    struct stat status;
    if (stat(target.c_str(), &status) < 0) return true;
    if (S_ISDIR(status.st_mode)) return fail(why, name, "is a directory");
    if (!S_ISREG(status.st_mode)) return fail(why, name, "is no regular file");
    return true;
}

// Removes the directory entry's risk of being lost with the power; that it cannot is no reason to fail.
void sync_directory(const std::string& file)
{
    const size_t slash = file.rfind('/');
    const std::string directory = slash == std::string::npos ? "." : file.substr(0, slash + 1);
    const int fd = open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return;
    fsync(fd);
    close(fd);
}

bool sync_file(const std::string& path)
{
    const int fd = open(path.c_str(), O_RDWR | O_CLOEXEC);
    if (fd < 0) return false;
    const bool synced = fsync(fd) == 0;
    const int reason = errno;
    close(fd);
    errno = reason;
    return synced;
}

void disarm(TempOutput& output)
{
    watch_signals(SIG_DFL);
    s_doomed[0] = '\0';
    output.path.clear();
}

} // namespace

TempOutput::~TempOutput()
{
    if (path.empty()) return;
    unlink(path.c_str());
    disarm(*this);
}

bool create_temp(TempOutput& output, const std::string& target, std::string& why)
{
    if (!resolve(target, output.target, why)) return false;
    std::random_device random;
    for (int tries = 0; tries < 100; ++tries) {
        char suffix[8];
        snprintf(suffix, sizeof(suffix), ".%06x", random() & 0xFFFFFF);
        const std::string path = output.target + suffix;
        if (path.size() >= sizeof(s_doomed)) return fail(why, target, strerror(ENAMETOOLONG));
        block_signals(true);
        const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
        const int reason = errno;
        if (fd >= 0) {
            close(fd);
            output.path = path;
            memcpy(s_doomed, path.c_str(), path.size() + 1);
            watch_signals(end_by_signal);
        }
        block_signals(false);
        if (fd >= 0) return true;
        if (reason != EEXIST) return fail(why, target, strerror(reason));
    }
    return fail(why, target, "no free temporary name beside it");
}

bool commit_temp(TempOutput& output, std::string& why)
{
    if (!sync_file(output.path)) return fail(why, output.path, strerror(errno));
    block_signals(true);
    const bool renamed = rename(output.path.c_str(), output.target.c_str()) == 0;
    const int reason = errno;
    if (renamed) disarm(output);
    block_signals(false);
    if (!renamed) return fail(why, output.target, strerror(reason));
    sync_directory(output.target);
    return true;
}

} // namespace tools
