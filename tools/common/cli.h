// What the command lines of all tools have in common.
#pragma once

#include <CLI/CLI.hpp>

#include <optional>
#include <string>

namespace cli {

// One meaning for each exit code, in every tool. A run over several files ends with the worst of theirs.
enum Exit
{
    Fine = 0,
    Failed = 1, // anything that has no code of its own
    Usage = 2,
    NoRecording = 3, // not a recording
    NoKeyFrame = 4,
    KeyTrouble = 5, // a wrong key, or none where one is needed
    NoOutput = 6,   // full, or not writable
    Damaged = 7     // it was done, but something is missing or wrong
};

// The further parts of --help. `examples` are whole command lines, one a line. `codes` are those that the
// tool gives beside 0 and 2, with what they mean there when that needs saying.
struct Help
{
    std::string examples;
    std::vector<std::pair<Exit, std::string>> codes;
};

// Add --version, --completion bash|zsh, and the examples and exit codes that --help ends with.
void complete(CLI::App& app, const Help& help);

// Parse. Nothing to go on with; else the exit code: 0 when --help and the like were answered, 2 with a
// message for a command line that is not understood.
std::optional<int> parse(CLI::App& app, int argc, char** argv);

// May escape sequences go to this descriptor? Only to a terminal that is not dumb, and not with NO_COLOR.
bool has_colour(int fd);

// Text between escape sequences, when `wanted`. Colours are those of SGR: 31 red, 32 green, 33 yellow, 1
// bold.
std::string paint(const std::string& text, int colour, bool wanted);

} // namespace cli
