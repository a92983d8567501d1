#include "sdv_facts.h"

#include "human.h"
#include "recording_name.h"

#include <cmath>

namespace sdv {
namespace {

using tools::counted;

double rounded(double value)
{
    return std::round(value * 1000) / 1000;
}

std::string number(const char* format, double value)
{
    char text[64];
    snprintf(text, sizeof(text), format, value);
    return text;
}

Fact count(const char* id, const char* label, uint64_t value)
{
    return {id, label, std::to_string(value), value, true};
}

Fact words(const char* id, const char* label, const std::string& text)
{
    return {id, label, text, text};
}

Fact amount(const char* id, const char* label, const char* format, std::optional<double> value)
{
    if (!value) return {id, label, "not told", {}};
    return {id, label, number(format, *value), rounded(*value)};
}

Fact bits(const char* id, const char* label, double value)
{
    return {id, label, number("%.1f kbit/s", value / 1000), rounded(value)};
}

std::string start_text(const S_FileHeader& header)
{
    char text[64];
    snprintf(text, sizeof(text), "%04u-%02u-%02u %02u:%02u:%02u", header.Year, header.Month, header.Day,
             header.Hour, header.Minute, header.Second);
    return text;
}

FactGroup recording_facts(const Stats& stats)
{
    const S_FileHeader& header = stats.header;
    FactGroup group{"Recording", {}};
    group.facts = {
        {"size", "Size", tools::human_bytes(stats.fileSize), stats.fileSize},
        count("header/mode", "Stream mode", header.Mode),
        {"header/start", "Start", start_text(header), start_text(header)},
        count("header/frames", "Frames, as the header says", header.FrameCount),
        {"header/size", "Size, as the header says", tools::human_bytes(header.TotalSize),
         uint64_t{header.TotalSize}},
        count("frames/found", "Frames found", stats.frames),
        count("frames/recorded", "Frames that a conversion keeps", stats.fates[size_t(Fate::Recorded)]),
    };
    if (!tools::start_of(header)) group.facts[2].text += " (no date)";
    const std::pair<Fate, const char*> dropped[] = {{Fate::BeforeKeyFrame, "frames/beforeKeyFrame"},
                                                    {Fate::Numbered0, "frames/numbered0"},
                                                    {Fate::NoKey, "frames/noKey"},
                                                    {Fate::WrongKey, "frames/wrongKey"},
                                                    {Fate::Inconsistent, "frames/inconsistent"}};
    for (const auto& [fate, id] : dropped) {
        const std::string label = std::string("Frames ") + fate_text(fate);
        group.facts.push_back(count(id, label.c_str(), stats.fates[size_t(fate)]));
        group.facts.back().worthALine = stats.fates[size_t(fate)] > 0;
    }
    return group;
}

FactGroup time_facts(const Stats& stats)
{
    const double seconds = duration(stats);
    const bool stamped = has_time_stamps(stats);
    const char* const source = stamped ? "time stamps as milliseconds" : "the header's frame rate";
    return {"Time",
            {{"time/seconds", "Duration", tools::human_duration(seconds) + number(" (%.2f s)", seconds),
              rounded(seconds)},
             words("time/source", "Measured by", source),
             count("time/headerRate", "Frames a second, as the header says", stats.header.FrameRate),
             amount("time/realRate", "Frames a second, really", "%.2f", real_rate(stats)),
             count("time/jumps", "Jumps of the time stamps", stats.timeJumps),
             bits("rate/total", "Bit rate", bit_rate(stats, stats.frameBytes)),
             bits("rate/peak", "Highest bit rate", peak_bit_rate(stats)),
             bits("rate/video", "Bit rate of the video", bit_rate(stats, stats.videoBytes)),
             bits("rate/audio", "Bit rate of the audio", bit_rate(stats, stats.audioBytes))}};
}

Fact size_fact(const Stats& stats)
{
    const auto& header = stats.header;
    const std::string told = std::to_string(header.Width) + " x " + std::to_string(header.Height);
    return {"picture/header", "Picture size, as the header says", told, told};
}

FactGroup picture_facts(const Stats& stats)
{
    FactGroup group{"Picture", {size_fact(stats)}};
    Fact own{"picture/stream", "Picture size, as the stream says", "not told", {}};
    Fact agrees{"picture/agrees", "The two agree", "not told", {}};
    if (stats.picture) {
        own.text = std::to_string(stats.picture->width) + " x " + std::to_string(stats.picture->height);
        own.value = own.text;
        const bool same = own.text == group.facts[0].text;
        agrees = {agrees.id, agrees.label, same ? "yes" : "no", same};
    }
    group.facts.insert(
        group.facts.end(),
        {own, agrees, count("picture/changes", "Changes of the size", stats.pictureChanges),
         count("keyFrames/count", "Key frames", stats.keyFrames),
         amount("keyFrames/interval", "Frames from key frame to key frame", "%.1f", key_interval(stats)),
         count("keyFrames/longest", "At most", stats.keyIntervalMax)});
    return group;
}

FactGroup audio_facts(const Stats& stats)
{
    FactGroup group{"Audio", {words("audio/coding", "Coding", audio_text(stats.audioCode))}};
    if (!stats.audioCode) return group;
    const auto lasts = audio_duration(stats), played = played_duration(stats);
    std::optional<double> drift, playedDrift;
    if (lasts && has_time_stamps(stats)) drift = *lasts - duration(stats);
    if (lasts && played) playedDrift = *lasts - *played;
    group.facts.insert(
        group.facts.end(),
        {count("audio/headerRate", "Samples a second, as the header says", stats.header.SamplesPerSec),
         count("audio/rate", "Samples a second", audio_rate(stats)),
         count("audio/channels", "Channels", audio_channels(stats)),
         count("audio/slots", "Slots", stats.audioSlots),
         count("audio/unusable", "Slots that a conversion leaves out", stats.brokenSlots),
         amount("audio/seconds", "Length", "%.2f s", lasts),
         amount("audio/drift", "Drift from the time stamps of the video", "%+.3f s", drift),
         amount("audio/playedDrift", "Drift from pictures at the header's rate", "%+.3f s", playedDrift)});
    return group;
}

FactGroup encryption_facts(const Stats& stats)
{
    const double share = stats.frames ? double(stats.enciphered) / double(stats.frames) : 0;
    return {"Encryption",
            {count("encryption/frames", "Encrypted frames", stats.enciphered),
             {"encryption/share", "Share of all frames", number("%.1f %%", 100 * share), rounded(share)},
             words("encryption/keyFits", "The key fits", key_text(stats))}};
}

FactGroup damage_facts(const Stats& stats)
{
    return {"Damage",
            {count("damage/places", "Damaged places", stats.damageCount),
             {"damage/bytes", "Bytes in them", tools::human_bytes(stats.damageBytes), stats.damageBytes},
             {"damage/unreadable", "Bytes that cannot be read", tools::human_bytes(stats.unreadableBytes),
              stats.unreadableBytes, stats.unreadableBytes > 0},
             count("numbering/gaps", "Places where the numbers jump", stats.numberGapCount),
             count("numbering/missing", "Frames missing by their numbers", stats.missing)}};
}

// "0.04 s", "12.5 s", "3:20 min", "1:02:03 h".
std::string length_text(double seconds)
{
    if (seconds < 59.95) return number(seconds > 0 && seconds < 0.1 ? "%.2f s" : "%.1f s", seconds);
    return tools::human_duration(seconds) + (seconds < 3599.5 ? " min" : " h");
}

std::string lost_text(const Stats& stats)
{
    const uint64_t lost = lost_frames(stats);
    const uint64_t all = lost + shut_frames(stats) + stats.fates[size_t(Fate::Recorded)];
    const auto rate = shown_rate(stats);
    if (!all) return "no frame in it";
    const std::string whole = rate ? length_text(double(all) / *rate) : counted(all, "frame");
    if (!lost) return "nothing lost of " + whole;
    return (rate ? length_text(double(lost) / *rate) : std::to_string(lost)) + " of " + whole + " lost";
}

std::string key_verdict(const Stats& stats)
{
    const std::string shut = std::to_string(shut_frames(stats)) + " of " + counted(stats.frames, "frame");
    if (!stats.keyGiven) return "needs a key: " + shut + " are encrypted";
    return "needs another key: this one does not open " + shut;
}

std::string damage_verdict(const Stats& stats)
{
    std::string text;
    if (!stats.borrowed.empty()) text += "; its file header is lost";
    if (stats.damageCount) text += "; " + counted(stats.damageCount, "damaged place");
    if (stats.numberGapCount)
        text += "; " + counted(stats.numberGapCount, "numbering gap") + " (" +
                counted(stats.missing, "frame") + " missing)";
    for (const Fate fate : {Fate::BeforeKeyFrame, Fate::Numbered0, Fate::Inconsistent})
        if (stats.fates[size_t(fate)])
            text += "; " + counted(stats.fates[size_t(fate)], "frame") + " " + fate_text(fate);
    if (stats.openGap) text += "; its end is torn";
    return text;
}

} // namespace

std::vector<FactGroup> facts_of(const Stats& stats)
{
    return {recording_facts(stats), time_facts(stats),       picture_facts(stats),
            audio_facts(stats),     encryption_facts(stats), damage_facts(stats)};
}

std::string verdict(const Stats& stats)
{
    const bool shut = shut_frames(stats) > 0;
    std::string text = shut ? key_verdict(stats) : lost_text(stats);
    if (plays(stats))
        text += shut ? "; plays in part" : "; plays";
    else if (!shut && stats.frames)
        text += "; no key frame to play from";
    if (shut && lost_frames(stats)) text += "; " + lost_text(stats);
    return text + damage_verdict(stats);
}

std::string place_text(double seconds)
{
    const double tenths = std::floor(std::fmax(seconds, 0) * 10 + 1e-6);
    return tools::human_duration(std::floor(tenths / 10)) + number(".%.0f", std::fmod(tenths, 10));
}

} // namespace sdv
