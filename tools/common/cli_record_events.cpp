#include "cli_record_events.h"
#include "cli.h"
#include "cli_report.h"
#include "disk_room.h"
#include "human.h"
#include "report_text.h"

#include <algorithm>

namespace cli {

using tools::counted;
using tools::Loss;

namespace {

Details losses_json(const tools::Losses& losses)
{
    Details all;
    for (size_t i = 0; i < tools::LossKinds; ++i)
        if (Loss(i) != Loss::garbage) all[tools::why_lost(Loss(i)).code] = losses.all[i].frames;
    return all;
}

// " (2 no_key, 1 number_0)"
std::string by_cause(const tools::Losses& losses)
{
    std::string text;
    for (size_t i = 0; i < tools::LossKinds; ++i)
        if (losses.all[i].frames)
            text += (text.empty() ? " (" : ", ") + std::to_string(losses.all[i].frames) + " " +
                    tools::why_lost(Loss(i)).code;
    return text.empty() ? text : text + ")";
}

// "3 frames (1.5 KiB) left out: they are numbered 0"
std::string loss_text(Loss loss, const tools::Lost& lost)
{
    const std::string bytes = tools::human_bytes(lost.bytes);
    const std::string what = lost.frames ? counted(lost.frames, "frame") + " (" + bytes + ")" : bytes;
    return what + " left out: " + tools::why_lost(loss).text;
}

void tell_dropping(Events& events, const std::string& peer, const tools::FreshLoss& fresh)
{
    const tools::Why why = tools::why_lost(fresh.loss);
    tell(events, "dropping",
         {{"peer", peer},
          {"code", why.code},
          {"reason", why.text},
          {"frames", fresh.lost.frames},
          {"bytes", fresh.lost.bytes}},
         "");
}

} // namespace

void note(Events& events, const std::string& text)
{
    wipe_status(events);
    log_msg("sdvrecord: %s", tools::printable(text).c_str());
}

void tell_recovered(Events& events, const tools::Recovered& file)
{
    const Details details = {{"path", file.path}, {"what", file.what}};
    const std::string text = file.path + ": " + file.what;
    tell(events, file.finished ? "repaired" : "not_repaired", details, file.finished ? text : "");
    if (!file.finished) note(events, text);
}

void tell_finished(Events& events, const tools::Published& published)
{
    tell(events, "file",
         {{"path", published.path},
          {"pictures", published.file.pictures},
          {"bytes", published.bytes},
          {"report", report_json(published.file.report)}},
         published.path + ": " + counted(uint64_t(published.file.pictures), "picture") + ", " +
             tools::human_bytes(published.bytes));
}

void tell_not_finished(Events& events, const tools::Published& published)
{
    const auto& [code, text] = published.trouble;
    note(events, text + (published.last ? "" : "; it is tried again"));
    tell(events, "not_finished",
         {{"path", published.file.name.part_name()}, {"code", code}, {"reason", text}}, "");
}

void tell_stalled(Events& events, const tools::AviFiles& files)
{
    const auto& [code, text] = files.trouble;
    tell(events, "stalled", {{"code", code}, {"reason", text}}, "");
    note(events, text + "; what comes is lost until a file can be written again");
}

void tell_resumed(Events& events, const tools::AviFiles& files)
{
    const std::string part = files.name.part_name();
    const uint64_t lost = files.losses[Loss::not_written].frames;
    tell(events, "resumed", {{"path", part}, {"not_written", lost}}, "");
    note(events, part + ": recording goes on; " + counted(lost, "frame") + " lost");
}

void tell_unreachable(Events& events, const std::string& peer, const std::string& why, int nextCall)
{
    tell(events, "unreachable",
         {{"peer", peer}, {"code", cause::Unreachable}, {"reason", why}, {"next_call", nextCall}}, "");
    note(events, peer + " cannot be reached: " + why + "; next call in " + std::to_string(nextCall) + " s");
}

void tell_losses(Events& events, tools::Camera& camera, const tools::AviFiles& files)
{
    const auto now = tools::LossNotes::Clock::now();
    for (const auto& fresh : take_due(camera.notes, stream_losses(camera, files), now, false)) {
        tell_dropping(events, camera.peer, fresh);
        note(events, loss_text(fresh.loss, fresh.lost));
    }
}

void tell_lost(Events& events, tools::Camera& camera, const tools::AviFiles& files)
{
    const size_t cut = camera.cutter.end - camera.cutter.begin;
    const tools::Losses losses = stream_losses(camera, files);
    for (const auto& fresh : take_due(camera.notes, losses, {}, true))
        tell_dropping(events, camera.peer, fresh);
    tell(events, "lost",
         {{"peer", camera.peer},
          {"code", camera.whyLost.code},
          {"reason", camera.whyLost.text},
          {"bytes", camera.bytes},
          {"bytes_skipped", losses[Loss::garbage].bytes},
          {"bytes_cut_off", cut},
          {"frames", camera.prepared ? files.recorded : 0},
          {"dropped", tools::frames_lost(losses)},
          {"dropped_by_cause", losses_json(losses)},
          {"not_written", losses[Loss::not_written].frames}},
         "");
    note(events, camera.peer + " has gone: " + camera.whyLost.text);
    if (cut && camera.prepared && camera.whyLost.code != cause::OutOfMemory)
        note(events, "it went inside a frame: " + counted(cut, "byte") + " of it left out");
    for (size_t i = 0; i < tools::LossKinds; ++i)
        if (losses.all[i].bytes) note(events, "in all, " + loss_text(Loss(i), losses.all[i]));
}

void tell_recording(Events& events, Told& told, const tools::Camera& camera, const tools::AviFiles& files)
{
    const auto now = std::chrono::steady_clock::now();
    const std::chrono::duration<double> since = now - told.at;
    const auto rate = uint64_t(8 * double(camera.bytes - told.bytes) / std::max(since.count(), 0.001));
    const auto quiet = std::chrono::floor<std::chrono::seconds>(now - camera.pulse.frame).count();
    told = {camera.bytes, now};

    const bool open = g_tSdv2Avi.m_fsRec;
    const std::string path = open ? files.name.part_name() : "";
    const uint64_t frames = open ? tools::conversion_report().u64FramesRecorded : 0;
    const tools::Losses losses = stream_losses(camera, files);
    const uint64_t drops = tools::frames_lost(losses), skipped = losses[Loss::garbage].bytes;
    const auto room = tools::free_room(files.directory);
    std::string text =
        (path.empty() ? camera.peer : path) + ": " + counted(frames, "frame") + ", " +
        std::to_string(rate / 1000) + " kbit/s, " +
        paint(std::to_string(drops) + " dropped" + by_cause(losses), 31, drops && events.redraws);
    if (skipped) text += ", " + tools::human_bytes(skipped) + " skipped";
    if (quiet > 1) text += ", last frame " + std::to_string(quiet) + " s ago";
    if (room) text += ", " + tools::human_bytes(*room) + " free";
    tell_status(events,
                {{"path", path},
                 {"frames", frames},
                 {"dropped", drops},
                 {"dropped_by_cause", losses_json(losses)},
                 {"not_written", losses[Loss::not_written].frames},
                 {"bytes_skipped", skipped},
                 {"bits_per_second", rate},
                 {"bytes", camera.bytes},
                 {"seconds_without_frame", quiet},
                 {"disk_free", room ? Details(*room) : Details(nullptr)}},
                text);
}

void tell_stopped(Events& events, int files, const tools::Outcome& outcome)
{
    const bool fine = outcome.exit == Fine;
    tell(events, "stopped",
         {{"files", files},
          {"exit_code", int(outcome.exit)},
          {"code", fine ? Details(nullptr) : Details(outcome.why.code)},
          {"reason", fine ? Details(nullptr) : Details(outcome.why.text)}},
         "");
    if (!fine) note(events, "it ends with " + std::to_string(outcome.exit) + ": " + outcome.why.text);
}

} // namespace cli
