// A progress bar on standard error, drawn by a thread of its own while the work goes on elsewhere.
#pragma once

#include <condition_variable>
#include <mutex>
#include <thread>

namespace tools {

struct Progress
{
    std::mutex lock;
    std::condition_variable ended;
    bool over = false;
    std::thread drawer;

    Progress() = default;
    ~Progress(); // wipes the bar
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;
};

// Draw until the record goes. `percent` is called on the drawing thread and gives 0 to 100. Does nothing when
// standard error is no terminal.
void start_progress(Progress& progress, int (*percent)());

} // namespace tools
