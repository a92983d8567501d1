#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <atomic>
#include <memory>
#include <set>
#include <thread>
#include <vector>

#include "net_support.h"

TEST(Startup, RefusesSizesThatNoTableHasAndStaysStopped)
{
    const ChildResult result = in_child([] {
        const int32 sizes[][2] = {{-1, 1}, {1, -1}, {65537, 1}, {1, 65537}, {INT32_MIN, INT32_MIN}};
        for (const auto& size : sizes) {
            EXPECT_EQ(os_startup(size[0], size[1]), 0);
            EXPECT_EQ(os_is_startup(), 0);
        }
        EXPECT_EQ(os_post_func([](void*) {}, nullptr), 0);
        EXPECT_EQ(os_startup(65536, 0), 1);
        std::atomic<bool> ran = false;
        on_loop([&] { ran = true; });
        EXPECT_TRUE(ran);
    });
    EXPECT_EQ(result.status, CHILD_DONE) << result.reports;
    EXPECT_EQ(count_of(result.reports, "size out"), 5);
}

TEST(Startup, FirstSizesStay)
{
    const std::string reports = in_layer(4, 2, [] {
        EXPECT_EQ(os_startup(9, 9), 1);
        for (int i = 0; i < 4; ++i) {
            EXPECT_EQ(os_tcp_client_create()->index, i);
        }
        for (int i = 0; i < 2; ++i) {
            EXPECT_EQ(os_tcp_server_create()->index, i);
        }
        for (int i = 0; i < 4; ++i) {
            EXPECT_EQ(os_udp_client_create()->index, i);
        }
        EXPECT_EQ(os_tcp_client_create(), nullptr);
        EXPECT_EQ(os_tcp_server_create(), nullptr);
        EXPECT_EQ(os_udp_client_create(), nullptr);
        EXPECT_EQ(os_cleanup(), 1);
        EXPECT_EQ(os_is_startup(), 1);
        EXPECT_EQ(os_startup(1, 1), 1);
    });
    EXPECT_NE(reports.find(" client num out\n"), std::string::npos);
    EXPECT_NE(reports.find(" server num out\n"), std::string::npos);
    EXPECT_NE(reports.find(" udp num out:udps:4,max udp:4\n"), std::string::npos);
}

TEST(Slots, LowestFreeOneIsTaken)
{
    in_layer(60000, 1, [] {
        std::vector<TcpClient*> taken;
        for (int i = 0; i < 60000; ++i) {
            taken.push_back(os_tcp_client_create());
            ASSERT_EQ(taken.back()->index, i);
        }
        std::set<int32> free_ones;
        unsigned seed = 7;
        for (int i = 0; i < 20000; ++i) {
            seed = seed * 1664525 + 1013904223;
            const int32 index = static_cast<int32>((seed >> 8) % 60000);
            if (free_ones.insert(index).second) {
                ASSERT_EQ(os_tcp_client_destroy(taken[index]), 1);
            }
            if (i % 3) continue;
            TcpClient* client = os_tcp_client_create();
            ASSERT_EQ(client->index, *free_ones.begin());
            EXPECT_GT(client->session, 60000U);
            free_ones.erase(free_ones.begin());
        }
    });
}

// ---- posted functions

TEST(Post, InOrderOnTheLoopUnderTheMainLock)
{
    in_layer(1, 1, [] {
        static std::vector<int> order;
        static std::atomic<int> loops_thread = 0;
        for (int i = 0; i < 1000; ++i)
            EXPECT_EQ(os_post_func(
                          [](void* context) {
                              order.push_back(static_cast<int>(reinterpret_cast<intptr_t>(context)));
                              EXPECT_EQ(os_main_lock(), 1);
                              EXPECT_EQ(os_main_unlock(), 1);
                              loops_thread = os_thread_self();
                          },
                          reinterpret_cast<void*>(static_cast<intptr_t>(i))),
                      1);
        on_loop([] {});
        ASSERT_EQ(order.size(), 1000U);
        for (int i = 0; i < 1000; ++i) {
            EXPECT_EQ(order[static_cast<size_t>(i)], i);
        }
        EXPECT_NE(loops_thread, os_thread_self());
        EXPECT_EQ(os_post_func(nullptr, nullptr), 0);
    });
}

// More than the pipe holds, from each place on the loop's own thread.
class ManyPosts : public ::testing::TestWithParam<const char*> {};

static std::atomic<int> s_ran = 0;

static void post_many(void*)
{
    for (int i = 0; i < 200000; ++i) os_post_func([](void*) { ++s_ran; }, nullptr);
}

