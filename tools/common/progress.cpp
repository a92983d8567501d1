#include "progress.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <string>
#include <system_error>

#include <unistd.h>

namespace tools {
namespace {

constexpr int Width = 40;

void draw(int percent)
{
    percent = std::clamp(percent, 0, 100);
    const std::string done(size_t(percent * Width / 100), '#');
    fprintf(stderr, "\r[%-*s] %3d%%", Width, done.c_str(), percent);
    fflush(stderr);
}

void run(Progress& progress, int (*percent)())
{
    std::unique_lock guard(progress.lock);
    while (!progress.ended.wait_for(guard, std::chrono::milliseconds(100), [&] { return progress.over; }))
        draw(percent());
    fprintf(stderr, "\r%*s\r", Width + 7, "");
    fflush(stderr);
}

} // namespace

Progress::~Progress()
{
    if (!drawer.joinable()) return;
    {
        std::lock_guard guard(lock);
        over = true;
    }
    ended.notify_one();
    drawer.join();
}

void start_progress(Progress& progress, int (*percent)())
{
    if (!isatty(STDERR_FILENO)) return;
    try {
        progress.drawer = std::thread(run, std::ref(progress), percent);
    } catch (const std::system_error&) {
        // no bar then: the work is what counts
    }
}

} // namespace tools
