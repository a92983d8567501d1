// What the exit code of a tool says.
#pragma once

#include <initializer_list>

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
    Damaged = 7,    // it was done, but something is missing or wrong
    Exists = 8      // the output is there already, and was not to be replaced
};

// The worse of two. What came out with something missing is better than what did not come out at all; a cause
// that can be named is better than one that cannot.
constexpr Exit worse(Exit a, Exit b)
{
    for (const Exit code : {Usage, Failed, NoOutput, KeyTrouble, NoKeyFrame, NoRecording, Exists, Damaged})
        if (a == code || b == code) return code;
    return Fine;
}

} // namespace cli
