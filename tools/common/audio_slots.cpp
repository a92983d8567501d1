#include "audio_slots.h"

#include <algorithm>

namespace audio {

namespace {

const size_t MAX_SLOTS = 255;
const size_t ADTS_PER_SLOT = 2;

// How many of `units` (of `unitSamples` each) begin while each picture is shown.
std::vector<size_t> units_by_picture(size_t units, size_t unitSamples, const Timing& timing)
{
    std::vector<size_t> counts(timing.pictures, 0);
    for (size_t i = 0; i < units; ++i) {
        const uint64_t picture = uint64_t{i} * unitSamples * timing.pictureRate / timing.sampleRate;
        ++counts[std::min<uint64_t>(picture, timing.pictures - 1)];
    }
    return counts;
}

bool refuse(std::string& why, const std::string& reason)
{
    why = reason;
    return false;
}

bool fits(const std::vector<Slots>& dealt, std::string& why)
{
    const auto tooMany = [](const Slots& slots) { return slots.size() > MAX_SLOTS; };
    if (std::none_of(dealt.begin(), dealt.end(), tooMany)) return true;
    return refuse(why, "a picture would carry more than 255 audio slots: the audio is much longer than the "
                       "video, or its slots are too small");
}

// The last unit is shorter than the others. Give it a picture of its own: the next one, or the last, whose
// other units then go to the picture before.
bool set_rest_apart(std::vector<size_t>& counts)
{
    size_t holder = counts.size() - 1;
    while (counts[holder] == 0) --holder;
    if (counts[holder] == 1) return true;
    if (counts.size() == 1) return false;

    if (holder + 1 < counts.size()) {
        --counts[holder];
        ++counts[holder + 1];
    } else {
        counts[holder - 1] += counts[holder] - 1;
        counts[holder] = 1;
    }
    return true;
}

Slots aac_slots(sdv::View stream, std::span<const adts::Frame> frames)
{
    Slots slots;
    size_t largest = 0;
    for (size_t i = 0; i < frames.size(); ++i) {
        if (i % ADTS_PER_SLOT == 0) slots.emplace_back();
        sdv::append(slots.back(), stream.subspan(frames[i].offset, frames[i].header.length));
        largest = std::max(largest, slots.back().size());
    }
    for (sdv::Bytes& slot : slots) slot.resize(largest, 0);
    return slots;
}

} // namespace

bool deal_g711(sdv::View samples, size_t slotSamples, const Timing& timing, std::vector<Slots>& dealt,
               std::string& why)
{
    const size_t units = samples.size() / slotSamples + (samples.size() % slotSamples ? 1 : 0);
    std::vector<size_t> counts = units_by_picture(units, slotSamples, timing);
    if (samples.size() % slotSamples && !set_rest_apart(counts))
        return refuse(why, "a single picture cannot carry audio that is no whole number of slots");

    dealt.assign(timing.pictures, {});
    for (size_t picture = 0; picture < timing.pictures; ++picture) {
        for (size_t i = 0; i < counts[picture]; ++i) {
            const size_t length = std::min(slotSamples, samples.size());
            dealt[picture].push_back(sdv::g711_slot(samples.first(length)));
            samples = samples.subspan(length);
        }
    }
    return fits(dealt, why);
}

bool deal_aac(sdv::View stream, const std::vector<adts::Frame>& frames, const Timing& timing,
              std::vector<Slots>& dealt, std::string& why)
{
    const std::vector<size_t> counts = units_by_picture(frames.size(), adts::SAMPLES_PER_FRAME, timing);
    std::span<const adts::Frame> rest(frames);
    dealt.assign(timing.pictures, {});
    for (size_t picture = 0; picture < timing.pictures; ++picture) {
        dealt[picture] = aac_slots(stream, rest.first(counts[picture]));
        rest = rest.subspan(counts[picture]);
    }
    return fits(dealt, why);
}

} // namespace audio
