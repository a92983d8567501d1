// The command line of sdvrecord.
#pragma once

#include "avi_files.h"
#include "cli.h"

#include <optional>
#include <string>

namespace cli {

struct RecordOptions
{
    std::string listen, connect, directory;
    std::optional<std::string> keyFile;
    uint64_t maxSize = tools::LargestAvi;
    int maxTime = 0;
    int idle = 30;
    bool once = false, preview = false, json = false;
};

// As parse() gives it.
std::optional<int> parse_record_options(RecordOptions& options, int argc, char** argv);

} // namespace cli
