#include <dirent.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>

#include "libos_internal.h"

static const int LINE_SIZE = 65535;
static const int PATH_SIZE = 260;
static const double KEEP_SECONDS = 604800; // seven days

// Both mutexes are ready at load: a report must not depend on memory, nor ask who comes first.
static LMutex s_log_buf_mtx = {PTHREAD_MUTEX_INITIALIZER};
static LMutex s_log_file_mtx = {PTHREAD_MUTEX_INITIALIZER};

static char s_log_buf[LINE_SIZE];
static int s_log_buf_idx = 0;
// Whether the thread that holds the buffer lock may be cancelled, once its line is out.
static int s_log_buf_cancel = PTHREAD_CANCEL_ENABLE;

static FILE* s_fp_log = nullptr;
static int s_log_file_day = -1;
static char s_log_path[PATH_SIZE];
static std::atomic<int> blWriteLog = -1;

// The log reports for everybody, so it uses none of them: not even their locks.
struct PlainGuard
{
    pthread_mutex_t& mutex;

    explicit PlainGuard(pthread_mutex_t& wanted) : mutex(wanted) { pthread_mutex_lock(&mutex); }
    PlainGuard(const PlainGuard&) = delete;
    PlainGuard& operator=(const PlainGuard&) = delete;
    ~PlainGuard() { pthread_mutex_unlock(&mutex); }
};

// A line being put together. Room for the line end and the terminator is kept free until it is finished.
struct Line
{
    char text[LINE_SIZE];
    int len = 0;

    int room() const { return LINE_SIZE - 2 - len; }
};

// ---- putting text together

// Format into at most room characters, terminator beyond them; returns how many were written.
static int format_cut(char* to, int room, const char* fmt, va_list args)
{
    const int wanted = vsnprintf(to, static_cast<size_t>(room) + 1, fmt, args);
    return std::clamp(wanted, 0, room);
}

static int print_cut(char* to, int room, const char* fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    const int len = format_cut(to, room, fmt, args);
    va_end(args);
    return len;
}

static struct tm local_now()
{
    const time_t now = time(nullptr);
    struct tm parts;
    tzset(); // localtime_r() does not look at TZ again
    if (!localtime_r(&now, &parts)) memset(&parts, 0, sizeof(parts));
    return parts;
}

static int print_date(char* to, int room)
{
    const struct tm t = local_now();
    return print_cut(to, room, "%04d-%02d-%02d %02d:%02d:%02d ", t.tm_year + 1900, t.tm_mon + 1, t.tm_mday,
                     t.tm_hour, t.tm_min, t.tm_sec);
}

static void add_text(Line& line, const char* fmt, va_list args)
{
    line.len += format_cut(line.text + line.len, line.room(), fmt, args);
}

static void add_error(Line& line, int error)
{
    line.len += print_cut(line.text + line.len, line.room(), ": %s", strerror(error));
}

// ---- clearing up the log directory

using IsOld = bool (*)(const char* path, const char* name, time_t now, bool& go_on);

static bool is_old_log(const char*, const char* name, time_t now, bool&)
{
    if (strncmp(name, "log_", 4) != 0) return false;

    char date[11] = {};
    memccpy(date, name + 4, 0, 10);
    struct tm day = {};
    if (!strptime(date, "%Y-%m-%d", &day)) return false;
    day.tm_isdst = -1;
    const time_t midnight = mktime(&day);
    return midnight != static_cast<time_t>(-1) && difftime(now, midnight) > KEEP_SECONDS;
}

static bool is_old_core(const char* path, const char* name, time_t now, bool& go_on)
{
    if (strncmp(name, "core.", 5) != 0) return false;

    struct stat status;
    if (stat(path, &status) != 0) {
        go_on = false;
        return false;
    }
    return difftime(now, status.st_mtime) > KEEP_SECONDS;
}

