// The way back: a recording that converts into the same AVI file again.
#pragma once

#include "sdv_build.h"

#include <string>

namespace sdv {

// The frames of an AVI file that was made of a recording, without mode and time stamps, and what its headers
// tell of the recording's. Audio between two pictures goes to the first one if it can. False, and the reason
// in `why`, when the file is not sound, or not one that frames of at most 1 MiB can give.
bool from_avi(const std::string& path, FileFields& header, std::vector<FrameFields>& frames,
              std::string& why);

} // namespace sdv
