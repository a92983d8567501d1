// Whole files in, one file out that is not left behind half written.
#pragma once

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <span>
#include <string>
#include <vector>

namespace tools {

// False and the reason in `why` when the file cannot be read to its end, or is larger than 1 GiB. What has no
// size to ask for, such as a pipe, may have no end either: of that 64 MiB are taken.
bool read_file(const std::string& path, std::vector<uint8_t>& bytes, std::string& why);

// Two names of one existing file?
bool same_file(const std::string& a, const std::string& b);

// Is there anything by that name, be it a link that leads nowhere?
bool exists(const std::string& path);

// Rename a file to a name that nobody has. False, and errno, EEXIST when somebody has it.
bool rename_new(const std::string& from, const std::string& to);

// Wait until the file is on the disk. False, and errno, when it cannot be brought there.
bool sync_file(const std::string& path);

// The same for an open file, in pieces: once `stop` is set it ends soon, with false and EINTR.
bool sync_in_pieces(int fd, const std::atomic<bool>* stop);

// The same for the file's name. True as well where that cannot be done at all.
bool sync_directory(const std::string& file);

// Write all of it at that offset. False, and errno, when the disk does not take it.
bool write_at(int fd, uint64_t offset, std::span<const uint8_t> bytes);

// An output file. Unless finish_output() succeeded, it is closed and removed when the record goes; only a
// regular file is ever removed. The calls give false, and errno, on failure.
struct OutputFile
{
    std::string path;
    FILE* file = nullptr;

    explicit OutputFile(const std::string& name);
    ~OutputFile();
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;
};

bool write_output(OutputFile& output, std::span<const uint8_t> bytes);
bool rewrite_start(OutputFile& output, std::span<const uint8_t> bytes); // nothing is to be written after it
bool cut_output(OutputFile& output, uint64_t size);
bool finish_output(OutputFile& output);

} // namespace tools
