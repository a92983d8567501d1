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
constexpr double ChartWidth = 1000, ChartHeight = 200;

const char* const Style = R"(
:root { color-scheme: light dark; --page: #fff; --text: #1b1f24; --quiet: #59636e; --line: #d1d9e0;
  --key: #b4540a; --frame: #3b78c4; --audio: #2c8a57; --damage: #d1242f; --missing: #9a6bd0; }
@media screen and (prefers-color-scheme: dark) { :root { --page: #15181c; --text: #e6e9ed; --quiet: #9aa4af;
  --line: #3a424b; --key: #f0a35e; --frame: #6ea8f0; --audio: #5cc08a; --damage: #ff6b6b; --missing: #c09af0; } }
@media print { :root { color-scheme: light; } section, figure { break-inside: avoid; }
  figure, .swatch { print-color-adjust: exact; -webkit-print-color-adjust: exact; } }
* { box-sizing: border-box; }
body { margin: 0 auto; padding: 1rem; max-width: 64rem; background: var(--page); color: var(--text);
  font: 1rem/1.45 system-ui, sans-serif; }
h1 { font-size: 1.4rem; margin: 0; overflow-wrap: anywhere; }
h2 { font-size: 1.05rem; margin: 1.6rem 0 .4rem; }
.verdict { margin: .3rem 0 0; font-weight: 600; color: var(--audio); }
.verdict.bad { color: var(--damage); }
figure { margin: 0; }
svg { display: block; width: 100%; height: 11rem; border-bottom: 1px solid var(--line); }
svg.strip { height: .8rem; margin-top: .2rem; }
.frame { fill: var(--frame); } .key { fill: var(--key); } .audio { fill: var(--audio); }
.damage { fill: var(--damage); } .missing { fill: var(--missing); } .hit { fill: transparent; }
.scale { display: flex; justify-content: space-between; gap: 1rem; color: var(--quiet); font-size: .85rem; }
.legend { display: flex; flex-wrap: wrap; gap: .2rem 1rem; font-size: .85rem; padding: .3rem 0 0; }
.swatch { display: inline-block; width: .8em; height: .8em; margin-right: .35em; }
.groups { display: grid; grid-template-columns: repeat(auto-fit, minmax(min(100%, 22rem), 1fr)); gap: 0 2rem; }
.wide { overflow-x: auto; }
table { width: 100%; border-collapse: collapse; font-size: .92rem; font-variant-numeric: tabular-nums; }
th, td { padding: .25rem .5rem .25rem 0; border-bottom: 1px solid var(--line); text-align: left;
  vertical-align: top; font-weight: normal; }
th { color: var(--quiet); } td.number, th.number { text-align: right; }
.groups td { text-align: right; padding-right: 0; white-space: nowrap; } td.number, th.number { padding-right: 1rem; }
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

struct Place
{
    double left, width;
};

Place place_of(const Chart& chart, size_t bin)
{
    const double width = ChartWidth / double(chart.bins.size());
    return {double(bin) * width, width};
}

// Each bar reaches a little under the next one, or hairlines would shine through between them.
std::string bar(const char* kind, const Place& place, double top, double height)
{
    return "<rect class=\"" + std::string(kind) + "\" x=\"" + coordinate(place.left) + "\" y=\"" +
           coordinate(top) + "\" width=\"" + coordinate(place.width + 0.5) + "\" height=\"" +
           coordinate(height) + "\"/>";
}

std::string with_title(const Place& place, const std::string& title)
{
    const std::string area = bar("hit", place, 0, ChartHeight);
    return area.substr(0, area.size() - 2) + "><title>" + title + "</title></rect>\n";
}

std::string begin_svg(const std::string& kind, double height, const std::string& what)
{
    return "<svg class=\"" + kind + "\" viewBox=\"0 0 1000 " + coordinate(height) +
           "\" preserveAspectRatio=\"none\" role=\"img\" aria-label=\"" + what + "\">\n";
}

std::string scale(const std::string& left, const std::string& right)
{
    return "<div class=\"scale\"><span>" + left + "</span><span>" + right + "</span></div>\n";
}

std::string swatch(const char* kind, const char* what)
{
    return std::string(
               "<span><svg class=\"swatch\" style=\"height:.8em;width:.8em;border:0\" viewBox=\"0 0 1 1\">"
               "<rect class=\"") +
           kind + "\" width=\"1\" height=\"1\"/></svg>" + what + "</span>";
}

std::string bin_title(const Chart& chart, size_t place)
{
    const Bin& bin = chart.bins[place];
    const uint64_t first = place * chart.width + 1;
    std::string text = bin.frames ? "frame " + std::to_string(first) : "behind the last frame";
    if (bin.frames > 1) text += " to " + std::to_string(first + bin.frames - 1);
    text += ": " + human_bytes(bin.largest) + (bin.frames > 1 ? " at most" : "");
    if (bin.keyFrames) text += ", " + counted(bin.keyFrames, "key frame");
    if (bin.damage) text += ", " + counted(bin.damage, "damaged place");
    if (bin.missing) text += ", " + counted(bin.missing, "frame") + " missing";
    return text;
}

// One thin row in which the bins of one kind are marked.
std::string strip(const Chart& chart, const char* kind, const char* what, uint64_t Bin::*count)
{
    std::string marks;
    for (size_t i = 0; i < chart.bins.size(); ++i) {
        Place place = place_of(chart, i);
        const double least =
            count == &Bin::audioSlots ? 0 : 4; // damage shall be seen even in a long recording
        place.width = std::max(place.width, least);
        place.left = std::min(place.left, ChartWidth - place.width);
        if (chart.bins[i].*count) marks += bar(kind, place, 0, 10);
    }
    return begin_svg("strip", 10, what) + marks + "</svg>\n";
}

std::string size_chart(const Stats& stats)
{
    const Chart& chart = stats.byFrame;
    uint64_t most = 1;
    for (const Bin& bin : chart.bins) most = std::max(most, bin.largest);

    std::string text = "<section><h2>Frame sizes</h2><figure>\n" + scale(human_bytes(most), "") +
                       begin_svg("sizes", ChartHeight, "Frame sizes");
    for (size_t i = 0; i < chart.bins.size(); ++i) {
        const Bin& bin = chart.bins[i];
        const Place place = place_of(chart, i);
        const double height = ChartHeight * double(bin.largest) / double(most);
        text += bar(bin.keyFrames ? "key" : "frame", place, ChartHeight - height, height);
        if (chart.width > 1 && bin.frames) {
            const double mean = height * double(bin.bytes) / double(bin.frames * bin.largest);
            text += bar("frame", place, ChartHeight - mean, mean);
        }
        text += with_title(place, bin_title(chart, i));
    }
    text += "</svg>\n" + strip(chart, "audio", "Frames with audio", &Bin::audioSlots) +
            strip(chart, "damage", "Damaged places", &Bin::damage) +
            strip(chart, "missing", "Missing frames", &Bin::missing);
    text += scale("frame 1", "frame " + std::to_string(stats.frames)) + "<div class=\"legend\">" +
            swatch("key", "key frame") + swatch("frame", "other frame") + swatch("audio", "has audio") +
            swatch("damage", "damage") + swatch("missing", "missing by number") + "</div>\n";
    if (chart.width > 1)
        text += scale("A bar stands for " + std::to_string(chart.width) +
                          " frames: as high as the largest, the lower part as high as their mean.",
                      "");
    return text + "</figure></section>\n";
}

std::string rate_chart(const Stats& stats)
{
    const Chart& chart = stats.bySecond;
    if (!has_time_stamps(stats)) return "";

    const double most = std::max(1.0, peak_bit_rate(stats));
    const auto rate = [&](const Bin& bin) { return 8 * double(bin.bytes) / double(chart.width); };
    const auto words = [](double value) { return std::to_string(uint64_t(value / 1000)) + " kbit/s"; };
    std::string text = "<section><h2>Bit rate</h2><figure>\n" + scale(words(most), "") +
                       begin_svg("rates", ChartHeight, "Bit rate");
    for (size_t i = 0; i < chart.bins.size(); ++i) {
        const Place place = place_of(chart, i);
        const double value = rate(chart.bins[i]), height = ChartHeight * value / most;
        text += bar("frame", place, ChartHeight - height, height) +
                with_title(place, human_duration(double(i * chart.width)) + ": " + words(value));
    }
    const std::string step = chart.width > 1 ? counted(chart.width, "second") + " a bar" : "a second a bar";
    return text + "</svg>\n" + scale("0:00", human_duration(duration(stats))) +
           scale("Time stamps are taken as milliseconds; " + step + ".", "") + "</figure></section>\n";
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

std::string table(const std::string& title, const std::string& head, const std::string& rows, uint64_t count)
{
    if (!count) return "";
    std::string text = "<section><h2>" + title + "</h2><div class=\"wide\"><table>\n<tr>" + head + "</tr>\n" +
                       rows + "</table></div>\n";
    if (count > sdv::MostListed)
        text +=
            "<p>The first " + std::to_string(sdv::MostListed) + " of " + std::to_string(count) + ".</p>\n";
    return text + "</section>\n";
}

std::string heads(std::initializer_list<const char*> names)
{
    std::string text;
    for (const char* name : names)
        text += "<th scope=\"col\" class=\"number\">" + std::string(name) + "</th>";
    return text;
}

std::string cell(uint64_t value)
{
    return "<td class=\"number\">" + std::to_string(value) + "</td>";
}

std::string damage_table(const Stats& stats)
{
    std::string rows;
    for (const sdv::DamagePlace& place : stats.damage)
        rows += "<tr class=\"place\">" + cell(place.gap.offset) + cell(place.gap.length) +
                (place.lost ? cell(*place.lost) : "<td class=\"number\">?</td>") + "<td>" +
                cause_text(place.gap.cause) + "</td></tr>\n";
    return table("Damage map",
                 heads({"Position", "Bytes", "Frames lost"}) + "<th scope=\"col\">Likely cause</th>", rows,
                 stats.damageCount);
}

std::string numbering_table(const Stats& stats)
{
    std::string rows;
    for (const sdv::NumberGap& gap : stats.numberGaps)
        rows += "<tr class=\"jump\">" + cell(gap.offset) + cell(gap.before) + cell(gap.after) +
                cell(gap.missing) + "</tr>\n";
    return table("Numbering", heads({"Position", "Number before", "Number behind", "Missing"}), rows,
                 stats.numberGapCount);
}

} // namespace

std::string info_page(const std::string& name, const Stats& stats, const std::string& json)
{
    const std::string title = escaped(printable(name));
    return "<!doctype html>\n<html lang=\"en\"><head><meta charset=\"utf-8\">\n"
           "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">\n<title>" +
           title + "</title>\n<style>" + Style + "</style></head><body>\n<h1>" + title +
           "</h1>\n<p class=\"verdict" + (is_damaged(stats) ? " bad" : "") + "\">" + verdict(stats) +
           "</p>\n" + size_chart(stats) + rate_chart(stats) + facts(stats) + damage_table(stats) +
           numbering_table(stats) + "<script type=\"application/json\" id=\"data\">" + json +
           "</script>\n</body></html>\n";
}

} // namespace tools
