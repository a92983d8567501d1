#include <sys/resource.h>
#include <sys/time.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <regex>
#include <thread>

#include "support.h"

static bool free_for_others(LMutex& mutex)
{
    bool taken = false;
    std::thread([&] {
        taken = pthread_mutex_trylock(&mutex.mutex) == 0;
        if (taken) pthread_mutex_unlock(&mutex.mutex);
    }).join();
    return taken;
}

TEST(Threads, RecursiveMutexIsUnlockedAsOftenAsLocked)
{
    LMutex* mutex = os_mutex_create(1);
    ASSERT_TRUE(mutex);
    EXPECT_EQ(os_mutex_lock(mutex), 1);
    EXPECT_EQ(os_mutex_lock(mutex), 1);
    EXPECT_EQ(os_mutex_unlock(mutex), 1);
    EXPECT_FALSE(free_for_others(*mutex));
    EXPECT_EQ(os_mutex_unlock(mutex), 1);
    EXPECT_TRUE(free_for_others(*mutex));
    EXPECT_EQ(os_mutex_free(mutex), 1);
}

TEST(Threads, PlainMutexIsTakenOnce)
{
    LMutex mutex;
    ASSERT_EQ(os_mutex_init(&mutex, 0), 1);
    EXPECT_EQ(os_mutex_lock(&mutex), 1);
    EXPECT_EQ(pthread_mutex_trylock(&mutex.mutex), EBUSY);
    EXPECT_EQ(os_mutex_unlock(&mutex), 1);
    EXPECT_EQ(os_mutex_destroy(&mutex), 1);
}

TEST(Threads, NullIsReported)
{
    struct
    {
        const char* message;
        int result;
        int (*call)();
    } const rows[] = {
        {"mutex is null", 0, [] { return os_mutex_init(nullptr, 0); }},
        {"mutex is null", 0, [] { return os_mutex_destroy(nullptr); }},
        {"mutex is null", 0, [] { return os_mutex_lock(nullptr); }},
        {"mutex is null", 0, [] { return os_mutex_unlock(nullptr); }},
        {"mutex is null", 1, [] { return os_mutex_free(nullptr); }},
        {"thr is null", 0,
         [] {
             return os_thread_create(
                 nullptr, 0, [](void* p) { return p; }, nullptr);
         }},
        {"thr is null", 0, [] { return os_thread_join(nullptr); }},
        {"thr is null", 0, [] { return os_thread_detach(nullptr); }},
    };
    for (const auto& row : rows) {
        int result = -1;
        const std::string line = written_to(2, [&] { result = row.call(); });
        EXPECT_EQ(result, row.result);
        const std::regex shape(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d file: \w+\.cpp line: \d+ )" +
                               std::string(row.message) + "\n");
        EXPECT_TRUE(std::regex_match(line, shape)) << line;
    }
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
    // Both are sizes that no stack of an earlier thread, kept by libc for reuse, comes near.
    for (const auto& [asked, given] : {std::pair{10u << 20, 10u << 20}, {0u, 1u << 20}}) {
        LThread thread;
        size_t size = 0;
        ASSERT_EQ(os_thread_create(&thread, asked, own_stack_size, &size), 1);
        EXPECT_EQ(os_thread_join(&thread), 1);
        EXPECT_NEAR(double(size), given, 128 << 10);
    }
    LThread thread;
    size_t size = 0;
    ASSERT_EQ(os_thread_create(&thread, 1, own_stack_size, &size), 1) << "a refused size is passed over";
    EXPECT_EQ(os_thread_join(&thread), 1);
    EXPECT_GT(size, 64u << 10);
}

TEST(Threads, IdentifierAndDetach)
{
    static std::atomic<bool> ran{false};
    std::atomic<int32> seen{0};
    LThread thread;
    ASSERT_EQ(os_thread_create(
                  &thread, 0,
                  [](void* to) -> void* {
                      *static_cast<std::atomic<int32>*>(to) = os_thread_self();
                      return nullptr;
                  },
                  &seen),
              1);
    EXPECT_EQ(os_thread_join(&thread), 1);
    EXPECT_NE(seen, os_thread_self());

    ASSERT_EQ(os_thread_create(
                  &thread, 0, [](void* p) { return ran = true, p; }, nullptr),
              1);
    EXPECT_EQ(os_thread_detach(&thread), 1);
    while (!ran) os_sleep(1);
}

// The stack asked for finds no place in the address space.
TEST(Threads, CreationFailureTellsItsCause)
{
    if (sanitized) GTEST_SKIP() << "the sanitizer's own memory needs the address space";
    int status = -1;
    const std::string line = written_to(2, [&] {
        status = in_child([] {
            const rlimit room = {1u << 30, 1u << 30};
            setrlimit(RLIMIT_AS, &room);
            LThread thread;
            return os_thread_create(
                &thread, 0xF0000000u, [](void* p) { return p; }, nullptr);
        });
    });
    EXPECT_EQ(status, 0);
    EXPECT_NE(line.find(std::string(" pthread_create fail: ") + strerror(EAGAIN) + "\n"), line.npos) << line;
}

TEST(Threads, SignalEndsSleep)
{
    os_sleep(0);
    os_sleep(-1);
    struct sigaction before, noted = {};
    noted.sa_handler = [](int) {};
    sigaction(SIGALRM, &noted, &before);
    const itimerval soon = {{0, 20000}, {0, 20000}}; // again and again, should the first come too early
    setitimer(ITIMER_REAL, &soon, nullptr);
    os_sleep(2000000000 / 1000); // weeks: the test returns only when the signal ends it
    const itimerval off = {};
    setitimer(ITIMER_REAL, &off, nullptr);
    sigaction(SIGALRM, &before, nullptr);
}
