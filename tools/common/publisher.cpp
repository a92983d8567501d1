#include "publisher.h"
#include "files.h"

#include <cerrno>
#include <cstring>
#include <functional>
#include <utility>

#include <sys/stat.h>

namespace tools {
namespace {

Published publish(const FinishedFile& file, bool& noRoom)
{
    Published published{file, "", 0, ""};
    RecordingName name = file.name;
    if (!sync_file(name.part_name())) {
        published.trouble = name.part_name() + ": " + strerror(errno);
        return published;
    }
    if (!publish_name(name, published.trouble)) {
        noRoom = errno == ENOSPC;
        return published;
    }
    published.trouble.clear();
    published.path = name.final_name();
    struct stat status
    {
    };
    stat(published.path.c_str(), &status);
    published.bytes = uint64_t(status.st_size);
    return published;
}

// A new name may need one more block of the directory, while the file that grows holds the last ones. Those
// that it does not need are there again when it is finished.
void settle(Publisher& publisher, const Published& published, bool noRoom)
{
    if (noRoom && !publisher.over)
        publisher.noRoom.push_back(published.file);
    else
        publisher.done.push_back(published);
    publisher.changed.notify_all();
}

void work(Publisher& publisher)
{
    std::unique_lock lock(publisher.mutex);
    for (;;) {
        publisher.changed.wait(lock, [&publisher] { return publisher.over || !publisher.waiting.empty(); });
        if (publisher.waiting.empty()) publisher.waiting.swap(publisher.noRoom);
        if (publisher.waiting.empty()) break;
        const FinishedFile file = publisher.waiting.front();
        publisher.waiting.pop_front();
        lock.unlock();
        bool noRoom = false;
        const Published published = publish(file, noRoom);
        lock.lock();
        settle(publisher, published, noRoom);
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
    publisher.waiting.swap(publisher.noRoom); // of this file, some room has come back
    for (const FinishedFile& newer : std::exchange(publisher.noRoom, {})) publisher.waiting.push_back(newer);
    publisher.waiting.push_back(file);
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
