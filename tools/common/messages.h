// What a program that runs for long writes to standard error, its libraries' messages among it. Whoever reads
// that must not be able to stop the program by reading no more.
#pragma once

#include <string>
#include <thread>

namespace tools {

// As long as this lives, standard error is a pipe that never makes anybody wait; a thread hands on what
// comes, line by line, and leaves out, and counts, what its reader does not take.
struct Messages
{
    int before = -1;          // standard error as it was
    int target = -1;          // the same, where we write to
    int source = -1;          // our end of the pipe
    std::string lineStart;    // in front of each line, to make way for it on a terminal
    std::string held;         // of a line that has not ended
    unsigned long missed = 0; // lines
    int patience = 1000;      // milliseconds, for a reader who has taken the last line
    std::thread thread;

    // Nothing changes when there are no descriptors for it, or no thread.
    explicit Messages(const std::string& startOfLine = "");
    ~Messages();
    Messages(const Messages&) = delete;
    Messages& operator=(const Messages&) = delete;
};

// The library's log also goes to files, and clears up old ones, where anything called "dbg" lies in the
// directory that a program is started in. Nobody has named that directory to us: messages go to standard
// error alone. To be called before the first of them.
void write_no_log_files();

} // namespace tools
