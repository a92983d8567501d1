#include "descriptors.h"

#include <cstdio>

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

namespace tools {

void fill_standard_descriptors()
{
    int fd;
    do fd = open("/dev/null", O_RDWR);
    while (fd >= 0 && fd <= STDERR_FILENO);
    if (fd >= 0) close(fd);
}

void raise_descriptor_limit()
{
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
}

Silence::Silence()
{
    fflush(stdout);
    saved = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (null < 0) return;
    dup2(null, STDOUT_FILENO);
    close(null);
}

Silence::~Silence()
{
    fflush(stdout);
    if (saved < 0) return;
    dup2(saved, STDOUT_FILENO);
    close(saved);
}

} // namespace tools
