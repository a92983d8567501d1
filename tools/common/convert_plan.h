// Which recordings are to become which files.
#pragma once

#include "convert_job.h"

namespace tools {

struct PlanRequest
{
    std::vector<std::string> inputs; // recordings, folders of them, "-"
    std::string output;              // a file or a folder; empty: beside the inputs
    bool recurse = false;
    bool nameByStart = false;
};

// One job for each recording; one that cannot be converted is refused already. False, and the reason in
// `why`, when they cannot all be done: two would get one name, or one would replace another's input.
bool plan_jobs(const PlanRequest& request, std::vector<Job>& jobs, std::string& why);

} // namespace tools
