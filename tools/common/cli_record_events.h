// How a recording goes, told while it goes on.
#pragma once

#include "cli_events.h"
#include "publisher.h"

#include <chrono>
#include <string>

namespace cli {

void tell_finished(Events& events, const tools::Published& published);

// What was told of a stream last, for its rate since.
struct Told
{
    uint64_t bytes = 0;
    std::chrono::steady_clock::time_point at;
};

// The part file is empty, and the report too, as long as nothing is recorded. `bytes` came from the peer, of
// whose frames so many could not be written.
void tell_recording(Events& events, Told& told, const std::string& peer, const std::string& partFile,
                    uint64_t bytes, const SdvReport& report, uint64_t notWritten);

} // namespace cli
