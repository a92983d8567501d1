// sdvrecord: takes a camera's stream over TCP and writes AVI files while it arrives. Everything that happens
// to a camera and its files happens in callbacks of the event loop; the main thread waits for signals.
#include "Quorlin.h"
#include "camera.h"
#include "cli_record_events.h"
#include "cli_record_options.h"
#include "descriptors.h"
#include "end_signals.h"
#include "endpoint.h"
#include "human.h"
#include "key.h"
#include "messages.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <optional>
#include <utility>

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

using tools::Camera;
using Clock = std::chrono::steady_clock;

// What is read of one connection in one go, and how often in a row: posted functions run before the loop
// looks at anything else, so a camera that sends faster than the disk takes it would keep the loop.
constexpr size_t ReadAtOnce = 256 << 10;
constexpr int ReadsInRow = 64;

constexpr int LongestPause = 30; // seconds between two calls of a camera that does not answer

constexpr std::chrono::seconds SumTime{10};    // refused connections are told together
constexpr std::chrono::seconds ReplaceTime{2}; // of silence, for the same camera to come anew

// Connections that came while a camera was there, and were not told of yet.
struct Refused
{
    uint64_t count = 0;
    std::string peer; // the last one
    Clock::time_point nextTold;
};

// Guarded by the main lock, which every callback holds.
struct Recorder
{
    cli::RecordOptions options;
    cli::Events events;
    pthread_t mainThread = pthread_self();
    TcpServer* server = nullptr;
    TcpClient* caller = nullptr;  // of the camera that we call, call for call the same
    int pause = 1, untilCall = 0; // seconds
    Camera camera;
    cli::Told told;
    Refused refused;
    tools::AviFiles files;
    tools::Publisher publisher;
    tools::Recovery recovery;
    bool recovering = false;
    int published = 0;
    bool posted = false;
    std::optional<tools::Outcome> failed;
    tools::Outcome whyNothing = {cli::Failed,
                                 {cli::cause::Failed, "no camera came"}}; // when nothing was recorded
    bool over = false;
};

TSdv2Avi& job = g_tSdv2Avi;

// ---- what is said

int fail(cli::Exit code, const std::string& why)
{
    fprintf(stderr, "sdvrecord: %s\n", tools::printable(why).c_str());
    return code;
}

void note(Recorder& recorder, const std::string& text)
{
    cli::note(recorder.events, text);
}

// ---- what earlier runs left

struct MainLock
{
    MainLock() { os_main_lock(); }
    MainLock(const MainLock&) = delete;
    MainLock& operator=(const MainLock&) = delete;
    ~MainLock() { os_main_unlock(); }
};

// Beside the camera that may already be there.
void begin_recovery(Recorder& recorder)
{
    tools::Recovery& recovery = recorder.recovery;
    recovery.told = [&recorder](const tools::Recovered& file) {
        const MainLock lock;
        cli::tell_recovered(recorder.events, file);
    };
    recovery.withJob = [](const std::function<void()>& work) {
        const MainLock lock;
        work();
    };
    recovery.ended = [&recorder] {
        const MainLock lock;
        recorder.recovering = false;
        if (recorder.over) pthread_kill(recorder.mainThread, SIGUSR1);
    };
    recorder.recovering = true;
    start_recovery(recovery);
}

// Nobody is in a hurry when the last recording has ended by itself.
bool is_to_wait(Recorder& recorder)
{
    const MainLock lock;
    if (recorder.failed || !recorder.recovering) return false;
    note(recorder, "the recording is over; what an earlier run left is still being finished");
    return true;
}

// ---- ending

// The main thread takes it from here.
void end(Recorder& recorder)
{
    recorder.over = true;
    pthread_kill(recorder.mainThread, SIGUSR1);
}

// The camera's end tells why.
bool give_up(Recorder& recorder, const tools::Outcome& outcome)
{
    recorder.failed = outcome;
    recorder.camera.whyLost = outcome.why;
    end(recorder);
    return false;
}

// ---- the files

