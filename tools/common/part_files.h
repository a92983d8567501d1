// Recordings that an earlier run was kept from finishing, by a power failure or a kill.
#pragma once

#include "avi_repair.h"

#include <atomic>
#include <functional>
#include <string>
#include <thread>
#include <vector>

namespace tools {

struct Recovered
{
    std::string path; // its final name; the part name when it could not be finished
    bool finished = false;
    std::string what; // was done, or why not
};

struct Recovery
{
    std::string directory;
    std::vector<std::string> parts;                                 // see find_parts()
    std::function<void(const Recovered&)> told;                     // in a thread of its own, as the others
    std::function<void(const std::function<void()>&)> withJob = {}; // see Beside
    std::function<void()> ended = {};

    std::atomic<bool> stop = false;
    std::thread thread;

    Recovery() = default;
    ~Recovery();
    Recovery(const Recovery&) = delete;
    Recovery& operator=(const Recovery&) = delete;
};

// List the directory's part files, before this process records there: what it begins later must not be seen
// in the moment between its making and its lock, and be taken from it.
void find_parts(Recovery& recovery);

// Finish those and give them their names, while this process may already record there.
// Empty ones go. One that is locked is somebody's, who records it, publishes it or finishes it: it is left
// alone, without a word. No trouble with one file keeps the others from being finished.
void start_recovery(Recovery& recovery);

// Soon: what is not finished by then is left to the next run. Not under a lock that the callbacks take.
void end_recovery(Recovery& recovery);

} // namespace tools
