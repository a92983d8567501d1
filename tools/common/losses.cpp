#include "losses.h"

#include "Quorlin.h"

#include <algorithm>
#include <cstring>

namespace tools {
namespace {

constexpr size_t Enciphered = 64; // bytes of the payload
constexpr std::chrono::seconds FirstPause{10}, LongestPause{60};
constexpr int KeyMissing = -2, KeyDoesNotFit = -4; // of CA_DecryptFrame()

struct Kind
{
    const char* code;
    const char* text;
    cli::Exit exit; // when all is lost to it
};

constexpr std::array<Kind, LossKinds> Kinds = {{
    {cli::cause::NoKey, "the stream is encrypted, and no key is given", cli::KeyTrouble},
    {cli::cause::WrongKey, "the stream is encrypted, and the key does not fit", cli::KeyTrouble},
    {cli::cause::NoKeyFrame, "there is no key frame yet to begin a file with", cli::NoKeyFrame},
    {cli::cause::Number0, "they are numbered 0", cli::Failed},
    {cli::cause::Inconsistent, "their parts do not lie within them", cli::Failed},
    {cli::cause::NotWritten, "they could not be written", cli::NoOutput},
    {cli::cause::Garbage, "they are in no frame", cli::Failed},
}};

bool is_anything(const Lost& lost)
{
    return lost.frames || lost.bytes;
}

bool fits_together(const S_FrameHeader& header, size_t size)
{
    const uint64_t slots = (header.u16AFrames >> 8) + (header.u16AFrames & 0xFFu);
    return sizeof(header) + slots * header.u16AFrameSize + header.u32VStreamLen <= size;
}

} // namespace

void lose_frames(Losses& losses, Loss loss, uint64_t frames, uint64_t bytes)
{
    losses[loss].frames += frames;
    losses[loss].bytes += bytes;
}

uint64_t frames_lost(const Losses& losses)
{
    uint64_t sum = 0;
    for (const Lost& lost : losses.all) sum += lost.frames;
    return sum;
}

Why why_lost(Loss loss)
{
    const Kind& kind = Kinds[size_t(loss)];
    return {kind.code, kind.text};
}

std::optional<Outcome> outcome_of(const Losses& losses)
{
    const auto first = std::find_if(losses.all.begin(), losses.all.end(), is_anything);
    if (first == losses.all.end()) return std::nullopt;
    const Kind& kind = Kinds[size_t(first - losses.all.begin())];
    return Outcome{kind.exit, {kind.code, kind.text}};
}

// On a copy: what is deciphered twice is enciphered again.
std::optional<Loss> foreseen_loss(std::span<const uint8_t> frame)
{
    S_FrameHeader header;
    std::array<uint8_t, sizeof(header) + Enciphered> start;
    const size_t count = std::min(frame.size(), start.size());
    memcpy(&header, frame.data(), sizeof(header));
    memcpy(start.data(), frame.data(), count);
    if (header.u32FrameNO == 0) return Loss::number_0;
    const int deciphered = CA_DecryptFrame(start.data(), int(count), 0);
    if (deciphered == KeyMissing) return Loss::no_key;
    if (deciphered == KeyDoesNotFit) return Loss::wrong_key;
    return fits_together(header, frame.size()) ? std::nullopt : std::optional(Loss::inconsistent);
}

// A cause that was away for long is told as if it were new.
std::vector<FreshLoss> take_due(LossNotes& notes, const Losses& losses, LossNotes::Clock::time_point now,
                                bool all)
{
    std::vector<FreshLoss> due;
    for (size_t i = 0; i < LossKinds; ++i) {
        LossNotes::Note& note = notes.notes[i];
        const Lost since = {losses.all[i].frames - note.told.frames, losses.all[i].bytes - note.told.bytes};
        if (Loss(i) == Loss::not_written || !is_anything(since) || (now < note.next && !all)) continue;
        const bool anew = note.pause.count() == 0 || now - note.next > LongestPause;
        note.pause = anew ? FirstPause : std::min(2 * note.pause, LongestPause);
        note.next = now + note.pause;
        note.told = losses.all[i];
        due.push_back({Loss(i), since});
    }
    return due;
}

} // namespace tools
