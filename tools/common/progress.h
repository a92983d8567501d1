// One line on standard error for each conversion that runs, drawn over the lines before.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace tools {

struct Running
{
    std::string name;
    uint64_t done, total; // bytes; a total of 0 is not known
    double seconds;       // since it began
};

struct Progress
{
    bool shown = false; // to be set where standard error is a terminal
    size_t lines = 0;   // that stand there now
};

void draw_progress(Progress& progress, const std::vector<Running>& running);

// Nothing stays behind; to be called before anything else is written.
void wipe_progress(Progress& progress);

} // namespace tools
