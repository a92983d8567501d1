#include "cli_record_events.h"
#include "cli.h"
#include "cli_report.h"
#include "human.h"
#include "report_text.h"

#include <algorithm>

namespace cli {

void tell_finished(Events& events, const tools::FinishedFile& file)
{
    tell(events, "file",
         {{"path", file.path},
          {"pictures", file.pictures},
          {"bytes", file.bytes},
          {"report", report_json(file.report)}},
         file.path + ": " + tools::counted(uint64_t(file.pictures), "picture") + ", " +
             tools::human_bytes(file.bytes));
}

void tell_recording(Events& events, Told& told, const std::string& peer, const std::string& partFile,
                    uint64_t bytes, const SdvReport& report)
{
    const auto now = std::chrono::steady_clock::now();
    const std::chrono::duration<double> since = now - told.at;
    const auto rate = uint64_t(8 * double(bytes - told.bytes) / std::max(since.count(), 0.001));
    told = {bytes, now};

    const uint64_t frames = report.u64FramesRecorded, drops = tools::dropped_frames(report);
    tell_status(events,
                {{"path", partFile},
                 {"frames", frames},
                 {"dropped", drops},
                 {"bits_per_second", rate},
                 {"bytes", bytes}},
                (partFile.empty() ? peer : partFile) + ": " + tools::counted(frames, "frame") + ", " +
                    std::to_string(rate / 1000) + " kbit/s, " +
                    paint(std::to_string(drops) + " dropped", 31, drops && events.redraws));
}

} // namespace cli
