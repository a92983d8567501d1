#include "cli_record_events.h"
#include "cli.h"
#include "cli_report.h"
#include "human.h"
#include "report_text.h"

#include <algorithm>

namespace cli {

void tell_finished(Events& events, const tools::Published& published)
{
    tell(events, "file",
         {{"path", published.path},
          {"pictures", published.file.pictures},
          {"bytes", published.bytes},
          {"report", report_json(published.file.report)}},
         published.path + ": " + tools::counted(uint64_t(published.file.pictures), "picture") + ", " +
             tools::human_bytes(published.bytes));
}

void tell_recording(Events& events, Told& told, const std::string& peer, const std::string& partFile,
                    uint64_t bytes, const SdvReport& report, uint64_t notWritten)
{
    const auto now = std::chrono::steady_clock::now();
    const std::chrono::duration<double> since = now - told.at;
    const auto rate = uint64_t(8 * double(bytes - told.bytes) / std::max(since.count(), 0.001));
    told = {bytes, now};

    const uint64_t frames = report.u64FramesRecorded, drops = tools::dropped_frames(report) + notWritten;
    tell_status(events,
                {{"path", partFile},
                 {"frames", frames},
                 {"dropped", drops},
                 {"not_written", notWritten},
                 {"bits_per_second", rate},
                 {"bytes", bytes}},
                (partFile.empty() ? peer : partFile) + ": " + tools::counted(frames, "frame") + ", " +
                    std::to_string(rate / 1000) + " kbit/s, " +
                    paint(std::to_string(drops) + " dropped", 31, drops && events.redraws));
}

} // namespace cli
