#include <stdlib.h>

#include <atomic>
#include <set>

#include "net_support.h"

TEST(Startup, FirstSizesThatATableCanHaveStay)
{
    const std::string reports = in_process(CAME_TO_ITS_END, [] {
        const int32 sizes[][2] = {{-1, 1}, {1, -1}, {65537, 1}, {1, 65537}, {INT32_MIN, INT32_MIN}};
        for (const auto& size : sizes) EXPECT_EQ(os_startup(size[0], size[1]) + os_is_startup(), 0);
        EXPECT_EQ(os_startup(4, 2) + os_startup(9, 9) + os_cleanup() + os_is_startup(), 4);
        for (int i = 0; i < 4; ++i) EXPECT_EQ(os_tcp_client_create()->index, i);
        for (int i = 0; i < 2; ++i) EXPECT_EQ(os_tcp_server_create()->index, i);
        for (int i = 0; i < 4; ++i) EXPECT_EQ(os_udp_client_create()->index, i);
        EXPECT_FALSE(os_tcp_client_create() || os_tcp_server_create() || os_udp_client_create());
    });
    EXPECT_EQ(count_of(reports, "size out\n"), 5);
    for (const char* line : {" client num out\n", " server num out\n", " udp num out:udps:4,max udp:4\n"})
        EXPECT_EQ(count_of(reports, line), 1) << line;
}

TEST(Slots, LowestFreeOneIsTaken)
{
    in_layer(65536, 65536, [] {
        std::vector<TcpClient*> taken;
        for (int i = 0; i < 65536; ++i) taken.push_back(os_tcp_client_create());
        EXPECT_EQ(taken.back()->index, 65535);
        std::set<uint32> free_ones;
        for (uint32 i = 0, seed = 7; i < 20000; ++i) {
            seed = seed * 1664525 + 1013904223;
            const uint32 index = seed >> 16;
            if (free_ones.insert(index).second) os_tcp_client_destroy(taken[index]);
            if (i % 3) continue;
            ASSERT_EQ(os_tcp_client_create(), taken[*free_ones.begin()]);
            free_ones.erase(free_ones.begin());
        }
    });
}

// More than the pipe holds, from each place on the loop's own thread.
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
            [] { os_post_func([](void*) { timer = os_timer_create(once, 0, nullptr); }, nullptr); },
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

TEST(Timer, PeriodsCountWholeTicksAndTheNewestComesFirst)
{
    in_layer(1, 1, [] {
        static std::string ticks; // per tick the periods that expired
        const uint32 periods[] = {0, 1000, 1001, 2500, UINT32_MAX, 1};
        const OnTimerFunc add = [](void* cxt) { ticks += *static_cast<const char*>(cxt); };
        char names[] = "abcde|";
        locked([&] {
            for (int i = 0; i < 6; ++i) os_timer_create(add, periods[i], names + i);
            os_timer_create(nullptr, 0, nullptr);
        });
        const std::string wanted = "|ba|cba|dba|cba";
        wait_for([&] { return ticks.size() >= wanted.size(); });
        EXPECT_EQ(locked([&] { return ticks.substr(0, wanted.size()); }), wanted);
    });
}

TEST(Timer, AFunctionMayDestroyAnyTimer)
{
    in_layer(1, 1, [] {
        static LTimer* timers[4];
        static std::string ran;
        const OnTimerFunc add = [](void* cxt) { ran += *static_cast<const char*>(cxt); };
        const OnTimerFunc destroy = [](void*) {
            ran += "d";
            for (const int which : {3, 1, 2}) EXPECT_EQ(os_timer_destroy(timers[which]), 1);
            os_timer_create([](void*) { ran += "n"; }, 0, nullptr);
        };
        char names[] = "21db"; // visited from the last: before, itself, next, next but one
        locked([&] {
            for (int i = 0; i < 4; ++i) timers[i] = os_timer_create(i == 2 ? destroy : add, 0, names + i);
        });
        wait_for([] { return ran.size() >= 5; });
        EXPECT_EQ(locked([] { return ran.substr(0, 5); }), "bd2n2");
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