TEST_P(ManyPosts, AllRun)
{
    const std::string from = GetParam();
    in_layer(4, 1, [&] {
        if (from == "posted") os_post_func(post_many, nullptr);
        static LTimer* timer = nullptr;
        if (from == "timer")
            locked([] {
                timer = os_timer_create(
                    [](void*) {
                        os_timer_destroy(timer);
                        post_many(nullptr);
                    },
                    0, nullptr);
            });
        if (from == "socket") {
            uint16_t port = 0;
            open_server(
                &port, [](TcpServer*, TcpClient*, void*) { post_many(nullptr); }, nullptr);
            plain_connect(port);
        }
        if (from == "threads") {
            std::vector<std::thread> threads;
            for (int i = 0; i < 4; ++i)
                threads.emplace_back([] {
                    for (int j = 0; j < 50000; ++j) os_post_func([](void*) { ++s_ran; }, nullptr);
                });
            for (std::thread& thread : threads) thread.join();
        }
        EXPECT_TRUE(wait_for([] { return s_ran == 200000; })) << s_ran;
        on_loop([] {});
    });
}
INSTANTIATE_TEST_SUITE_P(From, ManyPosts, ::testing::Values("posted", "timer", "socket", "threads"),
                         [](const auto& it) { return std::string(it.param); });

// ---- timers

TEST(Timer, PeriodsCountWholeTicksAndTheNewestComesFirst)
{
    in_layer(1, 1, [] {
        static std::string ticks; // per tick the periods that expired
        static const struct
        {
            char name;
            uint32 tm;
        } periods[] = {{'a', 0}, {'b', 1000}, {'c', 1001}, {'d', 2500}, {'e', UINT32_MAX}, {'|', 1}};
        locked([] {
            for (const auto& period : periods)
                ASSERT_NE(os_timer_create([](void* cxt) { ticks += *static_cast<const char*>(cxt); },
                                          period.tm, const_cast<char*>(&period.name)),
                          nullptr);
            ASSERT_NE(os_timer_create(nullptr, 0, nullptr), nullptr);
        });
        const std::string wanted = "|ba|cba|dba|cba";
        EXPECT_TRUE(wait_for([&] {
            std::string now;
            locked([&] { now = ticks; });
            return now.size() >= wanted.size();
        }));
        locked([&] { EXPECT_EQ(ticks.substr(0, wanted.size()), wanted); });
    });
}

TEST(Timer, AFunctionMayDestroyAnyTimer)
{
    in_layer(1, 1, [] {
        static std::vector<LTimer*> timers;
        static std::string ran;
        static std::atomic<int> walks = 0;
        const OnTimerFunc add_name = [](void* cxt) { ran += static_cast<const char*>(cxt); };
        locked([&] {
            static char next_but_one[] = "2", next[] = "1", before[] = "b";
            timers.push_back(os_timer_create([](void*) { ++walks; }, 0, nullptr));
            timers.push_back(os_timer_create(add_name, 0, next_but_one));
            timers.push_back(os_timer_create(add_name, 0, next));
            timers.push_back(os_timer_create(
                [](void*) {
                    ran += "d";
                    for (size_t which : {4U, 2U, 3U}) {
                        EXPECT_EQ(os_timer_destroy(timers[which]), 1);
                    }
                    os_timer_create([](void*) { ran += "n"; }, 0, nullptr);
                },
                0, nullptr));
            timers.push_back(os_timer_create(add_name, 0, before));
        });
        EXPECT_TRUE(wait_for([] { return walks >= 2; }));
        locked([] { EXPECT_EQ(ran.substr(0, 5), "bd2n2"); });
        EXPECT_EQ(os_timer_destroy(nullptr), 0);
    });
}

TEST(Timer, BeforeStartupEndsTheProcess)
{
    EXPECT_EQ(in_child([] { os_timer_create([](void*) {}, 1000, nullptr); }).status, 1);
}

// ---- the two calls that end the process

static void layer_in_exit_handler()
{
    os_tcp_client_destroy(os_tcp_client_create());
    os_udp_client_destroy(os_udp_client_create());
    os_cleanup();
    fputs("exit handler went through\n", stderr);
}

TEST(EndOfProcess, DestroyingTwice)
{
    for (const bool tcp : {true, false}) {
        const ChildResult result = in_child([tcp] {
            os_startup(4, 1);
            atexit(layer_in_exit_handler);
            TcpClient* client = os_tcp_client_create();
            UdpClient* udp = os_udp_client_create();
            for (int i = 0; i < 2; ++i) tcp ? os_tcp_client_destroy(client) : os_udp_client_destroy(udp);
        });
        EXPECT_EQ(result.status, 0);
        EXPECT_EQ(count_of(result.reports, " destroy err\n"), 1) << result.reports;
        EXPECT_EQ(count_of(result.reports, "exit handler went through"), 1) << result.reports;
    }
}
