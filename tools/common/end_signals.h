// The signals that a program with threads waits for in its main thread.
#pragma once

#include <csignal>

namespace tools {

// Block SIGINT, SIGTERM, SIGHUP and SIGUSR1, before any thread is there, so that all of them leave the
// signals to a sigwait() for this set. One that was ignored when the program started (nohup, a job in the
// background) stays ignored; so are from here on SIGPIPE and SIGXFSZ: a write that fails is no reason to end.
sigset_t block_signals();

} // namespace tools
