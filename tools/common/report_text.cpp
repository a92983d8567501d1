#include "report_text.h"
#include "human.h"

namespace tools {

namespace {

std::string dropped(const SdvReport& report)
{
    const struct
    {
        uint64_t count;
        const char* cause;
    } causes[] = {{report.u64DroppedNumber0, " numbered 0"},
                  {report.u64DroppedNoKey, " enciphered, without a key"},
                  {report.u64DroppedWrongKey, " that the key does not open"},
                  {report.u64DroppedInconsistent, " inconsistent"},
                  {report.u64FramesNotWritten, " that could not be written"}};
    std::string text;
    for (const auto& [count, cause] : causes)
        if (count) text += (text.empty() ? "; dropped: " : ", ") + std::to_string(count) + cause;
    return text;
}

} // namespace

SdvReport conversion_report()
{
    SdvReport report{};
    report.cbSize = sizeof(report);
    GetConversionReport(&report);
    return report;
}

uint64_t dropped_frames(const SdvReport& report)
{
    return report.u64DroppedNumber0 + report.u64DroppedNoKey + report.u64DroppedWrongKey +
           report.u64DroppedInconsistent + report.u64FramesNotWritten;
}

bool is_anything_lost(const SdvReport& report)
{
    return report.u64Gaps || dropped_frames(report);
}

std::string describe_report(const SdvReport& report)
{
    std::string text = counted(report.u64FramesRecorded, "frame") + " recorded";
    if (report.u64Gaps)
        text += "; " + counted(report.u64BytesSkipped, "byte") + " skipped in " +
                counted(report.u64Gaps, "gap") + ", the first at " + std::to_string(report.u64FirstGap);
    return text + dropped(report);
}

} // namespace tools
