#include <stdio.h>
#include <string.h>

#include "Quorlin_file.h"
#include "Quorlin_internal.h"
#include "Quorlin_running.h"

static const size_t PATH_SIZE = sizeof(TSdv2Avi::m_szInputPath);
static_assert(PATH_SIZE == 260 && sizeof(TSdv2Avi::m_szOutputPath) == PATH_SIZE);

void errorprint(char* _string)
{
    if (_string) puts(_string);
}

static bool path_fits(const char* path)
{
    return path && strnlen(path, PATH_SIZE) < PATH_SIZE;
}

// The path may lie in the job already.
static void copy_path(char (&to)[PATH_SIZE], const char* path)
{
    const size_t len = strnlen(path, PATH_SIZE - 1);
    memmove(to, path, len);
    memset(to + len, 0, PATH_SIZE - len);
}

// ---- the thread's life
// --------------------------------------------------------------------------------------

// The handle is exported, so the thread can be cancelled: it goes on all the same.
static void* run_conversion(void*)
{
    const CancelGuard whole;
    convert_in_thread();
    return nullptr;
}

static bool start_conversion(TSdv2Avi& job)
{
    PlainLock guard(g_tWaited.lock);
    if (pthread_create(&job.m_tChangeid, nullptr, run_conversion, nullptr) != 0) {
        job.m_tChangeid = 0;
        return false;
    }
    g_tWaited.done = false;
    return true;
}

void WaitThreadTerminate(void)
{
    PlainLock guard(g_tWaited.lock);
    const pthread_t thread = g_tSdv2Avi.m_tChangeid;
    if (thread == 0 || (g_tWaited.done && pthread_equal(thread, g_tWaited.thread))) return;

    pthread_join(thread, nullptr);
    g_tWaited.thread = thread;
    g_tWaited.done = true;
}

// ---- one conversion
// -----------------------------------------------------------------------------------------

static bool is_recording(const InputFile& input)
{
    S_FileHeader header;
    return read_file_header(input, header) && IsValidFileHeader(&header);
}

// 0, or the refusal with its text written.
static int test_input(const char* inputpath, const char* outpath)
{
    InputFile input;
    const bool usable = path_fits(inputpath) && path_fits(outpath) && open_input(input, inputpath);
    if (!usable || is_same_file(inputpath, outpath)) {
        puts("140217====2222");
        return -1;
    }
    if (!is_recording(input)) {
        fputs("140217====3333", stdout);
        return -2;
    }
    return 0;
}

// The conversion has begun: see begin_conversion().
static int convert_file(const char* inputpath, const char* outpath)
{
    TSdv2Avi& job = g_tSdv2Avi;
    const int refused = test_input(inputpath, outpath);
    if (refused != 0) return refused;

    WaitThreadTerminate();
    publish(job.m_iIsSwitching, 1);
    copy_path(job.m_szInputPath, inputpath);
    copy_path(job.m_szOutputPath, outpath);
    if (!start_conversion(job)) {
        publish(job.m_iIsSwitching, 0);
        return -3;
    }
    WaitThreadTerminate();
    return 0;
}

int StartChange(char* _cpinputpath, char* _cpoutpath)
{
    const CancelGuard whole;
    begin_conversion();
    const int result = convert_file(_cpinputpath, _cpoutpath);
    end_conversion();
    return result;
}

static int refuse_while_busy(TSdv2Avi& job)
{
    if (observe(job.m_iIsSwitching) != 0) return -1;

    const int32_t position = observe(job.m_iPosition);
    if (position > 0 && position <= 99) {
        fputs("140217====1111", stdout);
        return -2;
    }
    return 0;
}

int TC_SDVtoAVI(int, char* _pcSrcFullPath, char* _pcDestFullPath)
{
    const CancelGuard whole;
    const int busy = refuse_while_busy(g_tSdv2Avi);
    return busy ? busy : StartChange(_pcSrcFullPath, _pcDestFullPath);
}

static int refuse()
{
    fputs("TC_SDVtoAVI error", stdout);
    return -1;
}

int KtConvert_SDVtoAVI(char* _pcSrcFullPath, char* _pcDestFullPath)
{
    const CancelGuard whole;
    if (!path_fits(_pcSrcFullPath) || !path_fits(_pcDestFullPath) || !try_begin_conversion()) return refuse();

    // Copies of our own: preparing the job clears its paths, which the caller may have handed in.
    char source[PATH_SIZE];
    char destination[PATH_SIZE];
    copy_path(source, _pcSrcFullPath);
    copy_path(destination, _pcDestFullPath);
    prepare_job(8000);
    const int result = convert_file(source, destination); // the job is new: it cannot be busy
    const int answer = result == 0 ? 0 : refuse();
    release_job();
    end_conversion();
    return answer;
}
