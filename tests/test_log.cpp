#include <sys/stat.h>
#include <unistd.h>
#include <utime.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <regex>
#include <sstream>
#include <thread>

#include "support.h"

static const char* const stamp = R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d )";

static std::string log_name(int daysAgo)
{
    const time_t when = time(nullptr) - daysAgo * 86400L;
    tm day = {};
    char name[32];
    localtime_r(&when, &day);
    strftime(name, sizeof(name), "log_%Y-%m-%d", &day);
    return name;
}

// Lines of a fresh process that works in dir: whether they go to a file is decided at its first report.
static std::string log_in(const TempDir& dir, const std::string& path, const std::function<void()>& work)
{
    return written_to(2, [&] {
        EXPECT_EQ(in_child([&] {
                      if (chdir(dir.path.c_str()) != 0) return 1;
                      log_set_path(text(path));
                      work();
                      return 0;
                  }),
                  0);
    });
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
    EXPECT_EQ(text_of(dir / log_name(0)), lines);
    lines += log_in(dir, dir / "", two_lines);
    EXPECT_EQ(text_of(dir / log_name(0)), lines);
    if (exists("/root/x1")) GTEST_SKIP() << "an empty path would clean up in /root/x1";
    lines += log_in(dir, "", two_lines);
    EXPECT_EQ(text_of(dir / log_name(0)), lines);
}

struct Leftover
{
    std::string name;
    int daysOld; // by its modification time
    char kind;   // f regular file, d directory, l symbolic link
    bool stays;
};

TEST(LogFileDeathTest, OldFilesAreCleanedUp)
{
    const Leftover rows[] = {
        {"log_2000-01-01", 0, 'f', false}, {"log_2000-01-03.old", 0, 'f', false},
        {log_name(9), 0, 'f', false},      {log_name(6), 30, 'f', true},
        {log_name(1), 30, 'f', true},      {"log_notadate", 30, 'f', true},
        {"log_", 30, 'f', true},           {"log_2000-01-02", 30, 'd', true},
        {"log_2000-01-04", 0, 'l', true},  {"alog_2000-01-01", 30, 'f', true},
        {"core.123", 8, 'f', false},       {"core.", 8, 'f', false},
        {"core.124", 6, 'f', true},        {"core.dir", 8, 'd', true},
        {"core", 30, 'f', true},           {"acore.1", 30, 'f', true},
    };
    // Without the slash the files lie beside the directory that is cleaned up.
    for (const std::string end : {"/", ""}) {
        TempDir dir;
        const std::string logs = dir / "logs";
        ASSERT_EQ(mkdir(logs.c_str(), 0755), 0);
        write_file(dir / "dbg", {});
        write_file(dir / "logslog_2000-01-01", {});
        for (const Leftover& row : rows) {
            const std::string path = logs + "/" + row.name;
            if (row.kind == 'd')
                mkdir(path.c_str(), 0755);
            else if (row.kind == 'l')
                ASSERT_EQ(symlink("../dbg", path.c_str()), 0);
            else
                write_file(path, {});
            const time_t when = time(nullptr) - row.daysOld * 86400L;
            const utimbuf times = {when, when};
            if (row.kind != 'l') utime(path.c_str(), &times);
        }
        const std::string line = log_in(dir, logs + end, [] { log_msg("line"); });
        EXPECT_EQ(text_of(logs + end + log_name(0)), line);
        EXPECT_TRUE(exists(dir / "logslog_2000-01-01"));
        for (const Leftover& row : rows)
            EXPECT_EQ(exists(logs + "/" + row.name), row.stays) << row.name << end;
    }
}

struct Line
{
    const char* what;
    void (*write)();
    const char* body;
    bool dated, error, quits;
};

