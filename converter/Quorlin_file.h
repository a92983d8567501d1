// The files of a conversion: opening them in a way that never waits, and removing only what is a file.
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

#include "CommonFun.h"

struct InputFile
{
    int fd = -1; // -1 in an open input: it is no regular file and counts as empty
    int64_t size = 0;

    InputFile() = default;
    InputFile(const InputFile&) = delete;
    InputFile& operator=(const InputFile&) = delete;
    ~InputFile();
};

// false when the path cannot be opened.
bool open_input(InputFile& input, const char* path);

// Read up to len bytes at the current position; fewer at the end, and where reading failed.
size_t read_input(const InputFile& input, void* to, size_t len, bool& failed);

// The first 88 bytes, zero where the input is shorter. false when they cannot be read. The reading position
// stays where it is.
bool read_file_header(const InputFile& input, S_FileHeader& header);

// An empty file for reading and writing; NULL when there is none to be had, or it cannot be sought.
FILE* open_output(const char* path);

// Remove a regular file or a symbolic link; anything else stays.
void remove_output(const char* path);

bool is_same_file(const char* one, const char* other);
