#include <sys/stat.h>
#include <utime.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <map>
#include <regex>

#include "net_support.h"

using namespace std::string_literals;

static const std::string stamp = "0000-00-00 00:00:00 ";

static std::string with_zeros(const std::string& text) // for every digit
{
    return std::regex_replace(text, std::regex("[0-9]"), "0");
}

static std::string log_name(int daysAgo)
{
    const time_t when = time(nullptr) - daysAgo * 86400L;
    tm day = {};
    char name[32];
    strftime(name, sizeof(name), "log_%Y-%m-%d", localtime_r(&when, &day));
    return name;
}

// Lines of a fresh process that works in dir: whether they go to a file is decided at its first report.
static std::string log_in(const TempDir& dir, const std::string& path, const std::function<void()>& work)
{
    const Told lines = told(2, [&] {
        return in_child([&] {
            if (chdir(dir.path.c_str()) != 0) return 1;
            log_set_path(text(path));
            work();
            return testing::Test::HasFailure() ? 2 : 0;
        });
    });
    EXPECT_EQ(lines.first, 0) << lines.second;
    return lines.second;
}

static std::string text_of(const std::string& path)
{
    const Bytes bytes = read_file(path);
    return std::string(bytes.begin(), bytes.end());
}

// Named so that the runner takes it first, before this process has made a report of its own.
TEST(LogFileDeathTest, EntryNamedDbgSwitchesFileOn)
{
    TempDir dir;
    const auto two_lines = [] {
        log_msg("first");
        write_file("dbg", {});
        log_msg2("second");
    };
    log_in(dir, dir / "", two_lines);
    EXPECT_FALSE(exists(dir / log_name(0))) << "decided at the first report";
    std::string lines = log_in(dir, dir / "", two_lines);
    lines += log_in(dir, dir / "", two_lines);
    if (!exists("/root/x1")) lines += log_in(dir, "", two_lines); // an empty path cleans up there
    EXPECT_EQ(text_of(dir / log_name(0)), lines);
}

TEST(LogFileDeathTest, OldFilesAreCleanedUp)
{
    // Name, age in days by its time, file, directory or symbolic link, and whether it stays.
    const std::tuple<std::string, int, char, bool> rows[] = {
        {"log_2000-01-01", 0, 'f', false}, {"log_2000-01-03.old", 0, 'f', false},
        {log_name(9), 0, 'f', false},      {log_name(6), 30, 'f', true},
        {"log_notadate", 30, 'f', true},   {"log_2000-01-02", 30, 'd', true},
        {"log_2000-01-04", 0, 'l', true},  {"alog_2000-01-01", 30, 'f', true},
        {"log_2000-02-30", 0, 'f', false}, {"log_2000-13-01", 30, 'f', true},
        {"log_20000101", 30, 'f', true},   {"log_2000-1-1", 0, 'f', false},
        {"core.123", 8, 'f', false},       {"core.", 8, 'f', false},
        {"core.124", 6, 'f', true},        {"core.dir", 8, 'd', true},
        {"core", 30, 'f', true},           {"acore.1", 30, 'f', true},
    };
    for (const std::string end : {"/", ""}) { // without the slash the files lie beside what is cleaned up
        TempDir dir;
        const std::string logs = dir / "logs";
        ASSERT_EQ(mkdir(logs.c_str(), 0755), 0);
        write_file(dir / "dbg", {});
        write_file(dir / "logslog_2000-01-01", {});
        for (const auto& [name, days, kind, stays] : rows) {
            const std::string path = logs + "/" + name;
            if (kind == 'f') write_file(path, {});
            if (kind == 'd') mkdir(path.c_str(), 0755);
            EXPECT_TRUE(kind != 'l' || symlink("../dbg", path.c_str()) == 0);
            const time_t when = time(nullptr) - days * 86400L;
            const utimbuf times = {when, when};
            if (kind != 'l') utime(path.c_str(), &times);
        }
        const std::string line = log_in(dir, logs + end, [] { log_msg("line"); });
        EXPECT_EQ(text_of(logs + end + log_name(0)), line);
        EXPECT_TRUE(exists(dir / "logslog_2000-01-01"));
        for (const auto& [name, days, kind, stays] : rows)
            EXPECT_EQ(exists(logs + "/" + name), stays) << name << end;
    }
}

