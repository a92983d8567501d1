// Every call that the library makes of the C library fails in turn, breaks off or does half of its work: the
// result is the documented one, nothing leaks or stays behind, and the next work in the process succeeds.
#include <fcntl.h>
#include <unistd.h>

#include <filesystem>
#include <iostream>

#include "../net_support.h"
#include "faulty_calls.h"
#include "report_text.h"

static const int NEVER_STRUCK = 41;

static bool s_may_leak; // in a child

using Scenario = void (*)(const TempDir&, const Plan&);

static int failures()
{
    return testing::UnitTest::GetInstance()->current_test_info()->result()->total_part_count();
}

// n = 1, 2, 3 ..., a process for each, until no call is the n-th any more.
static void walk(const char* what, Plan plan, Scenario scenario)
{
    SCOPED_TRACE(what);
    const int before = failures();
    for (plan.n = 1; plan.n < 5000 && failures() < before + 5; ++plan.n) {
        TempDir dir;
        const auto child = [&]() -> int {
            const int at_fork = failures();
            alarm(120);
            dup2(2, 1);
            scenario(dir, plan);
            const int status = failures() > at_fork ? 3 : CAME_TO_ITS_END;
            fflush(nullptr);
            s_may_leak ? _exit(status) : exit(status); // the second one looks for leaks
        };
        const auto [ended, said] = told(2, [&] { return in_child(child); });
        if (ended == NEVER_STRUCK) break;
        if (ended != CAME_TO_ITS_END && said.find("fcntl sock") != std::string::npos)
            continue; // no socket may block the loop
        EXPECT_EQ(ended, CAME_TO_ITS_END) << "n = " << plan.n << '\n' << said;
    }
    const bool rare = plan.fault == Fault::halved || plan.fault == Fault::interrupted; // not inside libc
    EXPECT_TRUE(plan.n > 1 || rare);
}

static const char* struck()
{
    end_faults();
    const char* call = struck_call();
    if (!call) _exit(NEVER_STRUCK);
    std::cerr << call << " was struck\n";
    return call;
}

static int open_descriptors()
{
    int count = 0;
    for (int fd = 0; fd < 256; ++fd) count += fcntl(fd, F_GETFD) != -1;
    return count;
}

// ---- recordings

static Bytes s_recording, s_avi; // the one that is worked on, and what it gives

static Bytes converted(const TempDir& dir)
{
    write_file(dir / "next in", s_recording);
    EXPECT_EQ(convert(dir / "next in", dir / "next"), done);
    return read_file(dir / "next");
}

static void take_up(const Frames& frames)
{
    TempDir dir;
    s_recording = recording(frames);
    s_avi = converted(dir);
    expect_sound(dir / "next");
}

// More than one read window.
static Frames large_frames()
{
    return {with_audio(picture(1, 300000, 0), 2, {}, {}), picture(2, 270001), picture(3, 9)};
}

// ---- converting and recording

// The work directory may be moved or emptied while it is converted, as may the input.
static void convert_under(const TempDir& dir, const Plan& plan)
{
    const std::string in = dir / "work/in", out = dir / "work/out";
    EXPECT_EQ(chdir(dir.path.c_str()) | mkdir("work", 0700), 0);
    write_file(in, s_recording);
    const int before = open_descriptors();
    begin_faults(plan);
    const int result = KtConvert_SDVtoAVI(text(in), text(out));
    const std::string call = struck();
    const int position = g_tSdv2Avi.m_iPosition;
    const bool is_told_short = call == "read" && tools::conversion_report().u64BytesUnreadable > 0;
    if (result != 0 || position != 100) {
        EXPECT_TRUE(plan.fault == Fault::failing || plan.fault == Fault::disturbed);
        EXPECT_TRUE(result == -1 || (position <= -1 && position >= -4)) << result << ' ' << position;
        EXPECT_TRUE(!exists(out) || plan.families & plan.lasting * NAMES);
    } else if (plan.fault == Fault::disturbed) {
        for (const std::string& path : {out, dir / "moved/out"})
            if (exists(path) && file_size(path) != 212) expect_sound(path);
    } else {
        EXPECT_TRUE(is_told_short ? expect_sound(out).sound() : same_bytes(read_file(out), s_avi));
    }
    EXPECT_EQ(open_descriptors(), before);
    EXPECT_TRUE(same_bytes(converted(dir), s_avi));
}

