// Conversions side by side, each in a process of its own.
#pragma once

#include "convert_job.h"

namespace tools {

struct PoolSettings
{
    ConvertSettings convert;
    unsigned atOnce = 1;
    bool progress = false; // standard error is a terminal, and ours
};

// Convert them all, at most `atOnce` at a time; a result for each job, in their order. A disk that is found
// full gets no more of them. 0; or the number of the signal that came, on which the conversions that ran have
// been ended and their files removed. What was not begun has the code cli::cause::NotStarted.
int run_jobs(const std::vector<Job>& jobs, const PoolSettings& settings, std::vector<Result>& results);

} // namespace tools
