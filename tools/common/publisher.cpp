#include "publisher.h"
#include "files.h"

#include <cerrno>
#include <cstring>
#include <functional>
#include <utility>

#include <sys/stat.h>

namespace tools {
namespace {

Published publish(const FinishedFile& file)
{
    Published published{file, "", 0, ""};
    RecordingName name = file.name;
    if (!sync_file(name.part_name())) {
        published.trouble = name.part_name() + ": " + strerror(errno);
        return published;
    }
    if (!publish_name(name, published.trouble)) return published;
    published.trouble.clear();
    published.path = name.final_name();
    sync_directory(published.path);
    struct stat status
    {
    };
    stat(published.path.c_str(), &status);
    published.bytes = uint64_t(status.st_size);
    return published;
}

void work(Publisher& publisher)
{
    std::unique_lock lock(publisher.mutex);
    for (;;) {
        publisher.changed.wait(lock, [&publisher] { return publisher.over || !publisher.waiting.empty(); });
        if (publisher.waiting.empty()) return;
        const FinishedFile file = publisher.waiting.front();
        publisher.waiting.pop_front();
        lock.unlock();
        const Published published = publish(file);
        lock.lock();
        publisher.done.push_back(published);
    }
}

} // namespace

Publisher::~Publisher()
{
    finish_publishing(*this);
}

void start_publishing(Publisher& publisher)
{
    publisher.thread = std::thread(work, std::ref(publisher));
}

void publish_later(Publisher& publisher, const FinishedFile& file)
{
    const std::lock_guard lock(publisher.mutex);
    publisher.waiting.push_back(file);
    publisher.changed.notify_one();
}

std::vector<Published> take_published(Publisher& publisher)
{
    const std::lock_guard lock(publisher.mutex);
    return std::exchange(publisher.done, {});
}

void finish_publishing(Publisher& publisher)
{
    {
        const std::lock_guard lock(publisher.mutex);
        publisher.over = true;
        publisher.changed.notify_one();
    }
    if (publisher.thread.joinable()) publisher.thread.join();
}

} // namespace tools
