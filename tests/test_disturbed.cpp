// File conversions that are cancelled or disturbed, and threads that are cancelled inside a call.
#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <filesystem>
#include <thread>

#include "net_support.h"

// One frame and then nothing for a while: the search for the next one is long enough to be disturbed in.
struct LongConversion
{
    TempDir dir;
    const std::string in = dir / "in", out = dir / "out", other = dir / "other";

    explicit LongConversion(uint8_t type = 0)
    {
        write_file(in, recording({picture(1, 100, type)}));
        write_file(other, recording({picture(1, 100, 0), picture(2)}));
        std::filesystem::resize_file(in, uint64_t(sanitized ? 128 : 512) << 20);
    }
    // Nothing of what happened before is left: another file is converted, and a stream recorded.
    void expect_all_works()
    {
        EXPECT_EQ(convert(other, dir / "next"), done);
        expect_video(dir / "next", {picture(1, 100, 0), picture(2)});
        Recording open;
        push_frame(sdv::frame(picture(1)));
        EXPECT_EQ(StopRecordEx(0), 0);
        expect_video(open.path, {picture(1)});
    }
};

static void await_running()
{
    while (!std::atomic_ref(g_tSdv2Avi.m_iIsSwitching).load()) std::this_thread::yield();
}

static void* convert_raw(void* context)
{
    const auto& paths = *static_cast<LongConversion*>(context);
    return reinterpret_cast<void*>(intptr_t(KtConvert_SDVtoAVI(text(paths.in), text(paths.out))));
}

TEST(Disturbed, ARunningConversionGoesOn)
{
    static pthread_t caller;
    const std::tuple<const char*, int, int (*)()> rows[] = {
        {"StopRecord", 1, [] { return StopRecord(0); }},
        {"StopRecordEx", 1, [] { return StopRecordEx(0); }},
        {"QuorlinRelease", 0, [] { return QuorlinRelease(); }},
        {"Initialize", 0, [] { return Initialize(8000) + QuorlinRelease(); }},
        {"its thread is cancelled", 0, [] { return pthread_cancel(g_tSdv2Avi.m_tChangeid); }},
        {"its caller is cancelled", 0, [] { return pthread_cancel(caller); }},
    };
    for (const auto& [what, want, disturb] : rows) {
        SCOPED_TRACE(what);
        LongConversion conversion;
        int got = -1;
        for (int tries = 0; got != want && tries < 10; ++tries) { // we may have come too late
            ASSERT_EQ(pthread_create(&caller, nullptr, convert_raw, &conversion), 0);
            await_running();
            while (g_tSdv2Avi.m_tChangeid == 0) std::this_thread::yield();
            got = disturb();
            void* result = nullptr;
            pthread_join(caller, &result);
            EXPECT_EQ(result, nullptr);
        }
        EXPECT_EQ(got, want);
        expect_video(conversion.out, {picture(1, 100, 0)});
        conversion.expect_all_works();
    }
}

static std::atomic<int> s_cancelled;

static uint64_t bytes_skipped()
{
    SdvReport report = {};
    report.cbSize = sizeof(report);
    GetConversionReport(&report);
    return report.u64BytesSkipped;
}

// What the conversion returned, cancelled as soon as it ran. We may have come too late: then once more.
template <class Convert>
static auto cancelled(bool by_signal, const Convert& convert_it, const std::function<bool()>& stopped_midway)
{
    const pthread_t main_thread = pthread_self();
    for (int tries = 1;; ++tries) {
        s_cancelled = 0;
        std::atomic<bool> over = false;
        std::thread other([&] {
            while (!over && !s_cancelled) {
                if (by_signal)
                    pthread_kill(main_thread, SIGUSR1);
                else
                    s_cancelled |= CancelConversion();
                std::this_thread::yield();
            }
        });
        const auto result = convert_it();
        over = true;
        other.join();
        if ((s_cancelled && stopped_midway()) || tries == 10) return result;
    }
}

TEST(Cancel, EndsWhatRunsAndNothingLater)
{
    struct sigaction action = {};
    action.sa_handler = [](int) { s_cancelled |= CancelConversion(); };
    sigaction(SIGUSR1, &action, nullptr);
    const std::tuple<const char*, uint8_t, bool> rows[] = {
        {"between frames", 0, false}, {"looking for a key frame", 1, false}, {"by a signal", 0, true}};
    EXPECT_EQ(CancelConversion(), 0);
    for (const auto& [what, type, by_signal] : rows) {
        SCOPED_TRACE(what);
        LongConversion paths(type);
        const Outcome outcome = cancelled(
            by_signal, [&] { return convert(paths.in, paths.out); }, [] { return bytes_skipped() == 0; });
        EXPECT_EQ(outcome, Outcome(0, -5, ""));
        EXPECT_EQ(bytes_skipped(), 0u) << "it ran to its end before";
        EXPECT_EQ(g_tSdv2Avi.m_iIsSwitching, 0);
        EXPECT_FALSE(exists(paths.out));
        EXPECT_EQ(CancelConversion(), 0);
        paths.expect_all_works();
    }
    LongConversion old;
    Bytes frames;
    for (uint32_t i = 1; i < 20000; ++i) sdv::append(frames, sdv::frame(picture(i)));
    write_file(old.in, sdv::file_header({.frameCount = 20000}) + frames);
    const Job job;
    const int result = cancelled(
        false, [&] { return ChangeFile2AVI(text(old.in), text(old.out)); },
        [] { return g_tSdv2Avi.m_iTotalFrames < 19999; });
    EXPECT_EQ(std::pair(result, GetConversionProgress(nullptr)), std::pair(4, -5));
    EXPECT_LT(g_tSdv2Avi.m_iTotalFrames, 19999) << "it ran to its end before";
    EXPECT_FALSE(exists(old.out));
}

