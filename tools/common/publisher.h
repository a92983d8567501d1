// Recordings get their names when they are on the disk, not before: one that has its name is whole, also
// after a power failure. To bring gigabytes there takes seconds in which no camera can wait, so a thread does
// it.
#pragma once

#include "avi_files.h"

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace tools {

struct Published
{
    FinishedFile file;
    std::string path; // its final name
    uint64_t bytes = 0;
    Why trouble;       // without a text, or why it keeps its part name
    bool last = false; // and is not tried again
};

struct Waiting
{
    FinishedFile file;
    bool told = false; // that it did not work
};

struct Publisher
{
    std::mutex mutex; // of all below
    std::condition_variable changed;
    std::deque<Waiting> waiting;
    std::deque<Waiting> later; // to be tried again: by and by, and with each file that comes
    std::vector<Published> done;
    bool over = false;  // no file comes any more
    bool ended = false; // and all were done
    std::thread thread;

    // Calls it when nobody uses the library's job, from the publisher's thread and not under its mutex.
    std::function<void(const std::function<void()>&)> withJob;

    Publisher() = default;
    ~Publisher(); // waits until all are done
    Publisher(const Publisher&) = delete;
    Publisher& operator=(const Publisher&) = delete;
};

void start_publishing(Publisher& publisher);
void publish_later(Publisher& publisher, const FinishedFile& file);

// Those that were done since the last call, in their order. A file with which there is trouble is among them
// once, and then again when it is done, or given up because no file comes any more.
std::vector<Published> take_published(Publisher& publisher);

// No file comes any more: wait until some are done. False when none is left.
bool await_published(Publisher& publisher);

} // namespace tools
