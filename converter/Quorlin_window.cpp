#include "Quorlin_window.h"

#include <limits.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>

#include "Quorlin_internal.h"
#include "Quorlin_running.h"

static const size_t WINDOW_SIZE = 524288;

ReadWindow::~ReadWindow()
{
    free(bytes);
}

bool open_window(ReadWindow& window)
{
    window.bytes = static_cast<unsigned char*>(malloc(WINDOW_SIZE));
    window.capacity = window.bytes ? WINDOW_SIZE : 0;
    return window.bytes;
}

static bool make_room(ReadWindow& window, size_t wanted)
{
    if (window.capacity - window.at >= wanted) return true;

    const size_t rest = window.held - window.at;
    unsigned char* to = window.bytes;
    const size_t larger = std::max(wanted, 2 * WINDOW_SIZE);
    if (wanted > window.capacity) {
        to = static_cast<unsigned char*>(malloc(larger));
        if (!to) return false;
    }
    memmove(to, window.bytes + window.at, rest);
    if (to != window.bytes) {
        free(window.bytes);
        window.bytes = to;
        window.capacity = larger;
    }
    window.at = 0;
    window.held = rest;
    return true;
}

Fill fill_window(ReadWindow& window, size_t wanted)
{
    if (window.held - window.at >= wanted) return Fill::enough;
    if (window.before_change) window.before_change();
    if (!make_room(window, wanted)) return Fill::no_memory;

    bool failed;
    const size_t got =
        read_input(window.input, window.bytes + window.held, window.capacity - window.held, failed);
    window.held += got;
    window.taken += got;
    // A place that is tried again may be read after all.
    note_unreadable(window.taken, failed ? input_end(window) : window.taken);
    return window.held - window.at >= wanted ? Fill::enough : Fill::end_of_input;
}

uint64_t window_position(const ReadWindow& window)
{
    return window.taken - (window.held - window.at);
}

uint64_t input_end(const ReadWindow& window)
{
    return std::max(window.taken, static_cast<uint64_t>(window.input.size));
}

bool seek_frame(ReadWindow& window, int kind)
{
    const uint64_t from = window_position(window);
    while (fill_window(window, FRAME_HEADER_SIZE) == Fill::enough) {
        if (is_cancelled()) return false;

        int found;
        const size_t len = window.held - window.at;
        if (FindFrame(window.bytes + window.at, static_cast<int>(len), &found, kind)) {
            window.at += static_cast<size_t>(found);
            note_skipped(from, window_position(window));
            return true;
        }
        window.at = window.held - (FRAME_HEADER_SIZE - 1);
    }
    note_skipped(from, input_end(window));
    return false;
}
