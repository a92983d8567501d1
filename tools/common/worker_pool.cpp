#include "worker_pool.h"
#include "progress.h"
#include "temp_output.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <exception>
#include <filesystem>
#include <map>
#include <new>
#include <optional>
#include <set>

#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace tools {
namespace {

using Clock = std::chrono::steady_clock;
constexpr std::array EndSignals = {SIGINT, SIGTERM, SIGHUP};
constexpr timespec DrawEvery = {0, 100'000'000};

volatile sig_atomic_t s_signal; // what a handler can set

void note_signal(int number)
{
    s_signal = number;
}

struct Worker
{
    pid_t pid = -1;
    size_t job = 0;
    int fd = -1; // its result comes from there
    std::string message;
    Clock::time_point begin;
};

struct Pool
{
    const std::vector<Job>& jobs;
    const PoolSettings& settings;
    std::vector<Result>& results;
    std::vector<Worker> workers;          // pid -1: free
    std::atomic<uint32_t>* kib = nullptr; // of each worker, in memory that the processes share
    Progress progress{};
    std::map<dev_t, size_t> full{}; // disks, and the job that found each so
    size_t ended = 0, toDo = 0;     // jobs
    uint64_t endedBytes = 0, bytesToDo = 0;
    Clock::time_point begin = Clock::now();
    sigset_t before{}; // signals that were blocked when we came
};

// ---- results on their way

struct Fixed
{
    uint64_t whole; // length of the message: a worker may be killed while it writes
    cli::Exit exit;
    bool damaged, noRoom;
    uint64_t pictures, bytes;
    double seconds, soundEarly;
    SdvReport report;
};

std::string pack(const Result& result)
{
    Fixed fixed{0,
                result.exit,
                result.damaged,
                result.noRoom,
                result.pictures,
                result.bytes,
                result.seconds,
                result.soundEarly,
                result.report};
    std::string message(sizeof(fixed), '\0');
    const auto add = [&message](char kind, const std::string& text) {
        message.append(1, kind).append(text).append(1, '\0');
    };
    add('c', result.cause);
    add('k', result.code);
    for (const std::string& output : result.outputs) add('o', output);
    for (const std::string& note : result.notes) add('n', note);
    fixed.whole = message.size();
    memcpy(message.data(), &fixed, sizeof(fixed));
    return message;
}

// False when it broke off.
bool unpack(const std::string& message, Result& result)
{
    Fixed fixed;
    if (message.size() < sizeof(fixed)) return false;
    memcpy(&fixed, message.data(), sizeof(fixed));
    if (message.size() != fixed.whole) return false;
    result.exit = fixed.exit;
    result.damaged = fixed.damaged;
    result.noRoom = fixed.noRoom;
    result.pictures = fixed.pictures;
    result.bytes = fixed.bytes;
    result.seconds = fixed.seconds;
    result.soundEarly = fixed.soundEarly;
    result.report = fixed.report;
    for (size_t at = sizeof(fixed); at < message.size();) {
        const char kind = message[at];
        const std::string text = &message[at + 1];
        at += text.size() + 2;
        if (kind == 'c') result.cause = text;
        if (kind == 'k') result.code = text;
        if (kind == 'o') result.outputs.push_back(text);
        if (kind == 'n') result.notes.push_back(text);
    }
    return true;
}

// ---- in the worker

void set_up_worker(const Pool& pool, pid_t parent)
{
    // Whatever ends the parent, nobody is left who would tidy up later.
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (getppid() != parent) _exit(cli::Failed);
    for (const int number : EndSignals) {
        struct sigaction old;
        sigaction(number, nullptr, &old);
        if (old.sa_handler != SIG_IGN) signal(number, SIG_DFL);
    }
    sigprocmask(SIG_SETMASK, &pool.before, nullptr);

    // The library prints markers, and standard output is the parent's; so is the terminal when lines are
    // drawn.
    const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
    dup2(null, STDOUT_FILENO);
    if (pool.progress.shown) dup2(null, STDERR_FILENO);
}

Result convert_safely(const Pool& pool, const Job& job, std::atomic<uint32_t>& kib)
{
    Result result;
    try {
        return convert(job, pool.settings.convert, kib);
    } catch (const std::bad_alloc&) {
        result.cause = job.input + ": out of memory";
        result.code = cli::cause::OutOfMemory;
    } catch (const std::exception& error) {
        result.cause = job.input + ": " + error.what();
        result.code = cli::cause::Failed;
    }
    result.exit = cli::Failed;
    return result;
}

[[noreturn]] void work(const Pool& pool, size_t slot, int fd, pid_t parent)
{
    set_up_worker(pool, parent);
    const std::string message = pack(convert_safely(pool, pool.jobs[pool.workers[slot].job], pool.kib[slot]));
    for (size_t at = 0; at < message.size();) {
        const ssize_t put = write(fd, &message[at], message.size() - at);
        if (put < 0 && errno != EINTR) break;
        if (put > 0) at += size_t(put);
    }
    _exit(cli::Fine);
}

// ---- in the parent

void fail_job(Pool& pool, size_t job, const char* code, const std::string& why)
{
    pool.results[job] = {};
    pool.results[job].exit = cli::Failed;
    pool.results[job].code = code;
    pool.results[job].cause = pool.jobs[job].input + ": " + why;
}

void fail_to_start(Pool& pool, size_t job)
{
    const int reason = errno;
    fail_job(pool, job, reason == ENOMEM ? cli::cause::OutOfMemory : cli::cause::Failed, strerror(reason));
    ++pool.ended;
}

void start(Pool& pool, size_t slot, size_t job)
{
    Worker& worker = pool.workers[slot];
    worker = {-1, job, -1, {}, Clock::now()};
    pool.kib[slot] = 0;
    int pipe[2];
    if (pipe2(pipe, O_CLOEXEC) != 0) return fail_to_start(pool, job);
    const pid_t parent = getpid();
    worker.pid = fork();
    if (worker.pid == 0) work(pool, slot, pipe[1], parent);
    if (worker.pid < 0) fail_to_start(pool, job);
    close(pipe[1]);
    worker.fd = pipe[0];
    if (worker.pid < 0) close(worker.fd);
}

// Of a worker that said nothing. Its own handler of signals ends it with 128 and more.
std::string end_text(int status)
{
    const int number = WIFSIGNALED(status) ? WTERMSIG(status) : WEXITSTATUS(status) - 128;
    if (number <= 0) return "the conversion ended without a result";
    return "the conversion was ended: " + std::string(strsignal(number));
}

// Where a file of this name would lie.
std::optional<dev_t> disk_of(const std::string& path)
{
    struct stat status;
    const std::filesystem::path folder = std::filesystem::path(path).parent_path();
    if (stat(path.c_str(), &status) == 0 || stat(folder.empty() ? "." : folder.c_str(), &status) == 0)
        return status.st_dev;
    return std::nullopt;
}

void collect(Pool& pool, Worker& worker)
{
    int status = 0;
    while (waitpid(worker.pid, &status, 0) < 0 && errno == EINTR) {
    }
    close(worker.fd);
    Result& result = pool.results[worker.job];
    result = {};
    if (!unpack(worker.message, result)) {
        s_signal ? fail_job(pool, worker.job, cli::cause::Interrupted, "interrupted")
                 : fail_job(pool, worker.job, cli::cause::WorkerDied, end_text(status));
        remove_abandoned_temps(pool.jobs[worker.job].output);
    }
    const auto disk = result.noRoom ? disk_of(pool.jobs[worker.job].output) : std::nullopt;
    if (disk) pool.full.emplace(*disk, worker.job);
    ++pool.ended;
    pool.endedBytes += pool.jobs[worker.job].size;
    worker.pid = -1;
}

// False at the end of what it has to say.
bool read_message(Worker& worker)
{
    char piece[4096];
    const ssize_t got = read(worker.fd, piece, sizeof(piece));
    if (got > 0) worker.message.append(piece, size_t(got));
    return got > 0 || (got < 0 && errno == EINTR);
}

double seconds_since(Clock::time_point begin)
{
    return std::chrono::duration<double>(Clock::now() - begin).count();
}

// Those that run, and how far all of them together are.
void draw(Pool& pool)
{
    std::vector<Running> running;
    uint64_t done = pool.endedBytes;
    for (size_t slot = 0; slot < pool.workers.size(); ++slot) {
        const Worker& worker = pool.workers[slot];
        const Job& job = pool.jobs[worker.job];
        if (worker.pid < 0) continue;
        running.push_back({job.input, uint64_t{pool.kib[slot]} << 10, job.size, seconds_since(worker.begin)});
        done += running.back().done;
    }
    if (pool.toDo > 1)
        running.push_back({std::to_string(pool.ended) + " of " + std::to_string(pool.toDo) + " files done",
                           done, pool.bytesToDo, seconds_since(pool.begin)});
    draw_progress(pool.progress, running);
}

void wait_for_workers(Pool& pool)
{
    std::vector<pollfd> polled;
    for (const Worker& worker : pool.workers) polled.push_back({worker.pid < 0 ? -1 : worker.fd, POLLIN, 0});
    if (ppoll(polled.data(), polled.size(), pool.progress.shown ? &DrawEvery : nullptr, &pool.before) < 0)
        return;
    for (size_t slot = 0; slot < polled.size(); ++slot)
        if (polled[slot].revents && !read_message(pool.workers[slot])) collect(pool, pool.workers[slot]);
}

// Signals are looked at only while we wait. One that was ignored when the program started stays ignored.
void watch_signals(Pool& pool)
{
    sigset_t set;
    sigemptyset(&set);
    for (const int number : EndSignals) {
        struct sigaction old, action{};
        sigaction(number, nullptr, &old);
        if (old.sa_handler == SIG_IGN) continue;
        action.sa_handler = note_signal;
        sigaction(number, &action, nullptr);
        sigaddset(&set, number);
    }
    sigprocmask(SIG_BLOCK, &set, &pool.before);
}

void end_workers(Pool& pool)
{
    for (const Worker& worker : pool.workers)
        if (worker.pid > 0) kill(worker.pid, SIGTERM);
    for (Worker& worker : pool.workers)
        if (worker.pid > 0) collect(pool, worker);
}

// Of earlier runs.
void clear_folders(const std::vector<Job>& jobs)
{
    std::set<std::filesystem::path> cleared;
    for (const Job& job : jobs)
        if (job.refused.cause.empty() &&
            cleared.insert(std::filesystem::path(job.output).parent_path()).second)
            remove_abandoned_temps(job.output);
}

// On a full disk each of the others would fail the same way.
bool is_left(Pool& pool, size_t job)
{
    const auto disk = pool.full.empty() ? std::nullopt : disk_of(pool.jobs[job].output);
    if (!disk) return false;
    const auto full = pool.full.find(*disk);
    if (full == pool.full.end()) return false;
    ++pool.results[full->second].left;
    pool.results[job].exit = cli::NoOutput;
    pool.results[job].cause = pool.jobs[job].input + ": not begun: the disk is full";
    return true;
}

size_t next_job(Pool& pool, size_t job)
{
    while (job < pool.jobs.size() && (!pool.jobs[job].refused.cause.empty() || is_left(pool, job))) ++job;
    return job;
}

void run_pool(Pool& pool)
{
    size_t job = 0;
    const auto busy = [](const Worker& worker) { return worker.pid > 0; };
    while (!s_signal) {
        for (size_t slot = 0; slot < pool.workers.size() && job < pool.jobs.size(); ++slot) {
            if (busy(pool.workers[slot]) || (job = next_job(pool, job)) >= pool.jobs.size()) continue;
            start(pool, slot, job++);
        }
        if (std::any_of(pool.workers.begin(), pool.workers.end(), busy)) {
            wait_for_workers(pool);
            draw(pool);
        } else if (job >= pool.jobs.size()) {
            break;
        }
    }
}

void prepare_results(Pool& pool)
{
    pool.results.clear();
    for (size_t job = 0; job < pool.jobs.size(); ++job) {
        const Job& one = pool.jobs[job];
        pool.results.push_back(one.refused);
        if (!one.refused.cause.empty()) continue;
        fail_job(pool, job, cli::cause::NotStarted, "not begun");
        ++pool.toDo;
        pool.bytesToDo += one.size;
    }
}

} // namespace

int run_jobs(const std::vector<Job>& jobs, const PoolSettings& settings, std::vector<Result>& results)
{
    Pool pool{jobs, settings, results, std::vector<Worker>(std::min<size_t>(settings.atOnce, jobs.size()))};
    prepare_results(pool);
    const size_t size = sizeof(*pool.kib) * (pool.workers.size() + 1);
    void* shared = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (shared == MAP_FAILED) throw std::bad_alloc();
    pool.kib = static_cast<std::atomic<uint32_t>*>(shared);
    pool.progress.shown = settings.progress;

    watch_signals(pool);
    clear_folders(jobs);
    run_pool(pool);
    wipe_progress(pool.progress);
    end_workers(pool);
    sigprocmask(SIG_SETMASK, &pool.before, nullptr);
    munmap(shared, size);
    return s_signal;
}

} // namespace tools
