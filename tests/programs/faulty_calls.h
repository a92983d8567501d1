// Calls of the C library that fail when a test says so. The program's own symbols win over libc's, also for
// what the shared library and libc itself call.
#pragma once

enum Family : unsigned
{
    MEMORY = 1,
    FILES = 2,
    THREADS = 4,
    SOCKETS = 8,
    NAMES = 16, // of files: looked up, removed
    ANY = 31,
    BREAKS_OFF = 32 // beside its family: a signal can end the call
};

enum class Fault
{
    failing,
    halved,      // of calls that may transfer less than they are asked to
    interrupted, // of calls that a signal can end
    disturbed    // the call goes well, but disturb() comes before it
};

// What strikes the n-th call of these families, or from the n-th on every one (interruptions: every other).
struct Plan
{
    Fault fault = Fault::failing;
    bool lasting = false;
    unsigned families = ANY;
    long n = 1;
    void (*disturb)() = nullptr;
};

void begin_faults(const Plan& plan);
const char* struck_call(); // the first one; nullptr when there was none
void end_faults();
