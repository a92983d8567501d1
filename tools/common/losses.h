// What of a camera's stream is in no file, by cause, and when to tell of it.
#pragma once

#include "why.h"

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

namespace tools {

// Behind one another as they explain why nothing at all was recorded.
enum class Loss
{
    no_key,
    wrong_key,
    no_key_frame, // nothing to begin a file with, yet
    number_0,
    inconsistent,
    not_written,
    garbage // bytes in no frame
};
constexpr size_t LossKinds = size_t(Loss::garbage) + 1;

struct Lost
{
    uint64_t frames = 0;
    uint64_t bytes = 0;
};

struct Losses
{
    std::array<Lost, LossKinds> all{};

    Lost& operator[](Loss loss) { return all[size_t(loss)]; }
    const Lost& operator[](Loss loss) const { return all[size_t(loss)]; }
};

void lose_frames(Losses& losses, Loss loss, uint64_t frames, uint64_t bytes);
uint64_t frames_lost(const Losses& losses);

// The code and the text of a cause.
Why why_lost(Loss loss);

// What the exit code is when all of a stream was lost. Nothing when nothing was.
std::optional<Outcome> outcome_of(const Losses& losses);

// Why the library would drop this frame, which is a whole one of a stream of the job's m_Header. Nothing when
// it would record the frame. Tells it of a frame that nobody wants to give to the library yet.
std::optional<Loss> foreseen_loss(std::span<const uint8_t> frame);

// What was told of a stream's losses so far. Each cause is told when it begins, and again while it goes on:
// after 10 seconds, and then more and more rarely, down to once a minute.
struct LossNotes
{
    using Clock = std::chrono::steady_clock;
    struct Note
    {
        Lost told;
        Clock::time_point next;
        std::chrono::seconds pause{};
    };
    std::array<Note, LossKinds> notes{};
};

struct FreshLoss
{
    Loss loss;
    Lost lost; // since it was told last
};

// What it is time to tell; `all` that was not told when the stream is over. What could not be written is not
// among it: that is told where the disk's trouble is.
std::vector<FreshLoss> take_due(LossNotes& notes, const Losses& losses, LossNotes::Clock::time_point now,
                                bool all);

} // namespace tools
