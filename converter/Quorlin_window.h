// The one window through which an input is read: front to back, in big reads. Frames are handed on where they
// lie in it.
#pragma once

#include "Quorlin_file.h"

struct ReadWindow
{
    const InputFile& input;
    unsigned char* bytes = nullptr;
    size_t capacity = 0;
    size_t at = 0;      // where we are
    size_t held = 0;    // bytes [at, held) are still to be used
    uint64_t taken = 0; // bytes of the input read so far
    // Told before bytes in the window move or give way to others.
    void (*before_change)() = nullptr;

    explicit ReadWindow(const InputFile& from) : input(from) {}
    ReadWindow(const ReadWindow&) = delete;
    ReadWindow& operator=(const ReadWindow&) = delete;
    ~ReadWindow();
};

enum class Fill
{
    enough,
    end_of_input, // fewer bytes are left
    no_memory
};

// Memory for the window. false when there is none.
bool open_window(ReadWindow& window);

// See to it that wanted bytes lie at window.at.
Fill fill_window(ReadWindow& window, size_t wanted);

// Where window.at lies in the input.
uint64_t window_position(const ReadWindow& window);

// Where the input ends. What a read error, or another program that cuts the file, keeps from us counts too.
uint64_t input_end(const ReadWindow& window);

// Go to the first valid frame header at or behind window.at; kind as FindFrame() takes it. What lies before
// it is noted as skipped, and everything up to the end (false) when there is none.
bool seek_frame(ReadWindow& window, int kind);