void tell_published(Recorder& recorder)
{
    for (const tools::Published& published : tools::take_published(recorder.publisher)) {
        if (published.trouble.text.empty()) {
            ++recorder.published;
            cli::tell_finished(recorder.events, published);
            continue;
        }
        cli::tell_not_finished(recorder.events, published);
        if (published.last) recorder.failed = {cli::NoOutput, published.trouble};
    }
}

// ---- the stream

bool prepare(Recorder& recorder, std::span<const uint8_t> bytes)
{
    Camera& camera = recorder.camera;
    S_FileHeader header;
    memcpy(&header, bytes.data(), sizeof(header));
    if (!IsValidFileHeader(&header)) {
        camera.whyLost = {cli::cause::NoRecording, "it sends no SDV recording"};
        return false;
    }
    Initialize(8000);
    camera.prepared = true;
    recorder.pause = 1;
    if (!job.m_pStreamBuf)
        return give_up(recorder, {cli::Failed, {cli::cause::OutOfMemory, "out of memory"}});
    job.m_Header = header;
    tools::begin_stream(recorder.files);
    return true;
}

// False when the camera is to be let go.
bool take_stream(Recorder& recorder)
{
    Camera& camera = recorder.camera;
    if (!camera.prepared) {
        const auto header = sdv::take_bytes(camera.cutter, sizeof(S_FileHeader));
        if (header.empty()) return true;
        if (!prepare(recorder, header)) return false;
    }
    for (;;) {
        const auto frame = sdv::take_frame(camera.cutter, job.m_Header.Mode);
        if (frame.empty()) return true;
        tools::hear_frame(camera.pulse);
        tools::record_frame(recorder.files, frame);
    }
}

void read_on(void* context);

void read_later(Recorder& recorder)
{
    Camera& camera = recorder.camera;
    camera.unread =
        ++camera.readsInRow > ReadsInRow || (!recorder.posted && !os_post_func(read_on, &recorder));
    if (!camera.unread) recorder.posted = true;
}

// False when the camera is gone, or to be let go.
bool read_some(Recorder& recorder)
try {
    Camera& camera = recorder.camera;
    for (size_t total = 0; total < ReadAtOnce;) {
        const auto room = sdv::piece_room(camera.cutter);
        const auto most = uint32(std::min(room.size(), ReadAtOnce - total));
        const int32 got = os_tcp_client_read(camera.client, reinterpret_cast<char*>(room.data()), most);
        if (got <= 0) return got == 0;
        sdv::add_piece(camera.cutter, size_t(got));
        total += size_t(got);
        camera.bytes += uint64_t(got);
        tools::hear_bytes(camera.pulse, uint64_t(got));
        if (!take_stream(recorder)) return false;
    }
    read_later(recorder);
    return true;
} catch (const std::bad_alloc&) {
    return give_up(recorder, {cli::Failed, {cli::cause::OutOfMemory, "out of memory"}});
}

// ---- the connection

// By way of on_disconnect(). The client that calls is kept for the next call.
void let_go(Recorder& recorder, const tools::Why& why = {})
{
    TcpClient* client = recorder.camera.client;
    if (!why.text.empty()) recorder.camera.whyLost = why;
    if (client == recorder.caller)
        os_tcp_client_close(client);
    else
        os_tcp_client_destroy(client);
}

// What is left unread after the last read in a row is announced with the bytes that come next. Should none
// come, the timer reads on.
void start_row(Recorder& recorder)
{
    recorder.camera.readsInRow = 0;
    recorder.camera.unread = false;
}

void read_on(void* context)
{
    Recorder& recorder = *static_cast<Recorder*>(context);
    recorder.posted = false;
    if (recorder.camera.there && !read_some(recorder)) let_go(recorder);
}

int32 on_read(TcpClient*, void* context)
{
    Recorder& recorder = *static_cast<Recorder*>(context);
    start_row(recorder);
    return read_some(recorder) ? 0 : -1;
}

void call_later(Recorder& recorder)
{
    recorder.untilCall = recorder.pause;
    recorder.pause = std::min(2 * recorder.pause, LongestPause);
}

