#include <sys/resource.h>
#include <sys/time.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <thread>

#include "support.h"

TEST(Threads, MutexesArePlainOrRecursive)
{
    for (const int recursive : {0, 1}) {
        LMutex* mutex = os_mutex_create(recursive);
        int elsewhere = 0;
        EXPECT_EQ(os_mutex_lock(mutex), 1);
        EXPECT_EQ(pthread_mutex_trylock(&mutex->mutex), recursive ? 0 : EBUSY);
        EXPECT_TRUE(!recursive || os_mutex_unlock(mutex) == 1);
        std::thread([&] { elsewhere = pthread_mutex_trylock(&mutex->mutex); }).join();
        EXPECT_EQ(elsewhere, EBUSY);
        EXPECT_EQ(os_mutex_unlock(mutex), 1);
        EXPECT_EQ(os_mutex_free(mutex), 1);
    }
}

static std::atomic<int32> s_self;

static void* note_self_and_stack(void* stack)
{
    pthread_attr_t attributes;
    pthread_getattr_np(pthread_self(), &attributes);
    pthread_attr_getstacksize(&attributes, static_cast<size_t*>(stack));
    pthread_attr_destroy(&attributes);
    s_self = os_thread_self();
    return nullptr;
}

TEST(Threads, StackSizeIsAsAskedAndTheIdentifierTheirOwn)
{
    // The first two are sizes that no stack of an earlier thread, kept by libc for reuse, comes near; the
    // last is refused and passed over.
    const size_t mib = 1u << 20, off = mib / 8;
    const std::tuple<uint32, size_t, size_t> rows[] = {
        {10 * mib, 10 * mib - off, 10 * mib + off}, {0, mib - off, mib + off}, {1, mib / 16, SIZE_MAX}};
    for (const auto& [asked, least, most] : rows)
        for (const auto& finish : {os_thread_join, os_thread_detach}) {
            LThread thread;
            size_t stack = 0;
            s_self = 0;
            ASSERT_EQ(os_thread_create(&thread, asked, note_self_and_stack, &stack), 1);
            EXPECT_EQ(finish(&thread), 1);
            while (s_self == 0) os_sleep(1);
            EXPECT_NE(s_self, os_thread_self());
            EXPECT_TRUE(stack >= least && stack <= most) << stack;
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
            return os_thread_create(&thread, 0xF0000000u, note_self_and_stack, nullptr);
        });
    });
    EXPECT_EQ(status, 0);
    EXPECT_TRUE(line.ends_with(std::string(" pthread_create fail: ") + strerror(EAGAIN) + "\n")) << line;
}

TEST(Threads, SignalEndsSleep)
{
    const int status = in_child([] {
        signal(SIGALRM, [](int) {});
        const itimerval soon = {{0, 20000}, {0, 20000}}; // again and again, should the first come too early
        setitimer(ITIMER_REAL, &soon, nullptr);
        os_sleep(INT32_MAX); // weeks: it returns only when the signal ends it
        os_sleep(-1);
        return 0;
    });
    EXPECT_EQ(status, 0);
}
