#include "sdv_stats.h"

#include "Quorlin.h"
#include "adts.h"
#include "annexb.h"
#include "cause.h"
#include "frame_numbers.h"

#include <algorithm>

namespace sdv {
namespace {

constexpr int CodeAlaw = 1, CodeMulaw = 2, CodeAac = 22;
constexpr size_t G711Prefix = 4;
constexpr size_t EncipheredBytes = 64;
constexpr size_t ParameterSets = 4096; // bytes of a key frame in which its parameter sets lie
constexpr uint32_t LongestStepMs = 60'000;

Bin& bin_at(Chart& chart, uint64_t position)
{
    while (position / chart.width >= MostBins) {
        for (size_t i = 0; i < chart.bins.size(); ++i) {
            const Bin bin = chart.bins[i];
            if (i % 2 == 0) chart.bins[i / 2] = {};
            Bin& to = chart.bins[i / 2];
            to.frames += bin.frames;
            to.keyFrames += bin.keyFrames;
            to.audioSlots += bin.audioSlots;
            to.bytes += bin.bytes;
            to.largest = std::max(to.largest, bin.largest);
            to.damage += bin.damage;
            to.missing += bin.missing;
            to.busiest = std::max(to.busiest, bin.busiest);
            if (i % 2 == 0) to.begins = bin.begins;
        }
        chart.bins.resize((chart.bins.size() + 1) / 2);
        chart.width *= 2;
    }
    const size_t place = size_t(position / chart.width);
    if (chart.bins.size() <= place) chart.bins.resize(place + 1);
    return chart.bins[place];
}

// Of the place that has been reached. Until there are time stamps, frames tell the time.
double seconds_so_far(const Stats& stats)
{
    if (has_time_stamps(stats)) return double(stats.stampedMs) / 1000;
    return played_duration(stats).value_or(0);
}

uint32_t slots_of(const S_FrameHeader& header)
{
    return (header.u16AFrames >> 8) + (header.u16AFrames & 0xFFu);
}

void add_numbering(Stats& stats, const ScannedFrame& frame, double seconds)
{
    const uint32_t before = stats.last->u32FrameNO, after = frame.header.u32FrameNO;
    const uint32_t step = after - before;
    uint64_t missing = 0;
    if (step != 1) {
        missing = missing_between(before, after);
        stats.missing += missing;
        ++stats.numberGapCount;
        if (stats.numberGaps.size() < MostListed)
            stats.numberGaps.push_back({frame.offset, before, after, missing, seconds});
        bin_at(stats.byFrame, stats.frames).missing += missing;
    }
    if (stats.openGap && (step == 1 || missing)) stats.damage[*stats.openGap].lost = missing;
}

void add_time(Stats& stats, const S_FrameHeader& header)
{
    const uint32_t step = header.u32TimeStamp - stats.last->u32TimeStamp;
    if (step > LongestStepMs) {
        ++stats.timeJumps;
        return;
    }
    stats.stampedMs += step;
    if (header.u32FrameNO - stats.last->u32FrameNO != 1) return;
    ++stats.steps;
    stats.stepsMs += step;
}

void add_key_frame(Stats& stats)
{
    ++stats.keyFrames;
    if (stats.lastKey) {
        const uint64_t interval = stats.frames - *stats.lastKey;
        ++stats.keyIntervals;
        stats.keyIntervalSum += interval;
        stats.keyIntervalMax = std::max(stats.keyIntervalMax, interval);
    }
    stats.lastKey = stats.frames;
}

void add_picture_size(Stats& stats, std::span<const uint8_t> video)
{
    const auto start = video.first(std::min(video.size(), ParameterSets));
    for (const annexb::Nal& nal : annexb::split_nals(start)) {
        sps::PictureSize size;
        if (!sps::picture_size(start.subspan(nal.payload, nal.end - nal.payload), size)) continue;
        if (stats.picture && (stats.picture->width != size.width || stats.picture->height != size.height))
            ++stats.pictureChanges;
        stats.picture = size;
        return;
    }
}

void add_aac(Stats& stats, std::span<const uint8_t> slot)
{
    const adts::Split split = adts::split(slot);
    stats.samples += split.frames.size() * adts::SAMPLES_PER_FRAME;
    if (split.frames.empty()) {
        ++stats.brokenSlots;
        return;
    }
    stats.ownRate = split.frames.back().header.sampleRate;
    stats.ownChannels = split.frames.back().header.channels;
}

// Enciphered bytes cannot be tested.
void add_g711(Stats& stats, std::span<const uint8_t> slot, bool readable)
{
    std::array<uint8_t, G711Prefix> prefix{}; // the call takes writable bytes
    std::copy_n(slot.begin(), std::min(slot.size(), prefix.size()), prefix.begin());
    if (readable && !CheckAudio(stats.audioCode, prefix.data(), int(slot.size())))
        ++stats.brokenSlots;
    else if (slot.size() > G711Prefix)
        stats.samples += (slot.size() - G711Prefix) / audio_channels(stats);
}

void add_audio(Stats& stats, const ScannedFrame& frame)
{
    const int code = frame.header.u8ACoder;
    if (!stats.audioCode && (code == CodeAlaw || code == CodeMulaw || code == CodeAac))
        stats.audioCode = code;
    const size_t size = frame.header.u16AFrameSize;
    if (!stats.audioCode || !size) return;

    const size_t before = frame.header.u16AFrames >> 8;
    const bool closed = frame.cipher == Cipher::NoKey || frame.cipher == Cipher::WrongKey;
    for (size_t i = 0; i < slots_of(frame.header); ++i) {
        const size_t at = i * size + (i < before ? 0 : frame.header.u32VStreamLen);
        const bool readable = !closed || at >= EncipheredBytes;
        const auto slot = frame.bytes.subspan(sizeof(S_FrameHeader) + at, size);
        ++stats.audioSlots;
        if (stats.audioCode != CodeAac)
            add_g711(stats, slot, readable);
        else if (readable)
            add_aac(stats, slot);
    }
}

void add_cipher(Stats& stats, Cipher cipher)
{
    if (cipher == Cipher::Plain) return;
    ++stats.enciphered;
    if (cipher == Cipher::Opened) ++stats.opened;
    if (cipher == Cipher::WrongKey) ++stats.wrongKey;
}

// The video and the audio of a frame whose parts lie within it.
void add_parts(Stats& stats, const ScannedFrame& frame)
{
    const S_FrameHeader& header = frame.header;
    const size_t before = size_t(header.u16AFrames >> 8) * header.u16AFrameSize;
    stats.videoBytes += header.u32VStreamLen;
    stats.audioBytes += uint64_t{slots_of(header)} * header.u16AFrameSize;
    add_audio(stats, frame);
    if (header.u8FrameType == 0)
        add_picture_size(stats, frame.bytes.subspan(sizeof(header) + before, header.u32VStreamLen));
}

void add_to_charts(Stats& stats, const ScannedFrame& frame)
{
    const uint64_t second = stats.stampedMs / 1000;
    if (second != stats.second) stats.secondBytes = 0;
    stats.second = second;
    stats.secondBytes += frame.bytes.size();
    for (Bin* bin : {&bin_at(stats.byFrame, stats.frames), &bin_at(stats.bySecond, second)}) {
        if (!bin->frames) bin->begins = seconds_so_far(stats);
        bin->busiest = std::max(bin->busiest, stats.secondBytes);
        ++bin->frames;
        bin->keyFrames += stats.lastKey == stats.frames;
        bin->audioSlots += is_consistent(frame) ? slots_of(frame.header) : 0;
        bin->bytes += frame.bytes.size();
        bin->largest = std::max<uint64_t>(bin->largest, frame.bytes.size());
    }
}

std::optional<double> over(double sum, double count)
{
    return count > 0 ? std::optional(sum / count) : std::nullopt;
}

} // namespace

void begin_stats(Stats& stats, const RecordingFile& file, bool keyGiven)
{
    stats.header = file.header;
    stats.borrowed = file.borrowed;
    stats.fileSize = file.size;
    stats.keyGiven = keyGiven;
}

void add_frame(Stats& stats, const ScannedFrame& frame)
{
    const bool mpeg4 = stats.header.Mode == 11;
    const S_FrameHeader& header = frame.header;
    ++stats.fates[size_t(frame.fate)];
    stats.frameBytes += frame.bytes.size();
    add_cipher(stats, frame.cipher);
    // Neither has a place among the others.
    if (!mpeg4 && is_consistent(frame) && header.u32FrameNO != 0) {
        if (stats.last) {
            const double before = seconds_so_far(stats);
            add_time(stats, header);
            add_numbering(stats, frame, before);
        }
        stats.last = header;
        stats.openGap.reset();
        if (header.u8FrameType == 0) add_key_frame(stats);
        stats.keptKeyFrames += header.u8FrameType == 0 && frame.fate == Fate::Recorded;
        add_parts(stats, frame);
    }
    add_to_charts(stats, frame);
    ++stats.frames;
}

void add_gap(Stats& stats, const Gap& gap)
{
    ++stats.damageCount;
    stats.damageBytes += gap.length;
    stats.unreadableBytes += gap.unreadable;
    if (!gap.inFrame) stats.openGap.reset();
    if (stats.damage.size() < MostListed) {
        if (!gap.inFrame) stats.openGap = stats.damage.size();
        stats.damage.push_back(
            {gap, gap.inFrame ? std::optional<uint64_t>(0) : std::nullopt, seconds_so_far(stats)});
    }
    ++bin_at(stats.byFrame, stats.frames).damage;
    ++bin_at(stats.bySecond, stats.stampedMs / 1000).damage;
}

bool has_time_stamps(const Stats& stats)
{
    return stats.stampedMs > 0;
}

std::optional<double> real_rate(const Stats& stats)
{
    return over(1000.0 * double(stats.steps), double(stats.stepsMs));
}

std::optional<double> played_duration(const Stats& stats)
{
    return over(double(stats.frames), stats.header.FrameRate);
}

std::optional<double> shown_rate(const Stats& stats)
{
    const auto real = real_rate(stats);
    return real || !stats.header.FrameRate ? real : std::optional<double>(stats.header.FrameRate);
}

double duration(const Stats& stats)
{
    if (!has_time_stamps(stats)) return played_duration(stats).value_or(0);
    const auto rate = real_rate(stats);
    return double(stats.stampedMs) / 1000 + (rate ? 1 / *rate : 0); // the last picture is also shown
}

uint32_t audio_rate(const Stats& stats)
{
    if (stats.ownRate) return stats.ownRate;
    const uint32_t rate = stats.header.SamplesPerSec;
    return rate == 0 || rate == UINT32_MAX ? 8000 : rate;
}

uint32_t audio_channels(const Stats& stats)
{
    if (stats.ownChannels) return stats.ownChannels;
    const uint32_t channels = stats.header.AChannels;
    return channels == 0 || channels == 255 ? 1 : channels;
}

std::optional<double> audio_duration(const Stats& stats)
{
    return stats.samples ? over(double(stats.samples), audio_rate(stats)) : std::nullopt;
}

std::optional<double> key_interval(const Stats& stats)
{
    return over(double(stats.keyIntervalSum), double(stats.keyIntervals));
}

double bit_rate(const Stats& stats, uint64_t bytes)
{
    return over(8.0 * double(bytes), duration(stats)).value_or(0);
}

double peak_bit_rate(const Stats& stats)
{
    uint64_t most = 0;
    for (const Bin& bin : stats.bySecond.bins) most = std::max(most, bin.busiest);
    return has_time_stamps(stats) ? 8.0 * double(most) : 0;
}

bool is_damaged(const Stats& stats)
{
    return !stats.borrowed.empty() || stats.damageCount || stats.numberGapCount ||
           stats.fates[size_t(Fate::Inconsistent)];
}

uint64_t shut_frames(const Stats& stats)
{
    return stats.fates[size_t(Fate::NoKey)] + stats.fates[size_t(Fate::WrongKey)];
}

uint64_t lost_frames(const Stats& stats)
{
    const uint64_t seen = stats.frames + stats.missing, told = stats.header.FrameCount;
    const bool untold = std::any_of(stats.damage.begin(), stats.damage.end(),
                                    [](const DamagePlace& place) { return !place.lost; });
    const uint64_t more = untold && told > seen && told - seen <= LongestLoss ? told - seen : 0;
    return seen + more - stats.fates[size_t(Fate::Recorded)] - shut_frames(stats);
}

// Of MPEG-4 frames nobody knows which are key frames.
bool plays(const Stats& stats)
{
    const bool mpeg4 = stats.header.Mode == 11;
    return mpeg4 ? stats.fates[size_t(Fate::Recorded)] > 0 : stats.keptKeyFrames > 0;
}

State state_of(const Stats& stats)
{
    if (shut_frames(stats)) return State::NeedsKey;
    return is_damaged(stats) || lost_frames(stats) || !plays(stats) ? State::Lost : State::Kept;
}

const char* state_word(State state)
{
    const char* const words[] = {"kept", "needs_key", "lost"};
    return words[size_t(state)];
}

const char* cause_text(Cause cause)
{
    const char* const texts[] = {"noise, or a frame without its header",
                                 "zeros: never written",
                                 "bytes FF: erased memory",
                                 "a frame header whose sizes do not add up",
                                 "bytes are missing in the frame before",
                                 "the last frame is cut off",
                                 "cannot be read: the disk or card fails"};
    return texts[size_t(cause)];
}

const char* cause_code(Cause cause)
{
    using namespace cli::cause;
    const char* const codes[] = {Garbage, Zeros, Erased, BadHeader, BytesLost, CutOff, CannotRead};
    return codes[size_t(cause)];
}

const char* fate_code(Fate fate)
{
    using namespace cli::cause;
    const char* const codes[Fates] = {nullptr, BeforeKeyFrame, Number0, NoKey, WrongKey, Inconsistent};
    return codes[size_t(fate)];
}

const char* fate_text(Fate fate)
{
    const char* const texts[Fates] = {"recorded",
                                      "before the first key frame",
                                      "numbered 0",
                                      "encrypted, without a key",
                                      "that the key does not open",
                                      "inconsistent"};
    return texts[size_t(fate)];
}

const char* audio_text(int code)
{
    if (code == CodeAac) return "AAC";
    if (!code) return "none";
    return code == CodeAlaw ? "G.711 A-law" : "G.711 mu-law";
}

const char* key_text(const Stats& stats)
{
    if (!stats.enciphered) return "nothing encrypted";
    if (!stats.keyGiven) return "not given";
    if (!stats.opened) return "no";
    return stats.wrongKey ? "partly" : "yes";
}

} // namespace sdv