static void remove_old(IsOld is_old)
{
    char folder[PATH_SIZE + 1];
    snprintf(folder, sizeof(folder), "%s/", s_log_path[0] ? s_log_path : "/root/x1");
    DIR* listing = opendir(folder);
    if (!listing) return;

    const time_t now = time(nullptr);
    bool go_on = true;
    while (const struct dirent* entry = go_on ? readdir(listing) : nullptr) {
        if (entry->d_type != DT_REG) continue;

        char path[PATH_SIZE + sizeof(entry->d_name) + 1];
        snprintf(path, sizeof(path), "%s%s", folder, entry->d_name);
        if (is_old(path, entry->d_name, now, go_on)) remove(path);
    }
    closedir(listing);
}

// ---- the log file

// Decided once: the answer of the first report holds for the life of the process.
static bool goes_to_file()
{
    int answer = blWriteLog.load();
    if (answer == -1) {
        answer = access("dbg", F_OK) == 0 ? 1 : 0;
        blWriteLog.store(answer);
    }
    return answer == 1;
}

static void open_log_file(const struct tm& today)
{
    char name[PATH_SIZE + 48];
    snprintf(name, sizeof(name), "%slog_%04d-%02d-%02d", s_log_path, today.tm_year + 1900, today.tm_mon + 1,
             today.tm_mday);
    s_fp_log = fopen(name, "ae");
    s_log_file_day = today.tm_mday;
    remove_old(is_old_log);
    remove_old(is_old_core);
}

static void append_to_file(const Line& line)
{
    const struct tm today = local_now();
    const PlainGuard guard(s_log_file_mtx.mutex);
    if (s_fp_log && today.tm_mday != s_log_file_day) {
        fclose(s_fp_log);
        s_fp_log = nullptr;
    }
    if (!s_fp_log) open_log_file(today);
    if (!s_fp_log) return;

    fwrite(line.text, 1, static_cast<size_t>(line.len), s_fp_log);
    fflush(s_fp_log);
}

// A line that was cut keeps its line end.
static void finish_and_emit(Line& line)
{
    line.text[line.len++] = '\n';
    fflush(stdout);
    fwrite(line.text, 1, static_cast<size_t>(line.len), stderr);
    fflush(stderr);
    if (goes_to_file()) append_to_file(line);
}

// ---- lines in pieces

static void add_piece(const char* fmt, va_list args)
{
    s_log_buf_idx += format_cut(s_log_buf + s_log_buf_idx, LINE_SIZE - 1 - s_log_buf_idx, fmt, args);
}

// Returns what s_log_buf_cancel was.
static int take_pieces(Line& line)
{
    line.len = std::min(s_log_buf_idx, LINE_SIZE - 2);
    memcpy(line.text, s_log_buf, static_cast<size_t>(line.len));
    s_log_buf_idx = 0;
    const int cancel = s_log_buf_cancel;
    pthread_mutex_unlock(&s_log_buf_mtx.mutex);
    return cancel;
}

static const int NO_ERROR_TEXT = -1;

static void close_report(int error, const char* fmt, va_list args)
{
    Line line;
    const int cancel = take_pieces(line);
    add_text(line, fmt, args);
    if (error != NO_ERROR_TEXT) add_error(line, error);
    finish_and_emit(line);
    pthread_setcancelstate(cancel, nullptr);
}

// Up to the closing call the thread is not cancelled: see CancelGuard.
void log_buf_lock(void)
{
    ErrnoKeeper keeper;
    int cancel = PTHREAD_CANCEL_ENABLE;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &cancel);
    pthread_mutex_lock(&s_log_buf_mtx.mutex);
    s_log_buf_cancel = cancel;
}

void log_buf_date(void)
{
    ErrnoKeeper keeper;
    s_log_buf_idx += print_date(s_log_buf + s_log_buf_idx, LINE_SIZE - 1 - s_log_buf_idx);
}