TEST(LogLines, ShapesAndExits)
{
    const auto report = [] {
        log_buf_lock(), log_buf_date(), log_buf_msg("%s", "be"), _log_buf_msg("%c", 'f');
    };
    static void (*const begin)() = report;
    const Line rows[] = {
        {"log_msg", [] { log_msg("a%d", 5); }, "a5", true, false, false},
        {"err_msg", [] { err_msg("a%d", 5); }, "a5", true, true, false},
        {"log_quit", [] { log_quit("a%d", 5); }, "a5", true, false, true},
        {"err_quit", [] { err_quit("a%d", 5); }, "a5", true, false, true},
        {"log_msg2", [] { log_msg2("a%d", 5); }, "a5", false, false, false},
        {"err_msg2", [] { err_msg2("a%d", 5); }, "a5", false, true, false},
        {"log_quit2", [] { log_quit2("a%d", 5); }, "a5", false, false, true},
        {"err_quit2", [] { err_quit2("a%d", 5); }, "a5", false, false, true},
        {"log_buf", [] { begin(), log_buf_msg_unlock("%s", "ore"); }, "before", true, false, false},
        {"err_buf", [] { begin(), err_buf_msg_unlock("%s", "ore"); }, "before", true, true, false},
        {"log_buf_quit", [] { begin(), log_buf_quit_unlock("%s", "ore"); }, "before", true, false, true},
        {"err_buf_quit", [] { begin(), err_buf_quit_unlock("%s", "ore"); }, "before", true, true, true},
        {"_log_buf", [] { begin(), _log_buf_msg_unlock("%s", "ore"); }, "before", true, false, false},
        {"_err_buf", [] { begin(), _err_buf_msg_unlock("%s", "ore"); }, "before", true, true, false},
        {"_log_buf_quit", [] { begin(), _log_buf_quit_unlock("%s", "ore"); }, "before", true, false, true},
        {"_err_buf_quit", [] { begin(), _err_buf_quit_unlock("%s", "ore"); }, "before", true, true, true},
    };
    for (const Line& row : rows) {
        int status = -1;
        const std::string line = written_to(2, [&] {
            status = in_child([&] {
                errno = ENOENT;
                row.write();
                return errno == ENOENT ? 7 : 8;
            });
        });
        EXPECT_EQ(status, row.quits ? 1 : 7) << row.what;
        const std::string error = row.error ? std::string(": ") + strerror(ENOENT) : "";
        const std::regex shape((row.dated ? stamp : "") + std::string(row.body) + error + "\n");
        EXPECT_TRUE(std::regex_match(line, shape)) << row.what << ": " << line;
    }
}

TEST(LogLines, LongLinesAreCutAndKeepTheirEnd)
{
    static const std::string tooLong(70000, 'x');
    static const char* const many = tooLong.c_str();
    void (*const writers[])() = {
        [] { log_msg("%s", many); },
        [] { err_msg("%s", many); },
        [] { log_msg2("%s", many); },
        [] { log_buf_lock(), log_buf_msg_unlock("%s", many); },
        [] { log_buf_lock(), log_buf_msg("%s", many), log_buf_date(), err_buf_msg_unlock("%s", many); },
        [] {
            log_buf_lock(), log_buf_msg("%40000s", many), log_buf_msg("%.40000s", many),
                log_buf_msg_unlock("end");
        },
    };
    for (const auto& writer : writers) {
        const std::string line = written_to(2, [&] { writer(), log_msg2("next"); });
        ASSERT_EQ(line.substr(line.size() - 6), "\nnext\n");
        EXPECT_EQ(line.find('\n'), line.size() - 6);
        EXPECT_GE(line.size() - 5, 65500u);
        EXPECT_LE(line.size() - 5, 65535u);
    }
}

TEST(LogLines, ThreadsDoNotMixTheirLines)
{
    const std::string all = written_to(2, [] {
        two_at_once([](int who) {
            for (int i = 0; i < 200; ++i) {
                log_msg("%s", std::string(50, char('a' + who)).c_str());
                log_buf_lock();
                log_buf_date();
                log_buf_msg("%s", std::string(30, char('a' + who)).c_str());
                log_buf_msg_unlock("%s", std::string(20, char('a' + who)).c_str());
            }
        });
    });
    std::istringstream lines(all);
    const std::regex whole(std::string(stamp) + "(a{50}|b{50})");
    int count = 0;
    for (std::string line; std::getline(lines, line); ++count)
        EXPECT_TRUE(std::regex_match(line, whole)) << line;
    EXPECT_EQ(count, 800);
}

TEST(LogLines, DateAlone)
{
    const std::string line = written_to(2, [] { log_date(); });
    EXPECT_TRUE(std::regex_match(line, std::regex(stamp))) << line;
}

TEST(LogLines, PathHoldsUpTo259Characters)
{
    char got[261];
    for (const size_t length : {0, 1, 258, 259, 260, 5000}) {
        memset(got, '#', sizeof(got));
        const std::string path(length, 'p');
        log_set_path(text(path));
        log_get_path(got);
        EXPECT_EQ(got, path.substr(0, 259));
        EXPECT_EQ(got[260], '#');
    }
    log_set_path(nullptr);
    log_get_path(got);
    EXPECT_STREQ(got, "");
}
