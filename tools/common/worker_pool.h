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

// Convert them all, at most `atOnce` at a time; a result for each job, in their order. 0; or the number of
// the signal that came, on which the conversions that ran have been ended and their files removed, and there
// are results of the jobs that were begun only.
int run_jobs(const std::vector<Job>& jobs, const PoolSettings& settings, std::vector<Result>& results);

} // namespace tools
