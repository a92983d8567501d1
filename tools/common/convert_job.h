// One recording becomes one AVI file, or parts of one; the library converts one in a process.
#pragma once

#include "Quorlin.h"
#include "cause.h"
#include "exit_code.h"

#include <atomic>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <sys/types.h>
#include <time.h>

namespace tools {

struct Split
{
    uint64_t bytes = 0; // 0: not by size
    double seconds = 0; // 0: not by time
};

// "700M", "1.5G", "90s", "10m", "1h": bytes by capital letters, time by small ones. False, and the reason in
// `why`, when it is neither.
bool parse_split(const std::string& text, Split& split, std::string& why);

struct ConvertSettings
{
    bool overwrite = false;
    Split split;
};

struct Result
{
    cli::Exit exit = cli::Fine;
    std::string cause; // when it failed
    std::string code;  // one of cli::cause, also for frames that were left out for that; else empty
    bool damaged = false;
    bool noRoom = false; // the disk is full for others, too
    size_t left = 0;     // jobs that were not begun for that
    std::vector<std::string> outputs, notes;
    uint64_t pictures = 0, bytes = 0; // bytes of the outputs
    double seconds = 0;
    SdvReport report{};
    double soundEarly = 0; // seconds, in the part where it is most
};

struct Job
{
    std::string input, output; // "-": standard input, behind its file header
    S_FileHeader header{};
    uint64_t size = 0;                // of the input; 0: not known
    mode_t rights = 0666;             // of the input; an output gets no others
    std::optional<timespec> modified; // the input was
    Result refused;                   // with a cause: it is not to be tried
    std::vector<std::string> notes;
    std::vector<uint8_t> ahead; // the input's first bytes, where `header` is not its own
};

// Convert. The outputs appear under their names when all of it is done. `kib` follows the input's bytes.
Result convert(const Job& job, const ConvertSettings& settings, std::atomic<uint32_t>& kib);

} // namespace tools
