#include "rescue_read.h"
#include "human.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tools {
namespace {

constexpr uint64_t Block = 4096;

// Where the first stretch begins that ends behind `at`.
std::map<uint64_t, uint64_t>::const_iterator lost_from(const RescueRead& from, uint64_t at)
{
    auto next = from.lost.upper_bound(at);
    return next != from.lost.begin() && std::prev(next)->second > at ? std::prev(next) : next;
}

void note_lost(RescueRead& from, uint64_t at, uint64_t end)
{
    auto place = from.lost.upper_bound(at);
    if (place != from.lost.begin() && std::prev(place)->second == at)
        std::prev(place)->second = end;
    else
        from.lost.emplace(at, end);
    from.lostBytes += end - at;
}

ssize_t read_once(const RescueRead& from, uint64_t at, std::span<uint8_t> room)
{
    ssize_t got;
    do got = pread(from.fd, room.data(), room.size(), off_t(from.begin + at));
    while (got < 0 && errno == EINTR);
    return got;
}

// Reading ahead would try the blocks around again and again, and each may take the disk seconds.
void set_failing(RescueRead& from, bool failing)
{
    if (from.failing != failing)
        posix_fadvise(from.fd, 0, 0, failing ? POSIX_FADV_RANDOM : POSIX_FADV_NORMAL);
    from.failing = failing;
}

} // namespace

bool begin_rescue(RescueRead& from, int fd, uint64_t taken)
{
    struct stat status;
    const off_t at = lseek(fd, 0, SEEK_CUR);
    if (at < off_t(taken) || fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) return false;
    from.fd = fd;
    from.begin = uint64_t(at) - taken;
    from.size = uint64_t(std::max(status.st_size, at)) - from.begin;
    return true;
}

size_t rescue_at(RescueRead& from, uint64_t at, std::span<uint8_t> room)
{
    uint64_t most = room.size();
    const auto known = lost_from(from, at);
    const bool inKnown = known != from.lost.end() && known->first <= at;
    if (known != from.lost.end()) most = std::min(most, (inKnown ? known->second : known->first) - at);

    const uint64_t inBlock = std::min(most, Block - (from.begin + at) % Block);
    ssize_t got = inKnown ? -1 : read_once(from, at, room.first(from.failing ? inBlock : most));
    if (got >= 0) {
        set_failing(from, false);
        return size_t(got);
    }
    if (!inKnown && !from.failing) {
        set_failing(from, true);
        got = read_once(from, at, room.first(inBlock));
        if (got >= 0) return size_t(got);
    }
    if (!inKnown) {
        if (at >= from.size) return 0;
        if (from.lost.empty()) from.error = errno;
        most = std::min(inBlock, from.size - at);
        note_lost(from, at, at + most);
    }
    memset(room.data(), 0, most);
    return most;
}

uint64_t lost_between(const RescueRead& from, uint64_t at, uint64_t end)
{
    uint64_t bytes = 0;
    for (auto place = lost_from(from, at); place != from.lost.end() && place->first < end; ++place)
        bytes += std::min(place->second, end) - std::max(place->first, at);
    return bytes;
}

std::string describe_lost(const RescueRead& from)
{
    if (!from.error) return "";
    if (from.lost.empty()) return std::string("it cannot be read to its end: ") + strerror(from.error);
    const size_t places = from.lost.size();
    return counted(from.lostBytes, "byte") +
           (places > 1 ? " in " + counted(places, "place") + ", the first" : "") + " at " +
           std::to_string(from.lost.begin()->first) + (places > 1 ? ", could" : " could") +
           " not be read: " + strerror(from.error);
}

} // namespace tools
