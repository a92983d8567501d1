#include "info_page.h"

#include "human.h"

#include <algorithm>

namespace tools {
namespace {

using sdv::Bin;
using sdv::Chart;
using sdv::Stats;

// Charts are drawn as 1000 by 200 and stretched to the page; words stand beside them, where they keep their
// size.
constexpr double ChartWidth = 1000, ChartHeight = 200, StripHeight = 20;

const char* const Style = R"(
:root { color-scheme: light dark; --page: #fff; --text: #1b1f24; --quiet: #59636e; --line: #d1d9e0;
  --key: #b4540a; --frame: #3b78c4; --peak: #a9c8ee; --audio: #2c8a57; --damage: #d1242f; --missing: #8250c4;
  --kept: #1a7f37; --needs_key: #9a6700; --lost: #c61f2b; }
@media screen and (prefers-color-scheme: dark) { :root { --page: #15181c; --text: #e6e9ed; --quiet: #9aa4af;
  --line: #3a424b; --key: #f0a35e; --frame: #6ea8f0; --peak: #34557f; --audio: #5cc08a; --damage: #ff6b6b;
  --missing: #c09af0; --kept: #56d364; --needs_key: #e3b341; --lost: #ff7b72; } }
@media print { :root { color-scheme: light; } section, .row { break-inside: avoid; }
  figure, .swatch { print-color-adjust: exact; -webkit-print-color-adjust: exact; } }
* { box-sizing: border-box; }
body { margin: 0 auto; padding: 1rem; max-width: 64rem; background: var(--page); color: var(--text);
  font: 1rem/1.45 system-ui, sans-serif; overflow-wrap: anywhere; }
h1 { font-size: 1.4rem; margin: 0; }
h2 { font-size: 1.05rem; margin: 1.6rem 0 .4rem; }
.verdict { margin: .5rem 0 0; padding-left: .7rem; border-left: .35rem solid; font-weight: 600; }
.kept { color: var(--kept); } .needs_key { color: var(--needs_key); } .lost { color: var(--lost); }
figure { margin: 0; }
svg { display: block; width: 100%; }
svg.chart { height: 9rem; border-bottom: 1px solid var(--line); }
svg.strip { height: 1rem; background: color-mix(in srgb, var(--line) 35%, transparent); }
.row { margin-top: .7rem; } .row p { margin: 0 0 .15rem; font-size: .85rem; }
.row p span { color: var(--quiet); }
.frame { fill: var(--frame); } .key { fill: var(--key); } .peak { fill: var(--peak); }
.audio { fill: var(--audio); } .damage { fill: var(--damage); } .missing { fill: var(--missing); }
.hit { fill: transparent; } .tick { fill: var(--line); }
.axis { display: flex; justify-content: space-between; color: var(--quiet); font-size: .85rem;
  font-variant-numeric: tabular-nums; }
.axis span { display: flex; justify-content: center; width: 0; white-space: nowrap; }
.axis span:first-child { justify-content: start; } .axis span:last-child { justify-content: end; }
.note, footer { color: var(--quiet); font-size: .85rem; } .note { margin: .4rem 0 0; } footer { margin-top: 2rem; }
svg.swatch { display: inline-block; width: .8em; height: .8em; margin: 0 .35em 0 .7em; }
.groups { display: grid; grid-template-columns: repeat(auto-fit, minmax(min(100%, 22rem), 1fr)); gap: 0 2rem; }
table { width: 100%; border-collapse: collapse; font-size: .92rem; font-variant-numeric: tabular-nums; }
th, td { padding: .25rem .5rem .25rem 0; border-bottom: 1px solid var(--line); text-align: left;
  vertical-align: top; font-weight: normal; }
th { color: var(--quiet); }
.groups td { text-align: right; padding-right: 0; }
td.number, th.number { text-align: right; padding-right: 1rem; }
@media (max-width: 40rem) {
  .places tr:first-child { display: none; }
  .places tr { display: grid; grid-template-columns: 1fr 1fr; gap: 0 1rem; padding: .4rem 0;
    border-bottom: 1px solid var(--line); }
  .places td { display: flex; justify-content: space-between; gap: .5rem; padding: 0; border: 0; }
  .places td::before { content: attr(data-label); color: var(--quiet); }
  .places td.words { grid-column: 1 / 3; } }
)";

std::string escaped(const std::string& text)
{
    std::string safe;
    for (const char letter : text)
        letter == '&' || letter == '<' || letter == '"' ? safe += "&#" + std::to_string(int(letter)) + ";"
                                                        : safe += letter;
    return safe;
}

std::string coordinate(double value)
{
    char text[40];
    snprintf(text, sizeof(text), "%.2f", value);
    return text;
}

std::string machine_text(const sdv::FactValue& value)
{
    if (const auto* flag = std::get_if<bool>(&value)) return *flag ? "true" : "false";
    if (const auto* count = std::get_if<uint64_t>(&value)) return std::to_string(*count);
    if (const auto* text = std::get_if<std::string>(&value)) return *text;
    const auto* amount = std::get_if<double>(&value);
    char text[64] = "";
    if (amount) snprintf(text, sizeof(text), "%.3f", *amount);
    return text;
}

// ---- charts

// Everything is drawn over one axis of time; over frames, where nothing tells the time.
struct Axis
{
    const Stats& stats;
    double seconds;
    uint64_t frames; // of which the chart by frame has room for
};

struct Place
{
    double left, width;
};

double at_second(const Axis& axis, double seconds)
{
    return ChartWidth * std::clamp(seconds / axis.seconds, 0.0, 1.0);
}

double bin_begin(const Axis& axis, size_t place)
{
    const Chart& chart = axis.stats.byFrame;
    const Bin* bin = place < chart.bins.size() ? &chart.bins[place] : nullptr;
    if (!bin || !bin->frames) return ChartWidth;
    return axis.seconds > 0 ? at_second(axis, bin->begins)
                            : ChartWidth * double(place * chart.width) / double(axis.frames);
}

// As wide as its frames last: what is missing between them is a hole.
Place place_of(const Axis& axis, size_t place)
{
    const double left = bin_begin(axis, place), most = bin_begin(axis, place + 1) - left;
    const auto rate = shown_rate(axis.stats);
    if (axis.seconds <= 0 || !rate) return {left, most};
    return {left, std::min(most, at_second(axis, double(axis.stats.byFrame.bins[place].frames) / *rate))};
}

std::string bar(const char* kind, const Place& place, double top, double height)
{
    return "<rect class=\"" + std::string(kind) + "\" x=\"" + coordinate(place.left) + "\" y=\"" +
           coordinate(top) + "\" width=\"" + coordinate(place.width) + "\" height=\"" + coordinate(height) +
           "\"/>";
}

// Each bar reaches a little under the next one, or hairlines would shine through between them.
std::string column(const char* kind, const Place& place, double share)
{
    const double height = ChartHeight * share;
    return bar(kind, {place.left, place.width + 0.5}, ChartHeight - height, height);
}

std::string with_title(const Place& place, const std::string& title)
{
    const std::string area = bar("hit", place, 0, ChartHeight);
    return area.substr(0, area.size() - 2) + "><title>" + title + "</title></rect>\n";
}

std::string swatch(const char* kind, const char* what)
{
    return std::string("<svg class=\"swatch\" viewBox=\"0 0 1 1\" aria-hidden=\"true\"><rect class=\"") +
           kind + "\" width=\"1\" height=\"1\"/></svg>" + what;
}

// What stands above a drawing, and the drawing.
std::string row(const std::string& title, const std::string& about, const char* kind, double height,
                const std::string& drawing)
{
    std::string text = "<div class=\"row\"><p>" + title + " <span>" + about + "</span></p>\n";
    if (drawing.empty()) return text + "</div>\n";
    text += "<svg class=\"" + std::string(kind) + "\" viewBox=\"0 0 1000 " + coordinate(height) +
            "\" preserveAspectRatio=\"none\" role=\"img\" aria-label=\"" + title + "\">\n";
    for (const int quarter : {1, 2, 3})
        text += "<path class=\"tick\" d=\"M" + std::to_string(250 * quarter) + " 0h1v200h-1z\"/>";
    return text + "\n" + drawing + "</svg></div>\n";
}

std::string bin_title(const Axis& axis, size_t place)
{
    const Chart& chart = axis.stats.byFrame;
    const Bin& bin = chart.bins[place];
    const uint64_t first = place * chart.width + 1;
    std::string text = bin.frames ? "frame " + std::to_string(first) : "behind the last frame";
    if (bin.frames > 1) text += " to " + std::to_string(first + bin.frames - 1);
    if (bin.frames && axis.seconds > 0) text += ", " + sdv::place_text(bin.begins);
    text += ": " + human_bytes(bin.largest) + (bin.frames > 1 ? " at most" : "");
    if (bin.keyFrames) text += ", " + counted(bin.keyFrames, "key frame");
    if (bin.damage) text += ", " + counted(bin.damage, "damaged place");
    if (bin.missing) text += ", " + counted(bin.missing, "frame") + " missing";
    return text;
}

std::string size_chart(const Axis& axis)
{
    const Chart& chart = axis.stats.byFrame;
    uint64_t most = 1;
    for (const Bin& bin : chart.bins) most = std::max(most, bin.largest);

    std::string drawing;
    for (size_t i = 0; i < chart.bins.size(); ++i) {
        const Bin& bin = chart.bins[i];
        if (!bin.frames) continue;
        const Place place = place_of(axis, i);
        const double share = double(bin.largest) / double(most);
        drawing += column(bin.keyFrames ? "key" : "frame", place, share);
        if (chart.width > 1)
            drawing += column("frame", place, share * double(bin.bytes) / double(bin.frames * bin.largest));
        drawing += with_title(place, bin_title(axis, i));
    }
    std::string about =
        "up to " + human_bytes(most) + swatch("key", "key frame") + swatch("frame", "other frame");
    if (chart.width > 1)
        about += ". A bar stands for " + std::to_string(chart.width) +
                 " frames: as high as the largest, its lower part as their mean";
    return row("Frame sizes", about, "chart", ChartHeight, drawing);
}

std::string rate_chart(const Axis& axis)
{
    const Chart& chart = axis.stats.bySecond;
    if (!has_time_stamps(axis.stats)) return "";

    const double most = std::max(1.0, peak_bit_rate(axis.stats));
    const auto words = [](double value) { return std::to_string(uint64_t(value / 1000)) + " kbit/s"; };
    std::string drawing;
    for (size_t i = 0; i < chart.bins.size(); ++i) {
        const double from = double(i * chart.width), to = std::min(from + double(chart.width), axis.seconds);
        const double busiest = 8 * double(chart.bins[i].busiest);
        const double mean = 8 * double(chart.bins[i].bytes) / std::max(1.0, to - from);
        const Place place = {at_second(axis, from), at_second(axis, to) - at_second(axis, from)};
        if (chart.width > 1) drawing += column("peak", place, busiest / most);
        drawing += column("frame", place, (chart.width > 1 ? mean : busiest) / most);
        drawing += with_title(place, human_duration(from) + ": " + words(busiest) +
                                         (chart.width > 1 ? " at most, " + words(mean) + " on average" : ""));
    }
    std::string about = "up to " + words(most) + " in one second";
    if (chart.width > 1)
        about += swatch("peak", "the busiest second") + swatch("frame", "mean") + ". A bar stands for " +
                 counted(chart.width, "second");
    return row("Bit rate", about, "chart", ChartHeight, drawing);
}

// One row in which the bins of one kind are marked: the more of it, the higher, so that the worst is seen. A
// mark reaches back over the hole in front of it, and is seen even in a long recording.
std::string marks(const Axis& axis, const char* kind, uint64_t Bin::*count)
{
    const Chart& chart = axis.stats.byFrame;
    uint64_t most = 1;
    for (const Bin& bin : chart.bins) most = std::max(most, bin.*count);
    std::string drawing;
    double before = 0;
    for (size_t i = 0; i < chart.bins.size(); ++i) {
        const Place own = place_of(axis, i);
        if (const uint64_t found = chart.bins[i].*count) {
            const bool audio = count == &Bin::audioSlots;
            const double left = audio ? own.left : std::min(before, ChartWidth - 6);
            const double right = audio || chart.width > 1 ? own.left + own.width : own.left;
            const double share = audio ? 1 : 0.4 + 0.6 * double(found) / double(most);
            const double width = audio ? right - left + 0.5 : std::max(right - left, 6.0);
            drawing += bar(kind, {left, width}, StripHeight * (1 - share), StripHeight * share);
        }
        before = own.left + own.width;
    }
    return drawing;
}

std::string damage_about(const Stats& stats)
{
    if (!stats.damageCount) return "none";
    const auto longest =
        std::max_element(stats.damage.begin(), stats.damage.end(),
                         [](const auto& a, const auto& b) { return a.gap.length < b.gap.length; });
    return counted(stats.damageCount, "place") + (stats.damageCount > 1 ? ", the longest at " : ", at ") +
           sdv::place_text(longest->seconds) + " (" + human_bytes(longest->gap.length) + ")";
}

std::string missing_about(const Stats& stats)
{
    if (!stats.missing) return "none";
    const auto worst = std::max_element(stats.numberGaps.begin(), stats.numberGaps.end(),
                                        [](const auto& a, const auto& b) { return a.missing < b.missing; });
    return counted(stats.missing, "frame") + (stats.numberGapCount > 1 ? ", most at " : ", at ") +
           sdv::place_text(worst->seconds) +
           (stats.numberGapCount > 1 ? " (" + std::to_string(worst->missing) + ")" : "");
}

std::string axis_labels(const Axis& axis)
{
    std::string text = "<div class=\"axis\">";
    for (int quarter = 0; quarter <= 4; ++quarter) {
        const double seconds = axis.seconds * quarter / 4;
        const std::string label = axis.seconds <= 0   ? std::to_string(axis.frames * uint64_t(quarter) / 4)
                                  : axis.seconds < 60 ? sdv::place_text(seconds + 0.05)
                                                      : human_duration(seconds);
        text += "<span>" + label + "</span>";
    }
    return text + "</div>\n<p class=\"note\">" +
           (axis.seconds <= 0             ? "In frames: nothing tells the time."
            : has_time_stamps(axis.stats) ? "Time from the start; time stamps are taken as milliseconds."
                                          : "Time from the start, by the header's frame rate.") +
           "</p>\n";
}

std::string charts(const Stats& stats)
{
    if (!stats.frames) return "";
    const Axis axis{stats, duration(stats), std::max<uint64_t>(stats.frames, 1)};
    const std::string audio = stats.audioSlots ? sdv::audio_text(stats.audioCode) : "none";
    return "<section><h2>Over time</h2><figure>\n" + size_chart(axis) + rate_chart(axis) +
           row("Audio", audio, "strip", StripHeight, marks(axis, "audio", &Bin::audioSlots)) +
           row("Damage", damage_about(stats), "strip", StripHeight, marks(axis, "damage", &Bin::damage)) +
           row("Missing frames", missing_about(stats), "strip", StripHeight,
               marks(axis, "missing", &Bin::missing)) +
           axis_labels(axis) + "</figure></section>\n";
}

// ---- tables

std::string facts(const Stats& stats)
{
    std::string text = "<div class=\"groups\">\n";
    for (const sdv::FactGroup& group : facts_of(stats)) {
        text += "<section><h2>" + group.title + "</h2><table>\n";
        for (const sdv::Fact& fact : group.facts)
            if (fact.worthALine)
                text += "<tr><th scope=\"row\">" + fact.label + "</th><td><data id=\"" + fact.id +
                        "\" value=\"" + machine_text(fact.value) + "\">" + fact.text + "</data></td></tr>\n";
        text += "</table></section>\n";
    }
    return text + "</div>\n";
}

std::string table(const std::string& title, const std::string& rows, uint64_t count)
{
    if (!count) return "";
    std::string text = "<section><h2>" + title + "</h2><table class=\"places\">\n" + rows + "</table>\n";
    if (count > sdv::MostListed)
        text +=
            "<p>The first " + std::to_string(sdv::MostListed) + " of " + std::to_string(count) + ".</p>\n";
    return text + "</section>\n";
}

std::string heads(std::initializer_list<const char*> names)
{
    std::string text = "<tr>";
    for (const char* name : names)
        text += "<th scope=\"col\" class=\"number\">" + std::string(name) + "</th>";
    return text;
}

// On a narrow screen the label stands beside the value.
std::string cell(const char* label, const std::string& value)
{
    return "<td class=\"number\" data-label=\"" + std::string(label) + "\">" + value + "</td>";
}

std::string cell(const char* label, uint64_t value)
{
    return cell(label, std::to_string(value));
}

std::string damage_table(const Stats& stats)
{
    std::string rows =
        heads({"Time", "Position", "Bytes", "Frames lost"}) + "<th scope=\"col\">Likely cause</th></tr>\n";
    for (const sdv::DamagePlace& place : stats.damage)
        rows += "<tr class=\"place\">" + cell("Time", sdv::place_text(place.seconds)) +
                cell("Position", place.gap.offset) + cell("Bytes", place.gap.length) +
                cell("Frames lost", place.lost ? std::to_string(*place.lost) : "?") +
                "<td class=\"words\" data-label=\"Cause\">" + cause_text(place.gap.cause) + "</td></tr>\n";
    return table("Damage map", rows, stats.damageCount);
}

std::string numbering_table(const Stats& stats)
{
    std::string rows = heads({"Time", "Position", "Number before", "Number behind", "Missing"}) + "</tr>\n";
    for (const sdv::NumberGap& gap : stats.numberGaps)
        rows += "<tr class=\"jump\">" + cell("Time", sdv::place_text(gap.seconds)) +
                cell("Position", gap.offset) + cell("Before", gap.before) + cell("Behind", gap.after) +
                cell("Missing", gap.missing) + "</tr>\n";
    return table("Numbering", rows, stats.numberGapCount);
}

} // namespace

std::string info_page(const std::string& name, const Stats& stats, const std::string& json,
                      const std::string& made)
{
    const std::string title = escaped(printable(name));
    const std::string borrowed =
        stats.borrowed.empty() ? ""
                               : "<p>" + escaped(printable(sdv::borrowed_text(stats.borrowed))) + "</p>\n";
    return "<!doctype html>\n<html lang=\"en\"><head><meta charset=\"utf-8\">\n"
           "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">\n<title>" +
           title + "</title>\n<style>" + Style + "</style></head><body>\n<h1>" + title +
           "</h1>\n<p class=\"verdict " + state_word(state_of(stats)) + "\">" + verdict(stats) + "</p>\n" +
           borrowed + charts(stats) + facts(stats) + damage_table(stats) + numbering_table(stats) +
           "<footer>" + escaped(made) + "</footer>\n<script type=\"application/json\" id=\"data\">" + json +
           "</script>\n</body></html>\n";
}

} // namespace tools
