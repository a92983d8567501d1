#include "publisher.h"
#include "avi_bytes.h"
#include "avi_repair.h"
#include "file_lock.h"
#include "files.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <functional>
#include <utility>

#include <sys/stat.h>
#include <unistd.h>

namespace tools {
namespace {

constexpr std::chrono::seconds FirstPause{5}, LongestPause{60};

// Of the finished file, by its own header: a repair may find a picture more than the recorder knew.
int count_pictures(const std::string& path)
{
    AVI_HdrlHeader header{};
    const avi::File file(path);
    avi::read_at(file, 0, reinterpret_cast<uint8_t*>(&header), sizeof(header));
    return int(header.avih.dwTotalFrames);
}

bool mend(Publisher& publisher, FinishedFile& file, std::string& why)
{
    const std::string part = file.name.part_name();
    bool mended = false;
    if (access(part.c_str(), W_OK) == 0)
        mended = repair_locked(part, *file.torn, {nullptr, publisher.withJob}, why);
    else
        why = strerror(errno);
    if (mended && !still_names(part, *file.lock)) lock_file(part, *file.lock); // it was written anew
    if (mended) file.pictures = count_pictures(part);
    return mended;
}

Published publish(Publisher& publisher, const FinishedFile& file, bool& noRoom)
{
    Published published{file, "", 0, {}};
    RecordingName name = file.name;
    std::string why;
    // With a folder that was taken away, another file may have come to that name: a live one, perhaps.
    if (!still_names(name.part_name(), *file.lock)) {
        published.trouble = {cli::cause::CannotWrite,
                             name.part_name() + ": it cannot be finished: it is no longer there"};
        return published;
    }
    if (file.torn && !mend(publisher, published.file, why)) {
        published.trouble = {cli::cause::CannotWrite, name.part_name() + ": it cannot be finished: " + why};
        return published;
    }
    if (!sync_file(name.part_name())) {
        const int error = errno;
        published.trouble = {write_cause(error), name.part_name() + ": " + strerror(error)};
        return published;
    }
    if (!publish_name(name, why)) {
        noRoom = errno == ENOSPC;
        published.trouble = {write_cause(errno), why};
        return published;
    }
    published.path = name.final_name();
    struct stat status
    {
    };
    stat(published.path.c_str(), &status);
    published.bytes = uint64_t(status.st_size);
    return published;
}

// A new name may need one more block of the directory, while the file that grows holds the last ones. Those
// that it does not need are there again when it is finished: no reason to tell of it yet.
void settle(Publisher& publisher, Waiting& one, Published& published, bool noRoom)
{
    const bool trouble = !published.trouble.text.empty();
    published.last = trouble && publisher.over;
    if (!trouble || publisher.over || !(noRoom || one.told)) {
        publisher.done.push_back(published);
        one.told = true;
    }
    if (trouble && !publisher.over) publisher.later.push_back(one);
    publisher.changed.notify_all();
}

// For a file, or until it is time to try again those with which there was trouble.
void wait_for_work(Publisher& publisher, std::unique_lock<std::mutex>& lock, std::chrono::seconds pause)
{
    const auto wanted = [&publisher] { return publisher.over || !publisher.waiting.empty(); };
    if (publisher.later.empty())
        publisher.changed.wait(lock, wanted);
    else
        publisher.changed.wait_for(lock, pause, wanted);
    if (publisher.waiting.empty()) publisher.waiting.swap(publisher.later);
}

void work(Publisher& publisher)
{
    std::unique_lock lock(publisher.mutex);
    for (std::chrono::seconds pause = FirstPause;;) {
        if (publisher.waiting.empty()) wait_for_work(publisher, lock, pause);
        if (publisher.waiting.empty()) break;
        Waiting one = publisher.waiting.front();
        publisher.waiting.pop_front();
        lock.unlock();
        bool noRoom = false;
        Published published = publish(publisher, one.file, noRoom);
        lock.lock();
        pause = published.trouble.text.empty() ? FirstPause : std::min(2 * pause, LongestPause);
        settle(publisher, one, published, noRoom);
    }
    publisher.ended = true;
    publisher.changed.notify_all();
}

} // namespace

Publisher::~Publisher()
{
    if (!thread.joinable()) return;
    {
        const std::lock_guard lock(mutex);
        over = true;
        changed.notify_all();
    }
    thread.join();
}

void start_publishing(Publisher& publisher)
{
    publisher.thread = std::thread(work, std::ref(publisher));
}

void publish_later(Publisher& publisher, const FinishedFile& file)
{
    const std::lock_guard lock(publisher.mutex);
    publisher.waiting.swap(publisher.later); // of this file, some room has come back
    for (const Waiting& newer : std::exchange(publisher.later, {})) publisher.waiting.push_back(newer);
    publisher.waiting.push_back({file});
    publisher.changed.notify_all();
}

std::vector<Published> take_published(Publisher& publisher)
{
    const std::lock_guard lock(publisher.mutex);
    return std::exchange(publisher.done, {});
}

bool await_published(Publisher& publisher)
{
    std::unique_lock lock(publisher.mutex);
    publisher.over = true;
    publisher.changed.notify_all();
    publisher.changed.wait(lock, [&publisher] { return publisher.ended || !publisher.done.empty(); });
    return !publisher.done.empty();
}

} // namespace tools
