// Which recordings are to become which files.
#pragma once

#include "convert_job.h"
#include "sdv_start.h"

namespace tools {

struct PlanRequest
{
    std::vector<std::string> inputs; // recordings, folders of them, "-"
    std::string output;              // a file or a folder; empty: beside the inputs
    bool recurse = false;
    bool nameByStart = false;
    std::string keyFile; // that no output may replace
    sdv::Like like{};    // for recordings that have lost their file header
};

struct Plan
{
    std::vector<Job> jobs;
    std::vector<std::string> notes; // on what was found and is no job
};

// One job for each recording, and for each folder that cannot be read. Those that cannot be converted are
// refused already, so are those that would get one name, or replace an input. False, and the reason in `why`,
// when the request makes no sense.
bool plan_jobs(const PlanRequest& request, Plan& plan, std::string& why);

} // namespace tools
