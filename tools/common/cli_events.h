// What a tool that runs for long tells meanwhile: lines for people, or one JSON object a line for programs.
#pragma once

#include <nlohmann/json.hpp>

#include <cstdio>
#include <string>

namespace cli {

using Details = nlohmann::ordered_json;

struct Events
{
    FILE* out = nullptr;
    bool json = false;
    bool redraws = false;     // on a terminal, the status line stays in its place
    bool statusShown = false; // and is there now
    int missed = 0;           // events that were not told
    int patience = 0;         // milliseconds to wait for a reader who has not kept up
};

// Tell to this descriptor, which is then the record's until the program ends.
void open_events(Events& events, int fd, bool json);

// Something happened. An empty text is for programs only. A reader who has stopped reading must not stop the
// work: what the output does not take at once is left out, and the next object tells how many were. Once the
// work is done, there is time to be patient, until the reader has made us wait in vain.
void tell(Events& events, const std::string& event, const Details& details, const std::string& text);

// How things stand, told again and again.
void tell_status(Events& events, const Details& details, const std::string& text);

// Make way for what is written to the terminal by other means.
void wipe_status(Events& events);

} // namespace cli
