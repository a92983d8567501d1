// What a recording is like, counted frame by frame in memory that does not grow with it.
#pragma once

#include "sdv_scan.h"
#include "sps.h"

#include <array>
#include <optional>
#include <vector>

namespace sdv {

constexpr size_t MostBins = 600;   // of a chart
constexpr size_t MostListed = 500; // places in the damage map, and numbering gaps; the counts go on

struct Bin
{
    uint64_t frames = 0, keyFrames = 0, audioSlots = 0;
    uint64_t bytes = 0, largest = 0;
    uint64_t damage = 0, missing = 0; // gaps in the bytes, frames missing by their numbers
    uint64_t busiest = 0;             // bytes in the one second that has most
    double begins = 0;                // seconds behind the recording's start
};

// Bins of equal width, which doubles whenever there would be too many.
struct Chart
{
    uint64_t width = 1;
    std::vector<Bin> bins;
};

struct DamagePlace
{
    Gap gap;
    std::optional<uint64_t> lost; // frames, when the numbers around it tell
    double seconds;               // behind the recording's start
};

struct NumberGap
{
    uint64_t offset; // of the frame behind it
    uint32_t before, after;
    uint64_t missing; // 0 when the numbers go back, or on from somewhere else
    double seconds;
};

struct Stats
{
    S_FileHeader header{};
    std::string borrowed; // where that is from, when it is not the recording's own
    uint64_t fileSize = 0;
    uint64_t frames = 0;
    std::array<uint64_t, Fates> fates{};
    uint64_t videoBytes = 0, audioBytes = 0, frameBytes = 0;

    uint64_t keptKeyFrames = 0; // that a conversion keeps, so that a player can begin there
    uint64_t keyFrames = 0, keyIntervals = 0, keyIntervalSum = 0, keyIntervalMax = 0;

    uint64_t missing = 0, numberGapCount = 0;
    std::vector<NumberGap> numberGaps;
    uint64_t damageCount = 0, damageBytes = 0, unreadableBytes = 0;
    std::vector<DamagePlace> damage;

    // Time stamps are taken for milliseconds. Steps back, and forward by more than a minute, are jumps.
    uint64_t stampedMs = 0, timeJumps = 0;
    uint64_t steps = 0, stepsMs = 0; // between frames whose numbers follow one another

    int audioCode = 0;
    uint64_t audioSlots = 0;
    uint64_t brokenSlots = 0; // that a conversion leaves out
    uint64_t samples = 0;     // for each channel
    uint32_t ownRate = 0, ownChannels = 0;

    std::optional<sps::PictureSize> picture;
    uint64_t pictureChanges = 0;

    uint64_t enciphered = 0, opened = 0, wrongKey = 0;
    bool keyGiven = false;

    Chart byFrame;  // positions are frames
    Chart bySecond; // positions are seconds by the time stamps

    // Where we are.
    uint64_t second = 0, secondBytes = 0; // by the time stamps
    std::optional<S_FrameHeader> last;
    std::optional<uint64_t> lastKey;
    std::optional<size_t> openGap; // in `damage`: behind it no frame has come yet
};

void begin_stats(Stats& stats, const RecordingFile& file, bool keyGiven);
void add_frame(Stats& stats, const ScannedFrame& frame);
void add_gap(Stats& stats, const Gap& gap);

// Figures that follow from the counts; nothing where they do not tell.
std::optional<double> real_rate(const Stats& stats);  // frames a second by the time stamps
double duration(const Stats& stats);                  // in seconds; by the header's rate without time stamps
std::optional<double> shown_rate(const Stats& stats); // the real one, or the header's
bool has_time_stamps(const Stats& stats);
uint32_t audio_rate(const Stats& stats);
uint32_t audio_channels(const Stats& stats);
std::optional<double> audio_duration(const Stats& stats);
std::optional<double> played_duration(const Stats& stats); // of the pictures, at the header's rate
std::optional<double> key_interval(const Stats& stats);    // mean, in frames
double bit_rate(const Stats& stats, uint64_t bytes);
double peak_bit_rate(const Stats& stats);
bool is_damaged(const Stats& stats);

// What its owner is to know first.
enum class State
{
    Kept,     // a conversion keeps every frame, and none is missing
    NeedsKey, // frames are shut that a key, or another one, would open
    Lost      // something is damaged, missing or left out
};
State state_of(const Stats& stats);
const char* state_word(State state); // "kept", "needs_key", "lost"
uint64_t shut_frames(const Stats& stats);
bool plays(const Stats& stats); // of what a conversion keeps, there is something to begin with

// Frames that no key brings back: left out by a conversion, missing by their numbers, or by the header's
// count where damage hides how many.
uint64_t lost_frames(const Stats& stats);

const char* cause_text(Cause cause);
const char* cause_code(Cause cause); // of cli::cause
const char* fate_text(Fate fate);
const char* fate_code(Fate fate); // the same; NULL for a frame that is recorded
const char* audio_text(int code);
const char* key_text(const Stats& stats); // "yes", "no", "partly", "not given", "nothing encrypted"

} // namespace sdv
