#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>

#include <filesystem>
#include <sstream>

#include "net_support.h"

TEST(Startup, FirstSizesThatATableCanHaveStay)
{
    const std::string reports = in_process(CAME_TO_ITS_END, [] {
        const int32 sizes[][2] = {{-1, 1}, {1, -1}, {65537, 1}, {1, 65537}, {INT32_MIN, INT32_MIN}};
        for (const auto& [clients, servers] : sizes)
            EXPECT_EQ(os_startup(clients, servers) + os_is_startup(), 0);
        EXPECT_EQ(os_startup(4, 2) + os_startup(9, 9) + os_cleanup() + os_is_startup(), 4);
        for (int i = 0; i < 4; ++i) EXPECT_EQ(os_tcp_client_create()->index, i);
        for (int i = 0; i < 2; ++i) EXPECT_EQ(os_tcp_server_create()->index, i);
        for (int i = 0; i < 4; ++i) EXPECT_EQ(os_udp_client_create()->index, i);
        EXPECT_FALSE(os_tcp_client_create() || os_tcp_server_create() || os_udp_client_create());
    });
    EXPECT_EQ(reports, "size out\nsize out\nsize out\nsize out\nsize out\n"
                       "client num out\nserver num out\nudp num out:udps:4,max udp:4\n");
}

static std::string our_descriptors()
{
    std::string all;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code gone;
        all += std::filesystem::read_symlink(entry, gone).string() + "\n";
    }
    return all;
}

TEST(Startup, AnExecutedChildHoldsNothingOfTheLayer)
{
    in_process(CAME_TO_ITS_END, [] {
        const std::string before = our_descriptors();
        os_startup(4, 2);
        Watched watched;
        int accepted = 0;
        open_watched(watched, port_of(open_server(accept_echo, &accepted)->listenfd));
        const UdpClient* udp = os_udp_client_create();
        wait_for([&] { return accepted == 1 && watched.times('C') == 1; });
        for (int fd : {udp->fd, watched.client->connectfd}) EXPECT_TRUE(fcntl(fd, F_GETFL) & O_NONBLOCK);
        std::istringstream ours(our_descriptors());
        std::string child(65536, 0), one;
        FILE* list = popen("ls -l /proc/self/fd", "r");
        child.resize(fread(child.data(), 1, child.size(), list));
        EXPECT_EQ(pclose(list), 0);
        int checked = 0;
        while (std::getline(ours, one)) {
            if (before.find(one + "\n") != before.npos || one[0] == '/') continue;
            EXPECT_EQ(child.find(one), child.npos) << one << " in\n" << child;
            ++checked;
        }
        EXPECT_EQ(checked, 1 + 4 + 4) << "the set, two pipes, listener, both ends, UDP";
    });
}

// A forked child keeps copies: what is closed for good must be out of the loop's set before.
TEST(Startup, CleanedUpItIsQuietThoughAChildHoldsTheListener)
{
    const std::string reports = in_layer(1, 1, [] {
        TcpServer* server = open_server(nullptr);
        const uint16_t port = port_of(server->listenfd);
        const pid_t child = fork();
        if (child == 0) {
            pause();
            _exit(0);
        }
        os_cleanup();
        plain_connect(port);
        for (int i = 0; i < 20; ++i) on_loop([] {});
        kill(child, SIGKILL);
        waitpid(child, nullptr, 0);
    });
    EXPECT_EQ(reports, "");
}

TEST(Slots, LowestFreeOneIsTaken)
{
    in_layer(65536, 65536, [] {
        std::vector<TcpClient*> taken;
        for (int i = 0; i < 65536; ++i) taken.push_back(os_tcp_client_create());
        EXPECT_EQ(taken.back()->index, 65535);
        for (const size_t i : {4096, 63, 65535, 8191, 0, 64, 4095}) os_tcp_client_destroy(taken[i]);
        for (const int i : {0, 63, 64, 4095, 4096, 8191, 65535}) ASSERT_EQ(os_tcp_client_create()->index, i);
    });
}

