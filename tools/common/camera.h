// The one camera of a recorder: its connection, and what came of its stream.
#pragma once

#include "avi_files.h"
#include "frame_cutter.h"
#include "losses.h"
#include "pulse.h"
#include "why.h"

#include "libos.h"

#include <cstdint>
#include <optional>
#include <string>

namespace tools {

struct Camera
{
    TcpClient* client = nullptr; // none is there, nor called
    bool there = false;          // else it is being called
    std::string peer;
    Why whyLost = {cli::cause::PeerClosed, "it ended the connection"};
    sdv::FrameCutter cutter;
    bool prepared = false; // the file header has come, and the library's job and the files' counts are ours
    uint64_t bytes = 0;
    int readsInRow = 0;
    bool unread = false; // something may wait that no event will tell of
    Pulse pulse;
    LossNotes notes;
};

// What of its stream is in no file.
Losses stream_losses(const Camera& camera, const AviFiles& files);

// Why nothing of its stream was recorded; nothing when something was.
std::optional<Outcome> why_nothing(const Camera& camera, const AviFiles& files);

// "192.168.0.7:41000"
std::string peer_of(TcpClient* client);

// A peer whose machine has gone says nothing, and sends no end either.
void watch_peer(const TcpClient* client);

} // namespace tools