// With a clock of ours preloaded: a line, then the clock moves on, or back.
TEST(LogClock, EachDayHasItsFile)
{
    const std::string rows[][3] = {
        // now, the file, and what is left of those of the 22nd, 24th and 26th
        {"2026-11-30 23:59:59", "log_2026-11-30", "46"}, {"2026-12-01 00:00:00", "log_2026-12-01", "46"},
        {"2026-11-30 00:00:00", "log_2026-11-30", "46"}, {"2026-12-02 12:00:00", "log_2026-12-02", "6"},
        {"2027-01-02 00:00:00", "log_2026-12-02", "6"}, // the day's number has not changed
        {"2027-01-03 00:00:00", "log_2027-01-03", ""},
    };
    TempDir dir;
    for (const std::string name : {"dbg", "log_2026-11-22", "log_2026-11-24", "log_2026-11-26"})
        write_file(dir / name, {});
    std::map<std::string, std::string> want;
    log_in(dir, dir / "", [&] {
        for (const auto& [now, file, left] : rows) {
            setenv("FAKETIME", now.c_str(), 1);
            want[file] += written_to(2, [&] { log_msg("line"); });
            EXPECT_EQ(text_of(dir / file), want[file]) << now;
            for (const char day : "246"s)
                EXPECT_EQ(exists(dir / ("log_2026-11-2"s + day)), left.find(day) != left.npos) << now << day;
        }
        EXPECT_EQ(want["log_2026-11-30"].substr(0, 39), "2026-11-30 23:59:59 line\n2026-11-30 00:");
    });
}

TEST(LogLines, ShapesAndExits)
{
    using Writer = void (*)(const char* fmt, ...);
    // They write lines in pieces, dated, with an error text; they quit.
    const std::pair<std::string, std::vector<Writer>> rows[] = {
        {"d", {log_msg}},
        {"de", {err_msg}},
        {"dq", {log_quit, err_quit}},
        {"", {log_msg2}},
        {"e", {err_msg2}},
        {"q", {log_quit2, err_quit2}},
        {"pd", {log_buf_msg_unlock, _log_buf_msg_unlock}},
        {"pde", {err_buf_msg_unlock, _err_buf_msg_unlock}},
        {"pdq", {log_buf_quit_unlock, _log_buf_quit_unlock}},
        {"pdeq", {err_buf_quit_unlock, _err_buf_quit_unlock}},
    };
    for (const auto& [traits, writers] : rows)
        for (const Writer& write : writers) {
            const auto is = [&traits = traits](char trait) { return traits.find(trait) != traits.npos; };
            const auto [status, line] = told(2, [&, &write = write] {
                return in_child([&] {
                    errno = ENOENT;
                    if (is('p'))
                        log_buf_lock(), log_buf_date(), log_buf_msg("%s", "be"), _log_buf_msg("%c", 'f');
                    write("%s%d", "ore", 5);
                    return errno == ENOENT ? 7 : 8;
                });
            });
            const std::string want = (is('d') ? stamp : "") + (is('p') ? "bef" : "") + "ore0" +
                                     (is('e') ? std::string(": ") + strerror(ENOENT) : "") + "\n";
            EXPECT_EQ(std::pair(status, with_zeros(line)), std::pair(is('q') ? 1L : 7L, want)) << traits;
        }
    EXPECT_EQ(with_zeros(written_to(2, log_date)), stamp);
}

TEST(LogLines, LongLinesAreCutAndKeepTheirEnd)
{
    static const std::string many_of_them(70000, 'x');
    static const char* const many = many_of_them.c_str();
    void (*const writers[])() = {
        [] { err_msg("%s", many); },
        [] { log_buf_lock(), log_buf_msg("%s", many), log_buf_date(), err_buf_msg_unlock("%s", many); },
        [] { log_buf_lock(), log_buf_msg("%40000s", many), log_buf_msg_unlock("%.40000s", many); },
    };
    for (const auto& writer : writers) {
        const std::string lines = written_to(2, [&] { writer(), log_msg2("next"); });
        const size_t end = lines.find('\n');
        EXPECT_EQ(lines.substr(end), "\nnext\n");
        EXPECT_EQ(end, 65533u);
    }
}

TEST(LogLines, FollowTheZone)
{
    std::string hours;
    for (const char* zone : {"UTC0", "EAST-5", "WEST+5"}) {
        setenv("TZ", zone, 1);
        const std::string line = written_to(2, [] { log_msg("line"); });
        hours += std::to_string((std::stoi(line.substr(11, 2)) + 24 - time(nullptr) / 3600 % 24) % 24) + " ";
    }
    EXPECT_EQ(hours, "0 5 19 ");
}

TEST(LogLines, ThreadsDoNotMixTheirLines)
{
    const std::string all = written_to(2, [] {
        two_at_once([](int who) {
            const std::string half(30, char('a' + who));
            for (int i = 0; i < 200; ++i) {
                log_msg("%s%s", half.c_str(), half.c_str());
                log_buf_lock(), log_buf_date(), log_buf_msg("%s", half.c_str());
                log_buf_msg_unlock("%s", half.c_str());
            }
        });
    });
    for (const char who : {'a', 'b'})
        EXPECT_EQ(count_of(with_zeros(all), stamp + std::string(60, who) + "\n"), 400) << all;
}

TEST(LogLines, PathHoldsUpTo259Characters)
{
    for (const size_t length : {0, 259, 260, 5000}) {
        std::string got(261, '#');
        const std::string path(length, 'p');
        log_set_path(length ? text(path) : nullptr);
        log_get_path(got.data());
        EXPECT_EQ(got.c_str(), path.substr(0, 259));
        EXPECT_EQ(got[260], '#');
    }
}
