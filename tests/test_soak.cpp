// What a device does for years, in a row: nothing may grow. scripts/soak runs it at full length.
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <iostream>

#include "net_support.h"

struct Held
{
    long resident = 0, descriptors = 0, threads = 0; // the first in KiB
};

static long field_of(const std::string& name)
{
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);)
        if (line.compare(0, name.size(), name) == 0) return std::stol(line.substr(name.size()));
    return -1;
}

static Held held_now()
{
    const std::filesystem::directory_iterator open_ones("/proc/self/fd");
    return {field_of("VmRSS:"), std::distance(begin(open_ones), end(open_ones)), field_of("Threads:")};
}

// Rounds until `full` (or `quick`, or the time is over: QUORLIN_SOAK is empty, a number of seconds, or
// "full"); what the process holds when the quick ones are nearly done is what it holds in the end.
static void soak(const char* what, uint64_t quick, uint64_t full, const std::function<void(uint64_t)>& round)
{
    using Clock = std::chrono::steady_clock;
    const char* wanted = getenv("QUORLIN_SOAK");
    const uint64_t limit = wanted ? full : quick;
    const auto end = Clock::now() + std::chrono::seconds(wanted ? std::max(0, atoi(wanted)) : 0);
    const bool timed = wanted && std::string(wanted) != "full";
    Held first;
    uint64_t at = 0;
    for (; at < limit && !testing::Test::HasFailure() && !(timed && Clock::now() > end); ++at) {
        if (at < quick) first = held_now();
        round(at);
    }
    // A thread that was joined still counts until the system has taken it down.
    for (int i = 0; field_of("Threads:") > first.threads && i < 10000; ++i) usleep(1000);
    const Held last = held_now();
    std::cout << what << ": " << at << " rounds; resident " << first.resident << " -> " << last.resident
              << " KiB, descriptors " << first.descriptors << " -> " << last.descriptors << ", threads "
              << first.threads << " -> " << last.threads << std::endl;
    EXPECT_EQ(last.descriptors, first.descriptors);
    EXPECT_LE(last.threads, first.threads);
    if (sanitized) return; // sanitizers keep what is freed
    EXPECT_LT(last.resident, first.resident + 2048);
}

TEST(Soak, Conversions)
{
    TempDir dir;
    Frames frames;
    for (uint32_t i = 1; i <= 50; ++i) frames.push_back(picture(i, 700 * i, i % 10 != 1));
    write_file(dir / "in", recording(frames) + Bytes(100, 0xAA));
    Bytes first;
    soak("conversions", 30, 10000, [&](uint64_t i) {
        unlink((dir / "out").c_str());
        ASSERT_EQ(convert(dir / "in", dir / "out"), done);
        if (i == 0) first = read_file(dir / "out");
        ASSERT_TRUE(i % 100 || same_bytes(read_file(dir / "out"), first));
    });
    expect_video(dir / "out", frames);
}

// As many at once as the table holds; each sends, gets its echo, and goes, with or without a farewell.
TEST(Soak, Connections)
{
    in_layer(64, 1, [] {
        int accepted = 0;
        TcpServer* server = open_server(accept_echo, &accepted);
        soak("connections, by 64", 30, 1000000 / 64, [&](uint64_t round) {
            std::vector<int> peers(64);
            for (int& peer : peers) peer = plain_connect(port_of(server->listenfd));
            for (const int peer : peers) ASSERT_TRUE(send_all(peer, "ping"));
            for (const int peer : peers) ASSERT_EQ(read_up_to(peer, 4), "ping");
            for (size_t i = 0; i < peers.size(); ++i) close_peer(peers[i], (i + round) % 16 != 0);
            wait_for([] { return open_echoes() == 0; });
            ASSERT_EQ(uint64_t(locked([&] { return accepted; })), 64 * (round + 1));
        });
        fflush(nullptr);
    });
}

// A stream without an end, in files one behind the other.
TEST(Soak, Stream)
{
    const char* wanted = getenv("QUORLIN_SOAK");
    const uint64_t fileSize = wanted ? 1u << 30 : 1u << 22;
    TempDir dir;
    const Job job;
    Bytes frame = sdv::frame(picture(1, 250000, 0));
    soak("files", 10, 20, [&](uint64_t) {
        const std::string path = dir / "a.avi";
        uint32_t frames = 0;
        ASSERT_EQ(StartRecord(0, path.c_str(), 1), 0);
        for (uint64_t size = 0; size < fileSize; size += frame.size(), ++frames)
            ASSERT_EQ(RecordAviEx(frame.data(), int(frame.size())), 0);
        ASSERT_EQ(StopRecordEx(0), 0);
        ASSERT_EQ(expect_sound(path).videoLength, frames);
        ASSERT_GE(file_size(path), fileSize);
        unlink(path.c_str());
    });
}
