// Whose a file is: who writes to it, or finishes it, holds a lock on it as long as it has that name.
#pragma once

#include <string>

namespace tools {

struct FileLock
{
    int fd = -1; // of the locked file, for this alone

    FileLock() = default;
    ~FileLock();
    FileLock(FileLock&& other) noexcept;
    FileLock& operator=(FileLock&& other) noexcept;
};

enum class Locked
{
    ours,
    others, // somebody holds it
    gone,   // the name leads to no file, or to another one than a moment ago
    not_at_all
};

// Lock a file that is there. With not_at_all errno tells why.
Locked lock_file(const std::string& path, FileLock& lock);

// Does the path still name the file that is locked?
bool still_names(const std::string& path, const FileLock& lock);

// Make the file, which must not be there yet, and lock it. A repair may look at it before it has the lock and
// clear it away: that is `gone` or `others`. Where the file system knows no locks it is ours without one.
Locked create_locked(const std::string& path, FileLock& lock);

} // namespace tools