void tell_unreachable(Recorder& recorder, const std::string& why)
{
    call_later(recorder);
    cli::tell_unreachable(recorder.events, recorder.options.connect, why, recorder.untilCall);
}

void on_disconnect(TcpClient*, void* context)
{
    Recorder& recorder = *static_cast<Recorder*>(context);
    if (recorder.camera.prepared) {
        tools::finish_file(recorder.files);
        QuorlinRelease();
    }
    Camera camera = std::exchange(recorder.camera, Camera{});
    if (!camera.there && !recorder.over) return tell_unreachable(recorder, camera.whyLost.text);
    if (camera.there) {
        cli::tell_lost(recorder.events, camera, recorder.files);
        recorder.whyNothing = tools::why_nothing(camera, recorder.files).value_or(recorder.whyNothing);
    }
    if (recorder.options.once) return end(recorder);
    if (recorder.caller) call_later(recorder);
}

void greet(Recorder& recorder, TcpClient* client, const std::string& peer)
{
    Camera& camera = recorder.camera;
    camera.client = client;
    camera.there = true;
    camera.peer = peer;
    tools::begin_pulse(camera.pulse);
    recorder.told = {0, camera.pulse.since};
    tools::watch_peer(client);
    os_tcp_client_bind_read(client, on_read, &recorder);
    os_tcp_client_bind_disconnect(client, on_disconnect, &recorder);
    cli::tell(recorder.events, "connected", {{"peer", peer}}, "");
    note(recorder, peer + " is connected");
}

void tell_refused(Recorder& recorder, Clock::time_point now)
{
    Refused& refused = recorder.refused;
    if (refused.count == 0 || now < refused.nextTold) return;
    cli::tell(recorder.events, "refused", {{"peer", refused.peer}, {"count", refused.count}}, "");
    note(recorder, refused.count == 1
                       ? refused.peer + " is refused: there is a camera already"
                       : "refused " + tools::counted(refused.count, "connection") + " in " +
                             std::to_string(SumTime.count()) + " s, the last from " + refused.peer);
    refused.count = 0;
    refused.nextTold = now + SumTime;
}

// A camera that comes back while nothing has told yet that its connection is dead. What has arrived of it was
// not silence.
bool takes_the_place(Recorder& recorder, TcpClient* newcomer)
{
    Camera& camera = recorder.camera;
    char ip[16], other[16];
    uint16 port = 0;
    if (!camera.there || recorder.over || !tools::is_silent(camera.pulse, ReplaceTime)) return false;
    os_tcp_client_get_remote(camera.client, ip, &port);
    os_tcp_client_get_remote(newcomer, other, &port);
    if (strcmp(ip, other) != 0) return false;
    const bool alive = read_some(recorder);
    if (alive && !tools::is_silent(camera.pulse, ReplaceTime)) return false;
    const tools::Why anew = {cli::cause::Replaced, "it fell silent, and was called anew from its address"};
    let_go(recorder, alive ? anew : tools::Why{});
    return !recorder.over;
}

void on_accept(TcpServer*, TcpClient* client, void* context)
{
    Recorder& recorder = *static_cast<Recorder*>(context);
    const std::string peer = tools::peer_of(client);
    if (recorder.over || (recorder.camera.client && !takes_the_place(recorder, client))) {
        ++recorder.refused.count;
        recorder.refused.peer = peer;
        tell_refused(recorder, Clock::now());
        os_tcp_client_destroy(client);
        return;
    }
    greet(recorder, client, peer);
}

void on_connect(TcpClient* client, void* context)
{
    Recorder& recorder = *static_cast<Recorder*>(context);
    greet(recorder, client, recorder.options.connect);
}

// While the call still goes on, this event tells that it has failed.
int32 on_write(TcpClient* client, void* context)
{
    Recorder& recorder = *static_cast<Recorder*>(context);
    if (recorder.camera.there) return 0;
    int error = 0;
    socklen_t length = sizeof(error);
    getsockopt(client->connectfd, SOL_SOCKET, SO_ERROR, &error, &length);
    let_go(recorder, {cli::cause::Unreachable, error ? strerror(error) : "there is no way to it"});
    return 0;
}