static void record_under(const TempDir& dir, const Plan& plan)
{
    const int before = open_descriptors();
    const std::string out = dir / "out";
    Bytes pieces = part(s_recording, sizeof(S_FileHeader), s_recording.size());
    int started = 0, pushed = 0, stopped = 0;
    begin_faults(plan);
    {
        const Job job;
        started = StartRecord(0, out.c_str(), 1);
        for (size_t at = 0; at < pieces.size(); at += 70000)
            pushed |= RecordAviEx(pieces.data() + at, int(std::min<size_t>(70000, pieces.size() - at)));
        stopped = StopRecordEx(0);
    }
    struck();
    if (started == 0 && pushed == 0 && stopped == 0)
        EXPECT_TRUE(same_bytes(read_file(out), s_avi));
    else
        EXPECT_EQ(plan.fault, Fault::failing);
    EXPECT_TRUE(started == 0 || (started == -9 && stopped == 0)) << started;
    EXPECT_TRUE(pushed == 0 || (pushed == -1 && file_size(out) == (started == 0 ? 212 : 0))) << pushed;
    EXPECT_TRUE(stopped == 0 || stopped == 1) << stopped;
    EXPECT_EQ(g_tSdv2Avi.m_fsRec, nullptr);
    EXPECT_EQ(open_descriptors(), before);
    EXPECT_TRUE(same_bytes(converted(dir), s_avi));
}

static const std::pair<const char*, Plan> s_plans[] = {
    {"one call fails", {}},
    {"no memory from there on", {.lasting = true, .families = MEMORY}},
    {"no files from there on", {.lasting = true, .families = FILES}},
    {"no files and no names from there on", {.lasting = true, .families = FILES | NAMES}},
    {"one call does half", {.fault = Fault::halved}},
    {"every call does half", {.fault = Fault::halved, .lasting = true}},
    {"one call is interrupted", {.fault = Fault::interrupted}},
    {"every other call is interrupted", {.fault = Fault::interrupted, .lasting = true}},
};

static void walk_all(Scenario scenario)
{
    const Frames late_audio = {picture(1, 20000, 0),
                               with_audio(picture(2, 99), 2, {}, {sdv::g711_slot(noise(320, 1))})};
    for (const Frames& frames : {large_frames(), late_audio}) {
        take_up(frames);
        for (const auto& [what, plan] : s_plans) walk(what, plan, scenario);
    }
    Frames many; // more than two blocks of the index hold
    for (uint32_t i = 1; i < 6100; ++i) many.push_back(picture(i, 4, i == 1 ? 0 : 1));
    take_up(many);
    for (const bool lasting : {false, true})
        walk("index", {.lasting = lasting, .families = MEMORY}, scenario);
}

TEST(Faults, Conversion)
{
    walk_all(convert_under);
}

TEST(Faults, Stream)
{
    walk_all(record_under);
}

TEST(Faults, ChangesOnDisk)
{
    take_up(large_frames());
    const std::pair<const char*, void (*)()> rows[] = {
        {"input cut in its first frame", [] { std::filesystem::resize_file("work/in", 200); }},
        {"input cut in its second frame", [] { std::filesystem::resize_file("work/in", 400000); }},
        {"directory renamed", [] { std::filesystem::rename("work", "moved"); }},
        {"directory removed", [] { std::filesystem::remove_all("work"); }},
    };
    for (const auto& [what, change] : rows)
        walk(what, {.fault = Fault::disturbed, .families = FILES, .disturb = change}, convert_under);
}

TEST(Faults, CharacterSets)
{
    walk("iconv_open", {}, [](const TempDir&, const Plan& plan) {
        char save[32] = {};
        const auto convert_text = [&] { return os_code_convert("ASCII", "UTF-8", save, 31, text("abc"), 3); };
        begin_faults(plan);
        const int result = convert_text();
        struck();
        EXPECT_TRUE(result == 3 || result == -6) << result;
        EXPECT_EQ(convert_text(), 3);
    });
}

// ---- the network

