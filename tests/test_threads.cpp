#include <sys/resource.h>
#include <sys/time.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <regex>
#include <thread>

#include "support.h"

TEST(Threads, MutexesArePlainOrRecursive)
{
    for (const int recursive : {0, 1}) {
        LMutex* mutex = os_mutex_create(recursive);
        ASSERT_TRUE(mutex);
        const auto taken_elsewhere = [&] {
            bool taken = false;
            std::thread([&] {
                taken = pthread_mutex_trylock(&mutex->mutex) == 0;
                if (taken) pthread_mutex_unlock(&mutex->mutex);
            }).join();
            return taken;
        };
        EXPECT_EQ(os_mutex_lock(mutex), 1);
        EXPECT_EQ(pthread_mutex_trylock(&mutex->mutex), recursive ? 0 : EBUSY);
        EXPECT_TRUE(!recursive || os_mutex_unlock(mutex) == 1);
        EXPECT_FALSE(taken_elsewhere());
        EXPECT_EQ(os_mutex_unlock(mutex), 1);
        EXPECT_TRUE(taken_elsewhere());
        EXPECT_EQ(os_mutex_free(mutex), 1);
    }
}

TEST(Threads, NullIsReported)
{
    const std::string where = R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d file: \w+\.cpp line: \d+ )";
    const auto calls = [] {
        return os_mutex_lock(nullptr) + os_mutex_free(nullptr) +
               os_thread_create(nullptr, 0, nullptr, nullptr) + os_thread_detach(nullptr);
    };
    const auto [result, lines] = told(2, calls);
    EXPECT_EQ(result, 1) << "only freeing nothing succeeds";
    const std::string mutex = where + "mutex is null\n", thread = where + "thr is null\n";
    EXPECT_TRUE(std::regex_match(lines, std::regex(mutex + mutex + thread + thread))) << lines;
}

static void* own_stack_size(void* result)
{
    pthread_attr_t attributes;
    pthread_getattr_np(pthread_self(), &attributes);
    pthread_attr_getstacksize(&attributes, static_cast<size_t*>(result));
    pthread_attr_destroy(&attributes);
    return nullptr;
}

TEST(Threads, StackSizeIsAsAsked)
{
    // The first two are sizes that no stack of an earlier thread, kept by libc for reuse, comes near.
    for (const auto& [asked, given] : {std::pair{10u << 20, 10u << 20}, {0u, 1u << 20}, {1u, 0u}}) {
        LThread thread;
        size_t size = 0;
        ASSERT_EQ(os_thread_create(&thread, asked, own_stack_size, &size), 1);
        EXPECT_EQ(os_thread_join(&thread), 1);
        if (given)
            EXPECT_NEAR(double(size), given, 128 << 10);
        else
            EXPECT_GT(size, 64u << 10) << "a refused size is passed over";
    }
}

TEST(Threads, IdentifierAndDetach)
{
    static std::atomic<int32> seen;
    const auto tell = [](void*) -> void* { return seen = os_thread_self(), nullptr; };
    for (const auto& finish : {os_thread_join, os_thread_detach}) {
        seen = 0;
        LThread thread;
        ASSERT_EQ(os_thread_create(&thread, 0, tell, nullptr), 1);
        EXPECT_EQ(finish(&thread), 1);
        while (seen == 0) os_sleep(1);
        EXPECT_NE(seen, os_thread_self());
    }
}

// The stack asked for finds no place in the address space.
TEST(Threads, CreationFailureTellsItsCause)
{
    if (sanitized) GTEST_SKIP() << "the sanitizer's own memory needs the address space";
    const auto [status, line] = told(2, [] {
        return in_child([] {
            const rlimit room = {1u << 30, 1u << 30};
            setrlimit(RLIMIT_AS, &room);
            LThread thread;
            return os_thread_create(&thread, 0xF0000000u, own_stack_size, nullptr);
        });
    });
    EXPECT_EQ(status, 0);
    EXPECT_NE(line.find(std::string(" pthread_create fail: ") + strerror(EAGAIN) + "\n"), line.npos) << line;
}

TEST(Threads, SignalEndsSleep)
{
    struct sigaction before, noted = {};
    noted.sa_handler = [](int) {};
    sigaction(SIGALRM, &noted, &before);
    const itimerval soon = {{0, 20000}, {0, 20000}}; // again and again, should the first come too early
    setitimer(ITIMER_REAL, &soon, nullptr);
    os_sleep(2000000000 / 1000); // weeks: the test returns only when the signal ends it
    const itimerval off = {};
    setitimer(ITIMER_REAL, &off, nullptr);
    sigaction(SIGALRM, &before, nullptr);
    os_sleep(-1);
}
