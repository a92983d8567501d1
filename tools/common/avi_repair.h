// Finishing an AVI file whose recording was cut off, by a power failure or a kill: its chunks are there, its
// headers and its index are not. The result is what the recorder writes when it stops behind the last whole
// chunk.
#pragma once

#include "avi_hints.h"

#include <atomic>
#include <functional>

namespace tools {

// Finish the file in its place. Should that be cut off as well, it can be done again. A file that is sound is
// left as it is, and so is one that holds anything but chunks, or that a recorder writes to. True, and what
// was done in `why`; or false, and the reason. Uses the library's job: not while this process records or
// converts. May handle the signals to end meanwhile, see temp_output.h.
bool repair_avi(const std::string& path, const AviHints& hints, std::string& why);

// What a repair needs while this process records as well.
struct Beside
{
    const std::atomic<bool>* stop = nullptr; // once set, the repair ends soon, and can be run again
    std::function<void(const std::function<void()>&)> withJob = {}; // calls it when nobody uses the job
};

// The same for whoever holds the file's lock. A file that had to be written anew has none afterwards.
bool repair_locked(const std::string& path, const AviHints& hints, const Beside& beside, std::string& why);

// The same into a file beside; the first one stays as it is. One that is sound is copied. Unless it may
// `replace` one, a file that is there already, or comes there meanwhile, stands in its way.
bool repair_avi_into(const std::string& path, const std::string& output, const AviHints& hints,
                     std::string& why, bool replace = true);

} // namespace tools