// More than the pipe holds, from each place on the loop's own thread, and from ours.
TEST(Post, ManyFromAnywhereRunInOrderOnTheLoop)
{
    static const int32 ours = os_thread_self();
    static int ran, in_order;
    static LTimer* timer;
    static const PostFunc count = [](void* number) {
        in_order += reinterpret_cast<intptr_t>(number) == ran++ % 200000 && os_thread_self() != ours;
    };
    static const PostFunc post_many = [](void*) {
        for (intptr_t i = 0; i < 200000; ++i) os_post_func(count, reinterpret_cast<void*>(i));
    };
    static const OnTimerFunc once = [](void*) { os_timer_destroy(timer), post_many(nullptr); };
    const OnServerAcceptFunc accepted = [](TcpServer*, TcpClient*, void*) { post_many(nullptr); };
    in_layer(4, 1, [&] {
        const Work from[] = {
            [] { os_post_func(post_many, nullptr); },
            [] { locked([] { timer = os_timer_create(once, 0, nullptr); }); },
            [&] { plain_connect(port_of(open_server(accepted)->listenfd)); },
            [] { post_many(nullptr); },
        };
        for (const Work& start : from) {
            start();
            wait_for([&] { return ran == (&start - from + 1) * 200000; });
            EXPECT_EQ(in_order, ran);
        }
    });
}

static std::string s_ran; // main lock

static void note_timer(void* name)
{
    s_ran += *static_cast<const char*>(name);
}

TEST(Timer, PeriodsCountWholeTicksAndTheNewestComesFirst)
{
    in_layer(1, 1, [] {
        const uint32 periods[] = {0, 1000, 1001, 2500, UINT32_MAX, 1};
        char names[] = "abcde|"; // the last one marks the ticks
        locked([&] {
            for (int i = 0; i < 6; ++i) os_timer_create(note_timer, periods[i], names + i);
            os_timer_create(nullptr, 0, nullptr);
        });
        const std::string wanted = "|ba|cba|dba|cba";
        wait_for([&] { return s_ran.size() >= wanted.size(); });
        EXPECT_EQ(locked([&] { return s_ran.substr(0, wanted.size()); }), wanted);
    });
}

TEST(Timer, AFunctionMayDestroyAnyTimer)
{
    in_layer(1, 1, [] {
        static LTimer* timers[4];
        const OnTimerFunc destroy = [](void*) {
            s_ran += "d";
            for (const int which : {3, 1, 2}) EXPECT_EQ(os_timer_destroy(timers[which]), 1);
            os_timer_create([](void*) { s_ran += "n"; }, 0, nullptr);
        };
        char names[] = "21db"; // visited from the last: before, itself, next, next but one
        locked([&] {
            for (int i = 0; i < 4; ++i)
                timers[i] = os_timer_create(i == 2 ? destroy : note_timer, 0, names + i);
        });
        wait_for([] { return s_ran.size() >= 5; });
        EXPECT_EQ(locked([] { return s_ran.substr(0, 5); }), "bd2n2");
    });
}

TEST(EndOfProcess, TellsItsStatusAndLeavesTheLayerUsable)
{
    in_process(1, [] { os_timer_create(nullptr, 1000, nullptr); }); // before the start
    for (const bool tcp : {true, false}) {
        const std::string reports = in_process(0, [tcp] {
            os_startup(4, 1);
            atexit([] {
                os_tcp_client_destroy(os_tcp_client_create());
                os_udp_client_destroy(os_udp_client_create());
                fputs("went through\n", stderr);
            });
            TcpClient* client = os_tcp_client_create();
            UdpClient* udp = os_udp_client_create();
            for (int i = 0; i < 2; ++i) tcp ? os_tcp_client_destroy(client) : os_udp_client_destroy(udp);
        });
        EXPECT_TRUE(reports.ends_with(" destroy err\nwent through\n")) << reports;
    }
}
