// Audio dealt out to the pictures of a recording. The slots of one picture all have one size, and what the
// slots carry, in picture order, is the audio byte for byte.
#pragma once

#include <string>
#include <vector>

#include "adts.h"
#include "sdv_build.h"

namespace audio {

using Slots = std::vector<sdv::Bytes>; // of one picture

struct Timing
{
    uint32_t sampleRate;  // Hz, not 0
    uint32_t pictureRate; // pictures a second, not 0
    size_t pictures;      // not 0; audio that lasts longer goes to the last one
};

// G.711: slots of `slotSamples` bytes (1 to 65531) behind a prefix. A shorter rest at the end becomes a slot
// of its own on a picture that has no other. False and the reason in `why` when a picture would carry more
// than 255 slots, or when there is a rest but one picture only.
bool deal_g711(sdv::View samples, size_t slotSamples, const Timing& timing, std::vector<Slots>& dealt,
               std::string& why);

// AAC: up to two ADTS frames in a slot, filled up with zero bytes. False and the reason as above.
bool deal_aac(sdv::View stream, const std::vector<adts::Frame>& frames, const Timing& timing,
              std::vector<Slots>& dealt, std::string& why);

} // namespace audio
