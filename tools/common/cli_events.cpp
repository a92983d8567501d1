#include "cli_events.h"
#include "cli.h"
#include "human.h"

#include <ctime>
#include <utility>

#include <poll.h>

namespace cli {

namespace {

std::string utc_now()
{
    const time_t now = time(nullptr);
    tm date{};
    gmtime_r(&now, &date);
    char text[40];
    strftime(text, sizeof(text), "%Y-%m-%dT%H:%M:%SZ", &date);
    return text;
}

// A pipe that says so takes more than any line of ours.
bool takes_output(Events& events)
{
    pollfd waiting = {fileno(events.out), POLLOUT, 0};
    const bool takes = poll(&waiting, 1, events.patience) == 1;
    if (!takes) events.patience = 0;
    return takes;
}

void write_json(Events& events, const std::string& event, const Details& details)
{
    Details all = {{"event", event}, {"time", utc_now()}};
    all.update(details);
    if (events.missed) all["missed"] = std::exchange(events.missed, 0);
    // A path need not be UTF-8.
    const std::string line = all.dump(-1, ' ', false, Details::error_handler_t::replace);
    fprintf(events.out, "%s\n", line.c_str());
}

} // namespace

void open_events(Events& events, int fd, bool json)
{
    events.out = fdopen(fd, "w");
    events.json = json;
    events.redraws = !json && has_colour(fd);
}

void tell(Events& events, const std::string& event, const Details& details, const std::string& text)
{
    if (!events.out || (!events.json && text.empty())) return;
    if (!takes_output(events)) {
        ++events.missed;
        return;
    }
    wipe_status(events);
    if (events.json)
        write_json(events, event, details);
    else
        fprintf(events.out, "%s\n", tools::printable(text).c_str());
    fflush(events.out);
}

void tell_status(Events& events, const Details& details, const std::string& text)
{
    if (!events.redraws || !events.out) return tell(events, "status", details, text);
    if (!takes_output(events)) return;
    fprintf(events.out, "\r\033[K\033[?7l%s\033[?7h", text.c_str()); // cut off where the line ends
    fflush(events.out);
    events.statusShown = true;
}

void wipe_status(Events& events)
{
    if (!events.statusShown || !takes_output(events)) return;
    fputs("\r\033[K", events.out);
    fflush(events.out);
    events.statusShown = false;
}

} // namespace cli
