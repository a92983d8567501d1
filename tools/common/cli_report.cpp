#include "cli_report.h"

namespace cli {

nlohmann::ordered_json report_json(const SdvReport& report)
{
    return {{"frames_recorded", report.u64FramesRecorded},
            {"dropped_number_0", report.u64DroppedNumber0},
            {"dropped_no_key", report.u64DroppedNoKey},
            {"dropped_wrong_key", report.u64DroppedWrongKey},
            {"dropped_inconsistent", report.u64DroppedInconsistent},
            {"not_written", report.u64FramesNotWritten},
            {"frames_missing", report.u64FramesMissing},
            {"number_gaps", report.u64NumberGaps},
            {"bytes_unreadable", report.u64BytesUnreadable},
            {"first_unreadable", report.u64BytesUnreadable ? nlohmann::ordered_json(report.u64FirstUnreadable)
                                                           : nlohmann::ordered_json(nullptr)},
            {"bytes_skipped", report.u64BytesSkipped},
            {"gaps", report.u64Gaps},
            {"first_gap",
             report.u64Gaps ? nlohmann::ordered_json(report.u64FirstGap) : nlohmann::ordered_json(nullptr)}};
}

bool is_utf8(const std::string& name)
{
    using Json = nlohmann::ordered_json;
    return Json::parse(Json(name).dump(-1, ' ', false, Json::error_handler_t::ignore)) == name;
}

std::string hex(const std::string& bytes)
{
    std::string text;
    for (const char byte : bytes) {
        text += "0123456789abcdef"[uint8_t(byte) >> 4];
        text += "0123456789abcdef"[uint8_t(byte) & 15];
    }
    return text;
}

} // namespace cli
