// What the command lines of all tools have in common.
#pragma once

#include "exit_code.h"

#include <CLI/CLI.hpp>

#include <exception>
#include <map>
#include <optional>
#include <string>

namespace cli {

// The further parts of --help. `examples` are whole command lines, one a line. `codes` are those that the
// tool gives beside 0 and 2, with what they mean there when that needs saying.
struct Help
{
    std::string examples;
    std::vector<std::pair<Exit, std::string>> codes;
};

// Add --version, --completion bash|zsh, and the examples and exit codes that --help ends with. Its lines fit
// COLUMNS, or the terminal, or 80 characters.
void complete(CLI::App& app, const Help& help);

// Parse. Nothing to go on with; else the exit code: 0 when --help and the like were answered, 2 with a
// message for a command line that is not understood.
std::optional<int> parse(CLI::App& app, int argc, char** argv);

// A value that is one of these words, and given on as the number beside it.
void choose(CLI::Option* option, const std::map<std::string, int>& numbers);

// The option names files: - is refused, so that nobody gets a file called so. The same option.
CLI::Option* names_file(CLI::Option* option);

const char* version();

// For what no tool expects: tell it, and the exit code.
int give_up(const char* tool, const std::exception& error);

// May lines be drawn over? Only on a terminal that is not dumb.
bool moves_cursor(int fd);

// May colours go to this descriptor? Only to such a terminal, and not with NO_COLOR.
bool has_colour(int fd);

// Text between escape sequences, when `wanted`. Colours are those of SGR: 31 red, 32 green, 33 yellow, 1
// bold.
std::string paint(const std::string& text, int colour, bool wanted);

} // namespace cli
