// A reason, as a word for programs and as a text for people.
#pragma once

#include "cause.h"
#include "exit_code.h"

#include <string>

namespace tools {

struct Why
{
    std::string code; // see cause.h
    std::string text;
};

struct Outcome
{
    cli::Exit exit = cli::Fine;
    Why why{}; // it is not Fine
};

} // namespace tools
