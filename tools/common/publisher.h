// Recordings get their names when they are on the disk, not before: one that has its name is whole, also
// after a power failure. To bring gigabytes there takes seconds in which no camera can wait, so a thread does
// it.
#pragma once

#include "avi_files.h"

#include <condition_variable>
#include <deque>
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
    std::string trouble; // empty, or why it keeps its part name
};

struct Publisher
{
    std::mutex mutex; // of all below
    std::condition_variable changed;
    std::deque<FinishedFile> waiting;
    std::vector<Published> done;
    bool over = false;
    std::thread thread;

    Publisher() = default;
    ~Publisher(); // see finish_publishing()
    Publisher(const Publisher&) = delete;
    Publisher& operator=(const Publisher&) = delete;
};

void start_publishing(Publisher& publisher);
void publish_later(Publisher& publisher, const FinishedFile& file);

// Those that were done since the last call, in their order.
std::vector<Published> take_published(Publisher& publisher);

// Wait until nothing is left to be done. No file comes any more.
void finish_publishing(Publisher& publisher);

} // namespace tools
