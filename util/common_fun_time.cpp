#include "common_fun.h"

#include <stdlib.h>
#include <sys/syscall.h>
#include <sys/sysinfo.h>
#include <sys/times.h>
#include <unistd.h>

#include <atomic>

// 0 means that the clock is not frozen.
static std::atomic<time_t> gtime;
static std::atomic<int> iClockT;

static int system_uptime()
{
    struct sysinfo info;
    return sysinfo(&info) ? 0 : static_cast<int>(info.uptime);
}

time_t getmytime(time_t* _T)
{
    const time_t frozen = gtime;
    const time_t now = frozen ? frozen : time(nullptr);
    if (_T) *_T = now;
    return now;
}

void setmytime(unsigned long)
{
    gtime = time(nullptr);
}

void set_uptime(unsigned long)
{
    iClockT = system_uptime();
}

int get_uptime(int*)
{
    const int frozen = iClockT;
    return frozen ? frozen : system_uptime();
}

long long get_uptime_ms(void)
{
    const long per_second = sysconf(_SC_CLK_TCK);
    if (per_second <= 0) return -1;

    struct tms process;
    const int32_t ticks = static_cast<int32_t>(times(&process));
    return static_cast<long long>(ticks) * 1000 / per_second + 300000;
}

unsigned short GetRandomPort(unsigned short miniseed)
{
    const unsigned int thread = static_cast<unsigned int>(syscall(SYS_gettid));
    srand(static_cast<unsigned int>(time(nullptr)) + thread);
    const int port = rand() & 0xFFFF; // NOLINT(cert-msc30-c,cert-msc50-cpp): a guess may repeat
    return static_cast<unsigned short>(port < miniseed ? port + miniseed : port);
}
