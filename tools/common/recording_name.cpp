#include "recording_name.h"
#include "files.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include <unistd.h>

namespace tools {
namespace {

constexpr int MaxNumber = 100000;
constexpr int FirstYear = 2000; // before it, a clock that was never set

// True when the part file was made. Otherwise errno says why, EEXIST when the name belongs to somebody.
bool take(const RecordingName& name, FileLock& lock)
{
    const std::string part = name.part_name();
    const Locked locked = create_locked(part, lock);
    if (locked == Locked::not_at_all) return false;
    if (locked == Locked::ours && !exists(name.final_name())) return true;
    if (locked == Locked::ours) unlink(part.c_str());
    errno = EEXIST;
    return false;
}

} // namespace

std::optional<time_t> start_of(const S_FileHeader& header)
{
    tm date{};
    date.tm_year = header.Year - 1900;
    date.tm_mon = header.Month - 1;
    date.tm_mday = header.Day;
    date.tm_hour = header.Hour;
    date.tm_min = header.Minute;
    date.tm_sec = header.Second;
    const tm given = date;
    const time_t seconds = timegm(&date); // puts right what no calendar has, such as 31 June
    const bool same = date.tm_year == given.tm_year && date.tm_mon == given.tm_mon &&
                      date.tm_mday == given.tm_mday && date.tm_hour == given.tm_hour &&
                      date.tm_min == given.tm_min && date.tm_sec == given.tm_sec;
    if (!same || header.Year < FirstYear || header.Year > 9999) return std::nullopt;
    return seconds;
}

time_t local_now()
{
    const time_t now = time(nullptr);
    tm date{};
    localtime_r(&now, &date);
    return timegm(&date);
}

std::string date_name(time_t start)
{
    char text[64];
    tm date{};
    gmtime_r(&start, &date);
    strftime(text, sizeof(text), "%Y%m%d-%H%M%S", &date);
    return text;
}

std::string RecordingName::final_name() const
{
    return stem + (number == 1 ? "" : "-" + std::to_string(number)) + ".avi";
}

std::string RecordingName::part_name() const
{
    return final_name() + ".part";
}

bool take_name(RecordingName& name, const std::string& directory, time_t start, FileLock& lock,
               std::string& why)
{
    name.stem = directory + "/" + date_name(start);
    for (name.number = 1; name.number < MaxNumber; ++name.number) {
        if (take(name, lock)) return true;
        if (errno != EEXIST) break;
    }
    why = name.part_name() + ": " + strerror(errno);
    return false;
}

bool publish_name(RecordingName& name, std::string& why)
{
    const std::string part = name.part_name();
    for (; name.number < MaxNumber; ++name.number) {
        if (rename_new(part, name.final_name())) {
            sync_directory(name.final_name());
            return true;
        }
        if (errno != EEXIST) break;
    }
    const int reason = errno;
    why = part + ": " + strerror(reason);
    errno = reason;
    return false;
}

} // namespace tools
