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
#include <random>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tools {
namespace {

constexpr int EndSignals[] = {SIGINT, SIGTERM, SIGHUP};

// What the signal handler removes: it can know nothing but a static. Changed with the signals blocked.
TempOutput* s_first;

void end_by_signal(int number)
{
    // Another thread may be about to open the file; once it is removed nobody shall create it again.
    const rlimit none{0, 0};
    setrlimit(RLIMIT_NOFILE, &none);
    for (const TempOutput* doomed = s_first; doomed; doomed = doomed->next) unlink(doomed->path.c_str());
    _exit(128 + number);
}

// A thread that leaves the signals to another one goes on leaving them.
struct SignalsBlocked
{
    sigset_t before;

    SignalsBlocked()
    {
        sigset_t set;
        sigemptyset(&set);
        for (int number : EndSignals) sigaddset(&set, number);
        pthread_sigmask(SIG_BLOCK, &set, &before);
    }
    SignalsBlocked(const SignalsBlocked&) = delete;
    SignalsBlocked& operator=(const SignalsBlocked&) = delete;
    ~SignalsBlocked() { pthread_sigmask(SIG_SETMASK, &before, nullptr); }
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

void arm(TempOutput& output, const std::string& path)
{
    output.path = path;
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
}

// A name beside the target, which may itself be as long as names can be.
std::string temp_name(const std::string& target, unsigned number)
{
    char suffix[8];
    const auto length = size_t(snprintf(suffix, sizeof(suffix), ".%06x", number & 0xFFFFFF));
    const size_t name = target.rfind('/') + 1;
    return target.substr(0, name + std::min(target.size() - name, NAME_MAX - length)) + suffix;
}

// All or none; only what replaced an older file cannot be taken back.
bool put_in_place(std::span<TempOutput* const> outputs, std::string& why, bool replace)
{
    for (size_t i = 0; i < outputs.size(); ++i) {
        const TempOutput& output = *outputs[i];
        if (replace ? rename(output.path.c_str(), output.target.c_str()) == 0
                    : rename_new(output.path, output.target))
            continue;
        fail(why, output.target, strerror(errno));
        for (size_t before = 0; before < i && !replace; ++before) unlink(outputs[before]->target.c_str());
        return false;
    }
    for (TempOutput* output : outputs) disarm(*output);
    return true;
}

} // namespace

TempOutput::~TempOutput()
{
    if (path.empty()) return;
    const SignalsBlocked blocked;
    unlink(path.c_str());
    disarm(*this);
}

bool is_taken(const std::string& name, std::string& why)
{
    return exists(name) && !fail(why, name, "exists already (--overwrite replaces it)");
}

bool create_temp(TempOutput& output, const std::string& target, std::string& why)
{
    if (!resolve(target, output.target, why)) return false;
    std::random_device random;
    for (int tries = 0; tries < 100; ++tries) {
        const std::string path = temp_name(output.target, random());
        const SignalsBlocked blocked;
        const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
        const int reason = errno;
        if (fd >= 0) {
            close(fd);
            arm(output, path);
        }
        if (fd >= 0) return true;
        if (reason != EEXIST) return fail(why, target, strerror(reason));
    }
    return fail(why, target, "no free temporary name beside it");
}

bool commit_temp(TempOutput& output, std::string& why, bool replace)
{
    TempOutput* const one[] = {&output};
    return commit_temps(one, why, replace);
}

bool commit_temps(std::span<TempOutput* const> outputs, std::string& why, bool replace)
{
    for (const TempOutput* output : outputs)
        if (!sync_file(output->path)) return fail(why, output->path, strerror(errno));
    bool done;
    {
        const SignalsBlocked blocked;
        done = put_in_place(outputs, why, replace);
    }
    if (done && !outputs.empty()) sync_directory(outputs.front()->target);
    return done;
}

} // namespace tools
