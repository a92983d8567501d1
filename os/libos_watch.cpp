#include "libos_watch.h"

#include <fcntl.h>
#include <unistd.h>

#include "libos_fields.h"

static int s_ep_fd = -1;
static pid_t s_owner; // a forked child shares the epoll set

bool make_watch()
{
    s_owner = getpid();
    put(s_ep_fd, epoll_create1(EPOLL_CLOEXEC));
    return has_watch() || os_refuse_errno(false, "epoll_create s_ep_fd fail");
}

bool has_watch()
{
    return peek(s_ep_fd) != -1;
}

int await_events(struct epoll_event* events, int room)
{
    return epoll_wait(s_ep_fd, events, room, -1);
}

static bool control(int operation, int fd, uint32 mask, uint64_t value)
{
    struct epoll_event event = {};
    event.events = mask;
    event.data.u64 = value;
    return epoll_ctl(peek(s_ep_fd), operation, fd, &event) == 0;
}

bool watch(int fd, uint32 mask, uint64_t value)
{
    return control(EPOLL_CTL_ADD, fd, mask, value);
}

void watch_anew(int fd, uint32 mask, uint64_t value)
{
    control(EPOLL_CTL_MOD, fd, mask, value);
}

void forget(int fd)
{
    control(EPOLL_CTL_DEL, fd, 0, 0);
}

// Closing alone leaves a descriptor in the epoll set while a forked child holds it, and a listener that is
// announced there but cannot be accepted from keeps the loop spinning. The child, for its part, must not
// deafen the parent.
void forget_and_close(int fd)
{
    if (getpid() == s_owner) forget(fd);
    close(fd);
}

bool make_pipe(int (&ends)[2], Kind kind, const char* name)
{
    if (pipe2(ends, O_CLOEXEC) != 0) return os_refuse_errno(false, "pipe %s fail", name);
    watch(ends[0], EPOLLIN, event_value(kind, 0, 0, 0));
    return true;
}

// One read, however much waits: what stays in the pipe wakes the loop again.
void take_bytes(int fd)
{
    char bytes[32];
    const ssize_t ignored = read(fd, bytes, sizeof(bytes));
    static_cast<void>(ignored);
}
