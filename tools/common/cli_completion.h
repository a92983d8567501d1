// Completion scripts, made from what a tool's command line knows of itself.
#pragma once

#include <CLI/CLI.hpp>

#include <string>

namespace cli {

// For "bash" or "zsh". Options complete by name, options with a fixed set of values by value, and everything
// else by file name.
std::string completion(const CLI::App& app, const std::string& shell);

} // namespace cli
