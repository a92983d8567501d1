// An output file that appears under its name only when it is complete. Until then it lies beside it under a
// temporary name, which goes away with the record, and on SIGINT, SIGTERM and SIGHUP.
#pragma once

#include <span>
#include <string>

#include <sys/types.h>

namespace tools {

struct TempOutput
{
    std::string target; // the name asked for; where it is a symbolic link, what it points to. The file may
                        // be given another one before it is committed.
    std::string path;   // the temporary name; empty when there is none
    int fd = -1;        // locked as long as the file has that name
    mode_t rights = 0;  // what it is to have of them when it is committed
    TempOutput* next = nullptr; // of those that the signals remove

    TempOutput() = default;
    ~TempOutput();
    TempOutput(const TempOutput&) = delete;
    TempOutput& operator=(const TempOutput&) = delete;
};

// Is there a file of this name that is to be kept: unless it may be overwritten, or because somebody writes
// to it? Its name and the way out are in `why`.
bool is_taken(const std::string& name, bool overwrite, std::string& why);

// Create an empty file beside `target`, with what the umask leaves of these rights; its owner may read and
// write it until it is committed. From here on a signal to end removes it and ends the process with 128 + its
// number. False, errno, and the reason in `why`, also (errno 0) when `target` is something that must not be
// replaced, or a link that another user put where all can.
bool create_temp(TempOutput& output, const std::string& target, std::string& why, mode_t rights = 0666);

// Give it the rights of an older file, and its owner and group where we may. The last thing before it is
// committed: a file of another's is not known to be abandoned.
void take_over(TempOutput& output, int older);

// Remove our temporary files in the target's directory whose owners are gone, by a kill or a power failure.
void remove_abandoned_temps(const std::string& target);

// Put the file in its place, on the disk first. Unless it may `replace` one, somebody else's file that has
// come there meanwhile stands in its way. False, errno, and the reason in `why`; an older file is then
// unharmed.
bool commit_temp(TempOutput& output, std::string& why, bool replace = true);

// The same for several in one directory: a signal finds all of them in their places, or none.
bool commit_temps(std::span<TempOutput* const> outputs, std::string& why, bool replace = true);

} // namespace tools
