#include "files.h"
#include "human.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>

namespace tools {
namespace {

constexpr uint64_t LargestInput = uint64_t{1} << 30;
constexpr uint64_t LargestStream = uint64_t{64} << 20;

bool refuse_size(const std::string& path, uint64_t limit, std::string& why)
{
    why = path + ": larger than " + human_bytes(limit) + ", which is the most that is read";
    if (limit == LargestStream) why += " of what is no regular file";
    return false;
}

} // namespace

bool read_file(const std::string& path, std::vector<uint8_t>& bytes, std::string& why)
{
    const std::unique_ptr<FILE, int (*)(FILE*)> file(fopen(path.c_str(), "rb"), fclose);
    struct stat status;
    if (!file || fstat(fileno(file.get()), &status) != 0) {
        why = "cannot open " + path + ": " + strerror(errno);
        return false;
    }
    const bool regular = S_ISREG(status.st_mode);
    const uint64_t limit = regular ? LargestInput : LargestStream;
    if (regular && uint64_t(status.st_size) > limit) return refuse_size(path, limit, why);

    const size_t BLOCK = 1 << 20;
    bytes.clear();
    bytes.reserve(size_t(regular ? status.st_size : 0) + BLOCK);
    size_t held = 0, got = 0;
    do {
        if (held > limit) return refuse_size(path, limit, why);
        bytes.resize(held + BLOCK);
        got = fread(bytes.data() + held, 1, BLOCK, file.get());
        held += got;
    } while (got == BLOCK);
    bytes.resize(held);

    if (ferror(file.get())) why = "cannot read " + path + ": " + strerror(errno);
    return !ferror(file.get());
}

bool same_file(const std::string& a, const std::string& b)
{
    struct stat statA, statB;
    if (stat(a.c_str(), &statA) != 0 || stat(b.c_str(), &statB) != 0) return false;
    return statA.st_dev == statB.st_dev && statA.st_ino == statB.st_ino;
}

bool exists(const std::string& path)
{
    struct stat status;
    return lstat(path.c_str(), &status) == 0;
}

// Not every file system can rename without replacing, nor link.
bool rename_new(const std::string& from, const std::string& to)
{
    if (renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0) return true;
    if (errno != EINVAL && errno != ENOSYS) return false;
    if (link(from.c_str(), to.c_str()) == 0) return unlink(from.c_str()) == 0;
    if (errno == EEXIST) return false;
    if (!exists(to)) return rename(from.c_str(), to.c_str()) == 0;
    errno = EEXIST;
    return false;
}

// Not every file system does that, nor may everybody read the directory.
bool sync_directory(const std::string& file)
{
    const size_t slash = file.rfind('/');
    const std::string directory = slash == std::string::npos ? "." : file.substr(0, slash + 1);
    const int fd = open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return errno == EACCES;
    const int error = fsync(fd) == 0 ? 0 : errno;
    close(fd);
    errno = error;
    return error == 0 || error == EINVAL || error == ENOSYS;
}

bool sync_file(const std::string& path)
{
    const int fd = open(path.c_str(), O_RDWR | O_CLOEXEC);
    if (fd < 0) return false;
    const bool synced = fsync(fd) == 0;
    const int reason = errno;
    close(fd);
    errno = reason;
    return synced;
}

// The disk has the next piece already while the one before is waited for. What a wait tells of a failure,
// fsync() need not tell once more.
bool sync_in_pieces(int fd, const std::atomic<bool>* stop)
{
    constexpr off_t Piece = 4 << 20; // also a slow card takes two of them within a second
    constexpr unsigned Wait =
        SYNC_FILE_RANGE_WAIT_BEFORE | SYNC_FILE_RANGE_WRITE | SYNC_FILE_RANGE_WAIT_AFTER;
    struct stat status;
    if (fstat(fd, &status) != 0) return false;
    for (off_t at = 0; stop && at < status.st_size; at += Piece) {
        errno = EINTR;
        if (*stop) return false;
        const bool begun = sync_file_range(fd, at + Piece, Piece, SYNC_FILE_RANGE_WRITE) == 0;
        if (begun && sync_file_range(fd, at, Piece, Wait) == 0) continue;
        if (errno != ENOSYS && errno != EINVAL) return false;
        break;
    }
    return fsync(fd) == 0;
}

bool write_at(int fd, uint64_t offset, std::span<const uint8_t> bytes)
{
    for (size_t done = 0; done < bytes.size();) {
        const ssize_t put = pwrite(fd, &bytes[done], bytes.size() - done, off_t(offset + done));
        if (put < 0 && errno == EINTR) continue;
        if (put <= 0) return false;
        done += size_t(put);
    }
    return true;
}

OutputFile::OutputFile(const std::string& name) : path(name), file(fopen(name.c_str(), "wb")) {}

OutputFile::~OutputFile()
{
    if (!file) return;
    struct stat status;
    const bool regular = fstat(fileno(file), &status) == 0 && S_ISREG(status.st_mode);
    fclose(file);
    if (regular) unlink(path.c_str());
}

bool write_output(OutputFile& output, std::span<const uint8_t> bytes)
{
    return bytes.empty() || fwrite(bytes.data(), 1, bytes.size(), output.file) == bytes.size();
}

bool rewrite_start(OutputFile& output, std::span<const uint8_t> bytes)
{
    return fseeko(output.file, 0, SEEK_SET) == 0 && write_output(output, bytes);
}

bool cut_output(OutputFile& output, uint64_t size)
{
    return fflush(output.file) == 0 && ftruncate(fileno(output.file), static_cast<off_t>(size)) == 0;
}

bool finish_output(OutputFile& output)
{
    if (fflush(output.file) != 0) return false;

    // A failing close still closes; the name is all that is left to be cleared away.
    const bool closed = fclose(output.file) == 0;
    output.file = nullptr;
    if (!closed) unlink(output.path.c_str());
    return closed;
}

} // namespace tools