// All slots are in use, so that one which is lost is missed at the next exchange.
struct Exchange
{
    TcpServer* server = nullptr;
    Watched client, accepted;
    UdpClient *from = nullptr, *to = nullptr;
    bool received = false, posted = false;
};

static Exchange s_at;
static const std::string s_message = "a message of some length";

static void accept_one(TcpServer*, TcpClient* client, void*)
{
    s_at.accepted.then = [](char what) {
        if (what == 'D')
            s_at.accepted.client = nullptr;
        else
            s_at.accepted.send(s_at.accepted.got);
    };
    watch(s_at.accepted, client);
    char ip[16];
    uint16 port;
    os_tcp_client_get_remote(client, ip, &port);
    os_tcp_client_set_rcvbuf_len(client, 65536);
}

static void open_tcp()
{
    s_at.client.then = [](char what) {
        if (what == 'W') s_at.client.send(s_message);
    };
    s_at.server = os_tcp_server_create();
    os_tcp_server_set_local(s_at.server, text("127.0.0.1"), 0);
    os_tcp_server_bind_accept(s_at.server, accept_one, nullptr);
    const uint16 port = os_tcp_server_open(s_at.server) == 1 ? port_of(s_at.server->listenfd) : 0;
    watch(s_at.client, os_tcp_client_create());
    os_tcp_client_set_remote(s_at.client.client, text("127.0.0.1"), port);
    os_tcp_client_open(s_at.client.client, -1);
}

static void post()
{
    os_post_func([](void*) { s_at.posted = true; }, nullptr);
}

static void send_datagram()
{
    char ip[16];
    uint16 port = 0;
    os_udp_client_get_local(s_at.to, ip, &port);
    os_udp_client_send(s_at.from, text(s_message), 9, text("127.0.0.1"), port);
}

static int32 take_datagrams(UdpClient* client, void*)
{
    char bytes[64], ip[16];
    uint16 port;
    while (os_udp_client_read(client, bytes, sizeof(bytes), ip, &port) > 0) s_at.received = true;
    return 0;
}

// Start-up does not look at how the pipe that wakes the loop is registered.
static bool s_no_posts;

static void open_sockets()
{
    s_at = {};
    s_at.posted = s_no_posts;
    open_tcp();
    s_at.from = os_udp_client_create();
    s_at.to = os_udp_client_create();
    os_udp_client_bind_read(s_at.to, take_datagrams, nullptr);
    os_udp_client_open(s_at.to);
    send_datagram();
    post();
}

static bool is_complete()
{
    return s_at.client.got == s_message && s_at.received && s_at.posted;
}

static void close_sockets(int want_open)
{
    locked([want_open] {
        os_tcp_server_destroy(s_at.server);
        for (TcpClient* client : {s_at.client.client, s_at.accepted.client}) os_tcp_client_destroy(client);
        for (UdpClient* udp : {s_at.from, s_at.to}) os_udp_client_destroy(udp);
        EXPECT_EQ(open_descriptors(), want_open); // here: the loop's reports open the time zone's file
    });
}

static void expect_completion()
{
    wait_for([] {
        if (!s_at.received) send_datagram(); // one may get lost
        if (!s_at.posted) post();            // what wakes the loop may get lost
        return is_complete();
    });
    EXPECT_EQ(s_at.client.got, s_message);
}

static void exchange_under(const TempDir&, const Plan& plan)
{
    begin_faults(plan);
    if (os_startup(2, 1) != 1) {
        struck();
        s_may_leak = true;
        if (os_is_startup()) return; // half of it
        EXPECT_EQ(os_startup(2, 1), 1);
    }
    const int before = open_descriptors();
    s_no_posts = struck_call() != nullptr;
    locked(open_sockets);
    // What was struck may keep the exchange from ending; all else must let it.
    for (int quiet = 0; quiet < 60 && !locked(is_complete); usleep(1000)) quiet += struck_call() != nullptr;
    struck();
    if (plan.fault != Fault::failing) expect_completion();
    close_sockets(before);

    locked(open_sockets);
    expect_completion();
    close_sockets(before);
}

TEST(Faults, Network)
{
    for (const auto& [what, plan] : s_plans)
        if (plan.families & ~(FILES | NAMES)) walk(what, plan, exchange_under);
    walk("no sockets from there on", {.lasting = true, .families = SOCKETS}, exchange_under);
}
