// How a file begins: with a recording's file header, or with what is left where that is lost.
#pragma once

#include "CommonFun.h"

#include <cstdint>
#include <span>
#include <string>

namespace sdv {

enum class Start
{
    Recording,
    HeaderLost, // frames come, but the file header in front of them is gone
    Empty,
    Other
};

struct Beginning
{
    Start start = Start::Other;
    uint64_t firstFrame = 0; // of HeaderLost
    uint32_t flag = 0;       // that its frames begin with
};

// `head` are the first bytes, at most 88. They lie at `base` of the open file; below 0 it cannot be sought,
// and they are all that is looked at.
Beginning look_at_start(int fd, int64_t base, std::span<const uint8_t> head);

const char* start_text(Start start); // what follows the file's name
const char* start_code(Start start); // of cli::cause

// Another recording of the same camera, whose file header can stand in for lost ones.
struct Like
{
    std::string path; // empty: there is none
    S_FileHeader header{};
};

// False, and the reason in `why`, when it has no file header either.
bool read_like(const std::string& path, Like& like, std::string& why);

// Its header, without the date and the sizes that belong to that recording alone. False, and the reason in
// `why`, when that camera's frames begin otherwise.
bool borrow_header(const Like& like, const Beginning& beginning, S_FileHeader& header, std::string& why);

// "its file header is lost: ... are taken from good.sdv"
std::string borrowed_text(const std::string& from);

} // namespace sdv
