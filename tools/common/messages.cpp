#include "messages.h"

#include "libos.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <functional>
#include <string_view>
#include <system_error>

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tools {
namespace {

constexpr size_t Takes = 4096; // bytes, without waiting, of a pipe that can be written to
constexpr size_t LongestLine = 65536;

// Standard error is shared with other programs, which rely on its waiting. A pipe or a terminal can be opened
// once more, to be written to without that; a socket can be asked each time.
int open_target()
{
    struct stat status;
    int fd = -1;
    if (fstat(STDERR_FILENO, &status) == 0 && (S_ISFIFO(status.st_mode) || S_ISCHR(status.st_mode)))
        fd = open("/proc/self/fd/2", O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    return fd >= 0 ? fd : fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
}

ssize_t write_some(int fd, std::string_view text)
{
    const ssize_t sent = send(fd, text.data(), text.size(), MSG_DONTWAIT);
    return sent >= 0 || errno != ENOTSOCK ? sent : write(fd, text.data(), text.size());
}

bool put(const Messages& messages, std::string_view text)
{
    while (!text.empty()) {
        pollfd waiting = {messages.target, POLLOUT, 0};
        if (poll(&waiting, 1, messages.patience) != 1) return false;
        const ssize_t count = write_some(messages.target, text.substr(0, Takes));
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) return false;
        text.remove_prefix(size_t(count));
    }
    return true;
}

// A reader who has come back learns first what he has missed.
bool put_line(Messages& messages, const std::string& line)
{
    const std::string sum = "(" + std::to_string(messages.missed) + " lines could not be written here)\n";
    if (messages.missed && !put(messages, messages.lineStart + sum)) return false;
    messages.missed = 0;
    return put(messages, messages.lineStart + line);
}

void put_lines(Messages& messages)
{
    constexpr int Patience = 1000;
    for (size_t end; (end = messages.held.find('\n')) != std::string::npos; messages.held.erase(0, end + 1)) {
        const bool taken = put_line(messages, messages.held.substr(0, end + 1));
        messages.patience = taken ? Patience : 0;
        if (!taken) ++messages.missed;
    }
    if (messages.held.size() > LongestLine) messages.held.clear();
}

void hand_on(Messages& messages)
{
    char block[16384];
    for (ssize_t got; (got = read(messages.source, block, sizeof(block))) != 0;) {
        if (got < 0 && errno != EINTR) break;
        messages.held.append(block, got > 0 ? size_t(got) : 0);
        put_lines(messages);
    }
    if (!messages.held.empty()) messages.held += '\n';
    put_lines(messages);
}

} // namespace

Messages::Messages(const std::string& startOfLine) : lineStart(startOfLine)
{
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) return;
    source = ends[0];
    fcntl(ends[1], F_SETFL, O_NONBLOCK);
    target = open_target();
    before = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    try {
        if (target >= 0 && before >= 0) thread = std::thread(hand_on, std::ref(*this));
    } catch (const std::system_error&) {
    }
    if (thread.joinable()) dup2(ends[1], STDERR_FILENO);
    close(ends[1]);
}

Messages::~Messages()
{
    if (thread.joinable()) {
        dup2(before, STDERR_FILENO); // the pipe's last writer has gone: the thread ends
        thread.join();
    }
    for (const int fd : {target, before, source})
        if (fd >= 0) close(fd);
}

// Neither a file nor a directory can be opened below it.
void write_no_log_files()
{
    char nowhere[] = "/dev/null/";
    log_set_path(nowhere);
}

} // namespace tools
