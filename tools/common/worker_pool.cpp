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
#include <set>

#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/prctl.h>
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
    sigset_t before{}; // signals that were blocked when we came
};

// ---- results on their way

struct Fixed
{
    uint64_t whole; // length of the message: a worker may be killed while it writes
    cli::Exit exit;
    bool damaged;
    uint64_t pictures, bytes;
    double seconds;
    SdvReport report;
};

std::string pack(const Result& result)
{
    Fixed fixed{0, result.exit, result.damaged, result.pictures, result.bytes, result.seconds, result.report};
    std::string message(sizeof(fixed), '\0');
    const auto add = [&message](char kind, const std::string& text) {
        message.append(1, kind).append(text).append(1, '\0');
    };
    add('c', result.cause);
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
    result.pictures = fixed.pictures;
    result.bytes = fixed.bytes;
    result.seconds = fixed.seconds;
    result.report = fixed.report;
    for (size_t at = sizeof(fixed); at < message.size();) {
        const char kind = message[at];
        const std::string text = &message[at + 1];
        at += text.size() + 2;
        if (kind == 'c') result.cause = text;
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
    } catch (const std::exception& error) {
        result.cause = job.input + ": " + error.what();
        result.exit = cli::Failed;
    }
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

void fail_job(Pool& pool, size_t job, const std::string& why)
{
    pool.results[job] = {};
    pool.results[job].exit = cli::Failed;
    pool.results[job].cause = pool.jobs[job].input + ": " + why;
}

void start(Pool& pool, size_t slot, size_t job)
{
    Worker& worker = pool.workers[slot];
    worker = {-1, job, -1, {}, Clock::now()};
    pool.kib[slot] = 0;
    int pipe[2];
    if (pipe2(pipe, O_CLOEXEC) != 0) return fail_job(pool, job, strerror(errno));
    const pid_t parent = getpid();
    worker.pid = fork();
    if (worker.pid == 0) work(pool, slot, pipe[1], parent);
    if (worker.pid < 0) fail_job(pool, job, strerror(errno));
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

void collect(Pool& pool, Worker& worker)
{
    int status = 0;
    while (waitpid(worker.pid, &status, 0) < 0 && errno == EINTR) {
    }
    close(worker.fd);
    if (!unpack(worker.message, pool.results[worker.job])) {
        fail_job(pool, worker.job, s_signal ? "interrupted" : end_text(status));
        remove_abandoned_temps(pool.jobs[worker.job].output);
    }
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

void draw(Pool& pool)
{
    std::vector<Running> running;
    for (size_t slot = 0; slot < pool.workers.size(); ++slot) {
        const Worker& worker = pool.workers[slot];
        const Job& job = pool.jobs[worker.job];
        if (worker.pid < 0) continue;
        running.push_back({job.input, uint64_t{pool.kib[slot]} << 10, job.size,
                           std::chrono::duration<double>(Clock::now() - worker.begin).count()});
    }
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

size_t next_job(const Pool& pool, size_t job)
{
    while (job < pool.jobs.size() && !pool.jobs[job].refused.cause.empty()) ++job;
    return job;
}

// The first job that was not begun.
size_t run_pool(Pool& pool)
{
    size_t job = next_job(pool, 0);
    const auto busy = [](const Worker& worker) { return worker.pid > 0; };
    while (!s_signal) {
        for (size_t slot = 0; slot < pool.workers.size() && job < pool.jobs.size(); ++slot) {
            if (busy(pool.workers[slot])) continue;
            start(pool, slot, job);
            job = next_job(pool, job + 1);
        }
        if (job >= pool.jobs.size() && std::none_of(pool.workers.begin(), pool.workers.end(), busy)) break;
        wait_for_workers(pool);
        draw(pool);
    }
    return job;
}

} // namespace

int run_jobs(const std::vector<Job>& jobs, const PoolSettings& settings, std::vector<Result>& results)
{
    results.clear();
    for (const Job& job : jobs) results.push_back(job.refused);
    Pool pool{jobs, settings, results, std::vector<Worker>(std::min<size_t>(settings.atOnce, jobs.size()))};
    const size_t size = sizeof(*pool.kib) * (pool.workers.size() + 1);
    void* shared = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (shared == MAP_FAILED) throw std::bad_alloc();
    pool.kib = static_cast<std::atomic<uint32_t>*>(shared);
    pool.progress.shown = settings.progress;

    watch_signals(pool);
    clear_folders(jobs);
    const size_t begun = run_pool(pool);
    wipe_progress(pool.progress);
    end_workers(pool);
    sigprocmask(SIG_SETMASK, &pool.before, nullptr);
    munmap(shared, size);
    results.resize(begun);
    return s_signal;
}

} // namespace tools