void log_buf_msg(const char* fmt, ...)
{
    ErrnoKeeper keeper;
    va_list args;
    va_start(args, fmt);
    add_piece(fmt, args);
    va_end(args);
}

void log_buf_msg_unlock(const char* fmt, ...)
{
    ErrnoKeeper keeper;
    va_list args;
    va_start(args, fmt);
    close_report(NO_ERROR_TEXT, fmt, args);
    va_end(args);
}

void err_buf_msg_unlock(const char* fmt, ...)
{
    ErrnoKeeper keeper;
    va_list args;
    va_start(args, fmt);
    close_report(keeper.saved, fmt, args);
    va_end(args);
}

void log_buf_quit_unlock(const char* fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    close_report(NO_ERROR_TEXT, fmt, args);
    va_end(args);
    exit(1);
}

void err_buf_quit_unlock(const char* fmt, ...)
{
    const int error = errno;
    va_list args;
    va_start(args, fmt);
    close_report(error, fmt, args);
    va_end(args);
    exit(1);
}

// The names with an underscore are the same functions.
#define SAME_AS(name) __attribute__((alias(#name)))
extern "C" {
void _log_buf_msg(const char* fmt, ...) SAME_AS(log_buf_msg);
void _log_buf_msg_unlock(const char* fmt, ...) SAME_AS(log_buf_msg_unlock);
void _err_buf_msg_unlock(const char* fmt, ...) SAME_AS(err_buf_msg_unlock);
void _log_buf_quit_unlock(const char* fmt, ...) SAME_AS(log_buf_quit_unlock);
void _err_buf_quit_unlock(const char* fmt, ...) SAME_AS(err_buf_quit_unlock);
}

// ---- whole lines

static void write_line(bool dated, int error, const char* fmt, va_list args)
{
    const CancelGuard whole;
    Line line;
    if (dated) line.len = print_date(line.text, line.room());
    add_text(line, fmt, args);
    if (error != NO_ERROR_TEXT) add_error(line, error);
    finish_and_emit(line);
}

void log_msg(const char* fmt, ...)
{
    ErrnoKeeper keeper;
    va_list args;
    va_start(args, fmt);
    write_line(true, NO_ERROR_TEXT, fmt, args);
    va_end(args);
}

void err_msg(const char* fmt, ...)
{
    ErrnoKeeper keeper;
    va_list args;
    va_start(args, fmt);
    write_line(true, keeper.saved, fmt, args);
    va_end(args);
}

void log_quit(const char* fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    write_line(true, NO_ERROR_TEXT, fmt, args);
    va_end(args);
    exit(1);
}

void log_msg2(const char* fmt, ...)
{
    ErrnoKeeper keeper;
    va_list args;
    va_start(args, fmt);
    write_line(false, NO_ERROR_TEXT, fmt, args);
    va_end(args);
}

void err_msg2(const char* fmt, ...)
{
    ErrnoKeeper keeper;
    va_list args;
    va_start(args, fmt);
    write_line(false, keeper.saved, fmt, args);
    va_end(args);
}

void log_quit2(const char* fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    write_line(false, NO_ERROR_TEXT, fmt, args);
    va_end(args);
    exit(1);
}

// No error text: err_quit() says what log_quit() says.
extern "C" {
void err_quit(const char* fmt, ...) SAME_AS(log_quit);
void err_quit2(const char* fmt, ...) SAME_AS(log_quit2);
}

// ---- date and path

void log_date(void)
{
    ErrnoKeeper keeper;
    char stamp[64];
    const int len = print_date(stamp, static_cast<int>(sizeof(stamp)) - 1);
    fflush(stdout);
    fwrite(stamp, 1, static_cast<size_t>(len), stderr);
    fflush(stderr);
}

void log_set_path(char* path)
{
    snprintf(s_log_path, sizeof(s_log_path), "%s", path ? path : "");
}

void log_get_path(char* path)
{
    if (path) memcpy(path, s_log_path, strlen(s_log_path) + 1);
}
