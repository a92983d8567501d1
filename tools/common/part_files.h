// Recordings that an earlier run was kept from finishing, by a power failure or a kill.
#pragma once

#include <functional>
#include <string>

namespace tools {

// As long as this lives, no other recorder touches our part files in the directory.
struct DirectoryUse
{
    int fd = -1;

    DirectoryUse() = default;
    ~DirectoryUse();
    DirectoryUse(const DirectoryUse&) = delete;
    DirectoryUse& operator=(const DirectoryUse&) = delete;
};

struct Recovered
{
    std::string path; // its final name; the part name when it could not be finished
    bool finished = false;
    std::string what; // was done, or why not
};

// Begin to use the directory. Part files in it are finished and get their names, unless another recorder is
// at work there, whose they may be; empty ones go. Uses the library's job: not while this process records.
void use_directory(DirectoryUse& use, const std::string& directory,
                   const std::function<void(const Recovered&)>& told);

} // namespace tools