// The name is asked for anew each time: a camera's address may change while it is away.
void call(Recorder& recorder)
{
    std::string why = "no connection can be opened";
    const auto endpoint = tools::parse_endpoint(recorder.options.connect);
    std::string ip = tools::find_address(*endpoint, why);
    if (ip.empty()) return tell_unreachable(recorder, why);

    recorder.camera.client = recorder.caller;
    tools::begin_pulse(recorder.camera.pulse);
    os_tcp_client_set_remote(recorder.caller, ip.data(), endpoint->port);
    os_tcp_client_bind_connect(recorder.caller, on_connect, &recorder);
    os_tcp_client_bind_write(recorder.caller, on_write, &recorder);
    os_tcp_client_bind_disconnect(recorder.caller, on_disconnect, &recorder);
    if (os_tcp_client_open(recorder.caller, -1)) return;
    recorder.camera = Camera{};
    tell_unreachable(recorder, why);
}

// What has arrived meanwhile counts: it may be us who were kept from reading.
void drop_idle(Recorder& recorder)
{
    Camera& camera = recorder.camera;
    const std::chrono::seconds time(recorder.options.idle);
    if (!tools::is_idle(camera.pulse, time)) return;
    start_row(recorder);
    if (camera.there && !read_some(recorder)) return let_go(recorder);
    if (tools::is_idle(camera.pulse, time))
        let_go(recorder, {cli::cause::Idle, "no frame for " + std::to_string(recorder.options.idle) + " s"});
}

void on_second(void* context)
{
    Recorder& recorder = *static_cast<Recorder*>(context);
    Camera& camera = recorder.camera;
    if (!recorder.over || recorder.recovering) tell_published(recorder); // at the end there is more patience
    if (recorder.over) return;
    tell_refused(recorder, Clock::now());
    if (!camera.client) {
        if (recorder.caller && --recorder.untilCall <= 0) call(recorder);
        return;
    }
    if (camera.there) cli::tell_losses(recorder.events, camera, recorder.files);
    if (camera.there && recorder.options.preview)
        cli::tell_recording(recorder.events, recorder.told, camera, recorder.files);
    if (camera.unread) {
        start_row(recorder);
        read_later(recorder);
        return;
    }
    drop_idle(recorder);
}

// ---- the program

bool set_key(const cli::RecordOptions& options, std::string& why)
{
    std::vector<uint8_t> key;
    if (!tools::find_key(std::nullopt, options.keyFile, key, why)) return false;
    SetDecryptKey(key.data(), int(key.size()));
    return true;
}

bool listen(Recorder& recorder, std::string& why)
{
    const auto endpoint = tools::parse_endpoint(recorder.options.listen);
    std::string ip = tools::find_address(*endpoint, why);
    if (ip.empty()) return false;
    recorder.server = os_tcp_server_create();
    os_tcp_server_set_local(recorder.server, ip.data(), endpoint->port);
    os_tcp_server_bind_accept(recorder.server, on_accept, &recorder);
    why = "cannot listen on " + recorder.options.listen;
    if (!os_tcp_server_open(recorder.server)) return false;

    sockaddr_in address{};
    socklen_t length = sizeof(address);
    getsockname(recorder.server->listenfd, reinterpret_cast<sockaddr*>(&address), &length);
    const std::string where = ip + ":" + std::to_string(ntohs(address.sin_port));
    cli::tell(recorder.events, "started", {{"listen", where}}, "listening on " + where);
    return true;
}

bool start(Recorder& recorder, std::string& why)
{
    why = "out of memory";
    if (!os_timer_create(on_second, 1000, &recorder)) return false;
    if (!recorder.options.listen.empty()) return listen(recorder, why);
    const std::string& where = recorder.options.connect;
    recorder.caller = os_tcp_client_create();
    if (!recorder.caller) return false;
    cli::tell(recorder.events, "started", {{"connect", where}}, "calling " + where);
    call(recorder);
    return true;
}

