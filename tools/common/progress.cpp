#include "progress.h"
#include "human.h"

#include <algorithm>
#include <cstdio>

#include <sys/ioctl.h>
#include <unistd.h>

namespace tools {
namespace {

constexpr size_t FigureWidth = 40;

size_t terminal_width()
{
    winsize size{};
    return ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col : 80;
}

// The end of a name tells more than its beginning. Bytes that go on a UTF-8 character take no column.
std::string last_columns(const std::string& text, size_t columns)
{
    size_t at = text.size();
    while (at > 0 && columns > 0)
        if ((uint8_t(text[--at]) & 0xC0) != 0x80) --columns;
    return text.substr(at);
}

std::string figures(const Running& running)
{
    const double speed = running.seconds > 0 ? double(running.done) / running.seconds : 0;
    char text[80];
    if (running.total == 0) {
        snprintf(text, sizeof(text), "%10s %7.1f MB/s", human_bytes(running.done).c_str(), speed / 1e6);
        return text;
    }
    const uint64_t done = std::min(running.done, running.total);
    const std::string left = speed > 0 ? human_duration(double(running.total - done) / speed) : "-:--";
    snprintf(text, sizeof(text), "%3d%% %7.1f MB/s %8s left", int(done * 100 / running.total), speed / 1e6,
             left.c_str());
    return text;
}

} // namespace

void draw_progress(Progress& progress, const std::vector<Running>& running)
{
    if (!progress.shown) return;
    const size_t width = terminal_width();
    wipe_progress(progress);
    for (const Running& one : running)
        fprintf(stderr, "%s  %s\n", figures(one).c_str(),
                last_columns(printable(one.name), width > FigureWidth ? width - FigureWidth : 1).c_str());
    progress.lines = running.size();
    fflush(stderr);
}

void wipe_progress(Progress& progress)
{
    if (progress.lines) fprintf(stderr, "\033[%zuA\r\033[J", progress.lines);
    progress.lines = 0;
    fflush(stderr);
}

} // namespace tools
