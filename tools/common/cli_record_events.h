// What a recorder tells: how the recording goes, what is lost, and why it ends.
#pragma once

#include "camera.h"
#include "cli_events.h"
#include "part_files.h"
#include "publisher.h"

#include <chrono>
#include <string>

namespace cli {

// A line on standard error.
void note(Events& events, const std::string& text);

// ---- the files

void tell_recovered(Events& events, const tools::Recovered& file);
void tell_finished(Events& events, const tools::Published& published);
void tell_not_finished(Events& events, const tools::Published& published);
void tell_stalled(Events& events, const tools::AviFiles& files);
void tell_resumed(Events& events, const tools::AviFiles& files);

// ---- the camera

void tell_unreachable(Events& events, const std::string& peer, const std::string& why, int nextCall);

// What it is time to tell of what the camera sends and no file gets.
void tell_losses(Events& events, tools::Camera& camera, const tools::AviFiles& files);

// The camera has gone. What was lost and not told of yet is told before that.
void tell_lost(Events& events, tools::Camera& camera, const tools::AviFiles& files);

// What was told of a stream last, for its rate since.
struct Told
{
    uint64_t bytes = 0;
    std::chrono::steady_clock::time_point at;
};

// How the recording stands.
void tell_recording(Events& events, Told& told, const tools::Camera& camera, const tools::AviFiles& files);

// ---- the end

void tell_stopped(Events& events, int files, const tools::Outcome& outcome);

} // namespace cli