// Who watches learns the end of every call, also of one that was refused, and never that of the call before.
TEST(Disturbed, AWatcherLearnsEveryEnd)
{
    LongConversion paths;
    write_file(paths.dir / "text", hex("6E6F"));
    write_file(paths.dir / "no key", recording({picture(1, 100, 1)}));
    const auto convert_now = [](char* in, char* out) { return KtConvert_SDVtoAVI(in, out); };
    const auto busy = [](char* in, char* out) {
        g_tSdv2Avi.m_iIsSwitching = 1;
        const int result = TC_SDVtoAVI(0, in, out);
        g_tSdv2Avi.m_iIsSwitching = 0;
        return result;
    };
    const std::tuple<int, std::string, std::string, int (*)(char*, char*)> rows[] = {
        {100, "other", "out", convert_now},
        {-1, "none", "out", ChangeFile2AVI},
        {-2, "other", "no/out", convert_now},
        {-4, "no key", "out", convert_now},
        {SdvRefused_Busy, "other", "out", busy},
        {SdvRefused_Path, "other", std::string(260, 'o'), convert_now},
        {SdvRefused_Path, "other", std::string(260, 'o'), StartChange},
        {SdvRefused_Input, "none", "out", convert_now},
        {SdvRefused_NoRecording, "text", "out", convert_now},
        {SdvRefused_SameFile, "other", "other", convert_now},
        {100, "in", "out", convert_now},
    };
    for (const auto& [want, in, out, call] : rows) {
        SCOPED_TRACE(in + " to " + out);
        uint32_t before = 0, calls = 0;
        int progress = GetConversionProgress(&before);
        std::thread caller(
            [&] { told(1, [&] { return call(text(paths.dir / in), text(paths.dir / out)); }); });
        do progress = GetConversionProgress(&calls);
        while (calls == before || (progress >= 0 && progress < 100));
        EXPECT_EQ(std::pair(progress, calls), std::pair(want, before + 1));
        caller.join();
    }
}

// What a caller sees: done means that the file is there, whoever looks, and however it grew meanwhile.
TEST(Disturbed, FinishedIsSaidWhenItIs)
{
    TempDir dir;
    const Bytes frame = sdv::frame(picture(1, 900000, 0));
    write_file(dir / "in", recording({}) + frame + frame + frame);
    for (int i = 0; i < 20; ++i) {
        std::thread caller([&] { KtConvert_SDVtoAVI(text(dir / "in"), text(dir / "out")); });
        const std::atomic_ref place(g_tSdv2Avi.m_iPosition), busy(g_tSdv2Avi.m_iIsSwitching);
        while (place.load() < 100) {
        }
        EXPECT_EQ(busy.load(), 0);
        caller.join();
        g_tSdv2Avi.m_iPosition = 0;
    }
}

// ---- threads of callers

struct Called
{
    void (*work)();
    bool finished = false;
    bool destroyed = false; // a caller's own destructor has run
};

// Cancelled from the start, it ends at the first place where that can be.
static void* call_cancelled(void* context)
{
    struct Owner
    {
        Called& called;
        ~Owner() { called.destroyed = true; }
    } owner = {*static_cast<Called*>(context)};
    pthread_cancel(pthread_self());
    owner.called.work();
    owner.called.finished = true;
    pthread_testcancel();
    return nullptr;
}

TEST(Cancelled, ThreadsLeaveNothingLockedOrHalfDone)
{
    static Bytes frame = sdv::frame(picture(1, 300000));
    static char from[] = "a", to[2], loopback[] = "127.0.0.1";
    const std::tuple<const char*, bool, void (*)()> rows[] = {
        {"push", true, [] { RecordAviEx(frame.data(), int(frame.size())); }},
        {"record", true, [] { RecordAvi(frame.data(), int(frame.size())); }},
        {"report", true, [] { os_mutex_lock(nullptr); }},
        {"log", true, [] { log_msg("line"); }},
        {"post", true, [] { os_post_func([](void*) {}, nullptr); }},
        {"connect", true,
         [] {
             TcpClient* client = os_tcp_client_create();
             os_tcp_client_set_remote(client, loopback, 1);
             os_tcp_client_open(client, -1);
             os_tcp_client_destroy(client);
         }},
        {"convert text", true, [] { os_code_convert("UTF-8", "UTF-16", to, 2, from, 1); }},
        {"stop", true, [] { StopRecordEx(0); }},
        {"sleep", false, [] { os_sleep(600000); }},
    };
    in_layer(1, 1, [&] {
        const Recording open;
        for (const auto& [what, finishes, work] : rows) {
            SCOPED_TRACE(what);
            if (sanitized && !finishes) continue; // a stack that is unwound so stays marked as in use
            Called called = {work};
            pthread_t thread;
            pthread_create(&thread, nullptr, call_cancelled, &called);
            pthread_join(thread, nullptr);
            ASSERT_EQ(std::pair(called.finished, called.destroyed), std::pair(finishes, true));
        }
        on_loop([] {});
        expect_video(open.path, {picture(1, 300000), picture(1, 300000)});
    });
}
