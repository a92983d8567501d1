#include "end_signals.h"

#include <initializer_list>

namespace tools {

sigset_t block_signals()
{
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGUSR1);
    for (int number : {SIGINT, SIGTERM, SIGHUP}) {
        struct sigaction old;
        sigaction(number, nullptr, &old);
        if (old.sa_handler != SIG_IGN) sigaddset(&set, number);
    }
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    signal(SIGPIPE, SIG_IGN);
    signal(SIGXFSZ, SIG_IGN);
    return set;
}

} // namespace tools
