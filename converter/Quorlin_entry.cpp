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

static bool is_recording(const InputFile& input)
{
    S_FileHeader header;
    return read_file_header(input, header) && IsValidFileHeader(&header);
}

// SdvProgress_None when nothing speaks against it.
static int test_paths(const char* inputpath, const char* outpath)
{
    InputFile input;
    if (!path_fits(inputpath) || !path_fits(outpath)) return SdvRefused_Path;
    if (!open_input(input, inputpath)) return SdvRefused_Input;
    if (is_same_file(inputpath, outpath)) return SdvRefused_SameFile;
    return is_recording(input) ? SdvProgress_None : SdvRefused_NoRecording;
}

static int result_of(int refusal)
{
    if (refusal == SdvRefused_NoThread) return -3;
    if (refusal == SdvRefused_NoRecording) {
        fputs("140217====3333", stdout);
        return -2;
    }
    puts("140217====2222");
    return -1;
}

// The conversion has begun: see begin_conversion(). Gives its outcome, or the reason for a refusal.
static int convert_file(const char* inputpath, const char* outpath)
{
    TSdv2Avi& job = g_tSdv2Avi;
    const int refusal = test_paths(inputpath, outpath);
    if (refusal != SdvProgress_None) return refusal;

    WaitThreadTerminate();
    publish(job.m_iIsSwitching, 1);
    copy_path(job.m_szInputPath, inputpath);
    copy_path(job.m_szOutputPath, outpath);
    if (!start_conversion(job)) {
        publish(job.m_iIsSwitching, 0);
        return SdvRefused_NoThread;
    }
    WaitThreadTerminate();
    return observe(job.m_iPosition);
}

static bool is_refusal(int outcome)
{
    return outcome < SdvProgress_None;
}

int StartChange(char* _cpinputpath, char* _cpoutpath)
{
    const CancelGuard whole;
    begin_conversion();
    const int outcome = convert_file(_cpinputpath, _cpoutpath);
    const int result = is_refusal(outcome) ? result_of(outcome) : 0;
    end_conversion(outcome);
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
    if (!busy) return StartChange(_pcSrcFullPath, _pcDestFullPath);
    note_refused(SdvRefused_Busy);
    return busy;
}

static int refuse()
{
    fputs("TC_SDVtoAVI error", stdout);
    return -1;
}

static int refuse_path()
{
    note_refused(SdvRefused_Path);
    return refuse();
}

int KtConvert_SDVtoAVI(char* _pcSrcFullPath, char* _pcDestFullPath)
{
    const CancelGuard whole;
    if (!path_fits(_pcSrcFullPath) || !path_fits(_pcDestFullPath)) return refuse_path();
    if (!try_begin_conversion()) return refuse();

    // Copies of our own: preparing the job clears its paths, which the caller may have handed in.
    char source[PATH_SIZE];
    char destination[PATH_SIZE];
    copy_path(source, _pcSrcFullPath);
    copy_path(destination, _pcDestFullPath);
    prepare_job(8000);
    const int outcome = convert_file(source, destination); // the job is new: it cannot be busy
    int answer = 0;
    if (is_refusal(outcome)) {
        result_of(outcome);
        answer = refuse();
    }
    release_job();
    end_conversion(outcome);
    return answer;
}