// Until a signal to end, ours or another's. Ours, if there was one, is the result.
int wait_for_end(Recorder& recorder, const sigset_t& signals)
{
    bool over = false;
    for (int number = 0;;) {
        sigwait(&signals, &number);
        over |= number == SIGUSR1;
        if (number == SIGHUP) {
            const MainLock lock;
            tools::cut_file(recorder.files);
        } else if (number != SIGUSR1 || !is_to_wait(recorder)) {
            return over ? SIGUSR1 : number;
        }
    }
}

tools::Outcome outcome(const Recorder& recorder, int number)
{
    if (recorder.failed) return *recorder.failed;
    if (is_stalled(recorder.files)) return {cli::NoOutput, recorder.files.trouble};
    return number == SIGUSR1 && recorder.published == 0 ? recorder.whyNothing : tools::Outcome{};
}

void fill(Recorder& recorder, const cli::RecordOptions& options)
{
    recorder.options = options;
    recorder.files.directory = recorder.recovery.directory = options.directory;
    recorder.files.maxSize = options.maxSize;
    recorder.files.maxTime = std::chrono::seconds(options.maxTime);
    recorder.files.finished = [&recorder](const tools::FinishedFile& file) {
        tools::publish_later(recorder.publisher, file);
    };
    recorder.files.stalled = [&recorder] { cli::tell_stalled(recorder.events, recorder.files); };
    recorder.files.resumed = [&recorder] { cli::tell_resumed(recorder.events, recorder.files); };
    recorder.publisher.withJob = [](const std::function<void()>& work) {
        const MainLock lock;
        work();
    };
}

// The publisher may need the job meanwhile.
bool await_published(Recorder& recorder)
{
    os_main_unlock();
    const bool any = tools::await_published(recorder.publisher);
    os_main_lock();
    return any;
}

int run(const cli::RecordOptions& options)
{
    std::string why;
    if (!set_key(options, why)) return fail(cli::KeyTrouble, why);
    if (access((options.directory + "/.").c_str(), W_OK | X_OK) != 0)
        return fail(cli::NoOutput, options.directory + ": " + strerror(errno));

    const sigset_t signals = tools::block_signals();
    const bool drawn = !options.json && cli::has_colour(STDOUT_FILENO) && cli::has_colour(STDERR_FILENO);
    const tools::Messages messages(drawn ? "\r\033[K" : "");
    const tools::Silence silence;
    tools::write_no_log_files();
    Recorder recorder;
    fill(recorder, options);
    tools::find_parts(recorder.recovery);
    cli::open_events(recorder.events, dup(silence.saved), options.json);
    tools::start_publishing(recorder.publisher);
    if (!os_startup(4, 1)) return fail(cli::Failed, "the event loop cannot be started");

    os_main_lock();
    const bool started = start(recorder, why);
    os_main_unlock();
    if (started) begin_recovery(recorder);
    const int number = started ? wait_for_end(recorder, signals) : 0;

    tools::end_recovery(recorder.recovery);
    os_main_lock(); // at last for good: the loop is to touch nothing any more
    recorder.over = true;
    if (recorder.camera.client) let_go(recorder, {cli::cause::Stopped, "the recorder ends"});
    os_cleanup();
    recorder.events.patience = 5000; // that many files may come at once
    tell_refused(recorder, recorder.refused.nextTold);
    while (await_published(recorder)) tell_published(recorder);
    if (!started) return fail(cli::Failed, why);
    const tools::Outcome ending = outcome(recorder, number);
    cli::tell_stopped(recorder.events, recorder.published, ending);
    return ending.exit;
}

} // namespace

int main(int argc, char** argv)
try {
    cli::RecordOptions options;
    if (const auto over = cli::parse_record_options(options, argc, argv)) return *over;

    tools::fill_standard_descriptors();
    tools::raise_descriptor_limit();
    return run(options);
} catch (const std::exception& error) {
    return cli::give_up("sdvrecord", error);
}
