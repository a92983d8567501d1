// sdvrecord: takes a camera's stream over TCP and writes AVI files while it arrives. Everything that happens
// to a camera and its files happens in callbacks of the event loop; the main thread waits for signals.
#include "Quorlin.h"
#include "avi_files.h"
#include "cli.h"
#include "descriptors.h"
#include "frame_cutter.h"
#include "key.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <optional>

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

using Clock = std::chrono::steady_clock;

// What is read of one connection in one go, and how often in a row: posted functions run before the loop
// looks at anything else, so a camera that sends faster than the disk takes it would keep the loop.
constexpr size_t ReadAtOnce = 256 << 10;
constexpr int ReadsInRow = 64;

struct Options
{
    std::string listen, directory;
    std::optional<std::string> keyFile;
    uint64_t maxSize = tools::LargestAvi;
    int idle = 30;
    bool once = false;
};

struct Camera
{
    TcpClient* client = nullptr; // no camera is there
    std::string peer;
    sdv::FrameCutter cutter;
    bool prepared = false; // the file header has come, and the library's job is ours
    uint64_t bytes = 0, bytesShown = 0;
    int readsInRow = 0;
    bool unread = false; // something may wait that no event will tell of
    Clock::time_point heard;
};

// Guarded by the main lock, which every callback holds.
struct Recorder
{
    Options options;
    FILE* out = nullptr; // standard output is full of the library's markers
    bool terminal = false;
    pthread_t mainThread = pthread_self();
    TcpServer* server = nullptr;
    Camera camera;
    tools::AviFiles files;
    int finished = 0;
    bool posted = false;
    bool failed = false;
    bool over = false;
};

TSdv2Avi& job = g_tSdv2Avi;

// ---- what is said

int fail(const std::string& why)
{
    fprintf(stderr, "sdvrecord: %s\n", why.c_str());
    return 1;
}

__attribute__((format(printf, 2, 3))) void say(const Recorder& recorder, const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    vfprintf(recorder.out, format, arguments);
    va_end(arguments);
    fputs(recorder.terminal ? "\033[K\n" : "\n", recorder.out);
    fflush(recorder.out);
}

void show_status(Recorder& recorder)
{
    Camera& camera = recorder.camera;
    if (!job.m_fsRec) return;
    fprintf(recorder.out, "%s: %.1f MB, %d pictures, %.2f MB/s%s", recorder.files.name.part_name().c_str(),
            double(ftello(job.m_fsRec)) / 1e6, tools::pictures_recorded(),
            double(camera.bytes - camera.bytesShown) / 1e6, recorder.terminal ? "\033[K\r" : "\n");
    fflush(recorder.out);
    camera.bytesShown = camera.bytes;
}

// ---- ending

// The main thread takes it from here.
void end(Recorder& recorder)
{
    recorder.over = true;
    pthread_kill(recorder.mainThread, SIGUSR1);
}

bool give_up(Recorder& recorder, const std::string& why)
{
    log_msg("sdvrecord: %s", why.c_str());
    recorder.failed = true;
    end(recorder);
    return false;
}

// ---- the stream

bool prepare(Recorder& recorder, std::span<const uint8_t> bytes)
{
    Camera& camera = recorder.camera;
    S_FileHeader header;
    memcpy(&header, bytes.data(), sizeof(header));
    if (!IsValidFileHeader(&header)) {
        log_msg("sdvrecord: %s sends no SDV recording", camera.peer.c_str());
        return false;
    }
    Initialize(8000);
    camera.prepared = true;
    if (!job.m_pStreamBuf) return give_up(recorder, "out of memory");
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
    for (std::string why;;) {
        const auto frame = sdv::take_frame(camera.cutter, job.m_Header.Mode);
        if (frame.empty()) return true;
        if (!tools::record_frame(recorder.files, frame, why)) return give_up(recorder, why);
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
{
    Camera& camera = recorder.camera;
    for (size_t total = 0; total < ReadAtOnce;) {
        const auto room = sdv::piece_room(camera.cutter);
        const auto most = uint32(std::min(room.size(), ReadAtOnce - total));
        const int32 got = os_tcp_client_read(camera.client, reinterpret_cast<char*>(room.data()), most);
        if (got <= 0) return got == 0;
        sdv::add_piece(camera.cutter, size_t(got));
        total += size_t(got);
        camera.bytes += uint64_t(got);
        camera.heard = Clock::now();
        if (!take_stream(recorder)) return false;
    }
    read_later(recorder);
    return true;
}

// ---- callbacks

void let_go(Recorder& recorder)
{
    os_tcp_client_destroy(recorder.camera.client); // by way of on_disconnect()
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
    if (recorder.camera.client && !read_some(recorder)) let_go(recorder);
}

int32 on_read(TcpClient*, void* context)
{
    Recorder& recorder = *static_cast<Recorder*>(context);
    start_row(recorder);
    return read_some(recorder) ? 0 : -1;
}

void on_disconnect(TcpClient*, void* context)
{
    Recorder& recorder = *static_cast<Recorder*>(context);
    Camera& camera = recorder.camera;
    std::string why;
    if (!tools::finish_file(recorder.files, why)) give_up(recorder, why);
    if (camera.prepared) QuorlinRelease();
    log_msg("sdvrecord: %s has gone", camera.peer.c_str());
    const size_t cut = camera.cutter.end - camera.cutter.begin;
    if (cut) log_msg("sdvrecord: it went inside a frame: %zu bytes of it are left out", cut);
    if (camera.cutter.skipped)
        log_msg("sdvrecord: %llu bytes belonged to no frame",
                static_cast<unsigned long long>(camera.cutter.skipped));
    camera = Camera{};
    if (recorder.options.once) end(recorder);
}

std::string peer_of(TcpClient* client)
{
    char ip[16];
    uint16 port = 0;
    os_tcp_client_get_remote(client, ip, &port);
    return std::string(ip) + ":" + std::to_string(port);
}

void on_accept(TcpServer*, TcpClient* client, void* context)
{
    Recorder& recorder = *static_cast<Recorder*>(context);
    if (recorder.camera.client || recorder.over) {
        log_msg("sdvrecord: %s is refused: there is a camera already", peer_of(client).c_str());
        os_tcp_client_destroy(client);
        return;
    }
    recorder.camera.client = client;
    recorder.camera.peer = peer_of(client);
    recorder.camera.heard = Clock::now();
    os_tcp_client_bind_read(client, on_read, &recorder);
    os_tcp_client_bind_disconnect(client, on_disconnect, &recorder);
    log_msg("sdvrecord: %s has come", recorder.camera.peer.c_str());
}

void on_second(void* context)
{
    Recorder& recorder = *static_cast<Recorder*>(context);
    Camera& camera = recorder.camera;
    if (!camera.client) return;
    show_status(recorder);
    if (camera.unread) {
        start_row(recorder);
        read_later(recorder);
    } else if (Clock::now() - camera.heard >= std::chrono::seconds(recorder.options.idle)) {
        log_msg("sdvrecord: %s has been silent for %d s", camera.peer.c_str(), recorder.options.idle);
        let_go(recorder);
    }
}

// ---- the program

bool set_key(const Options& options, std::string& why)
{
    std::vector<uint8_t> key;
    if (!tools::find_key(std::nullopt, options.keyFile, key, why)) return false;
    SetDecryptKey(key.data(), int(key.size()));
    return true;
}

// Before any thread is there, so that all of them leave the signals to the main thread. A signal that was
// ignored when the program started (nohup, a job in the background) stays ignored.
sigset_t block_signals()
{
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGUSR1);
    for (int number : {SIGINT, SIGTERM, SIGHUP}) {
        struct sigaction old;
        sigaction(number, nullptr, &old);
        if (old.sa_handler != SIG_IGN) sigaddset(&set, number);
    }
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    signal(SIGPIPE, SIG_IGN); // nobody reads the status lines any more: the recording goes on
    signal(SIGXFSZ, SIG_IGN);
    return set;
}

bool listen(Recorder& recorder, std::string& why)
{
    const std::string& text = recorder.options.listen;
    const size_t colon = text.rfind(':');
    char* rest = nullptr;
    const unsigned long port = colon == std::string::npos ? 65536 : strtoul(&text[colon + 1], &rest, 10);
    why = "--listen takes an address and a port, such as 0.0.0.0:8000";
    if (port > 65535 || *rest || rest == &text[colon + 1]) return false;

    std::string ip = text.substr(0, colon);
    recorder.server = os_tcp_server_create();
    if (!os_tcp_server_set_local(recorder.server, ip.data(), uint16(port))) return false;
    os_tcp_server_bind_accept(recorder.server, on_accept, &recorder);
    why = "cannot listen on " + text;
    if (!os_tcp_server_open(recorder.server)) return false;

    sockaddr_in address{};
    socklen_t length = sizeof(address);
    getsockname(recorder.server->listenfd, reinterpret_cast<sockaddr*>(&address), &length);
    say(recorder, "listening on %s:%d", inet_ntoa(address.sin_addr), ntohs(address.sin_port));
    return true;
}

int run(const Options& options)
{
    std::string why;
    if (!set_key(options, why)) return fail(why);
    if (access(options.directory.c_str(), W_OK | X_OK) != 0)
        return fail(options.directory + ": " + strerror(errno));

    const sigset_t signals = block_signals();
    const tools::Silence silence;
    Recorder recorder;
    recorder.options = options;
    recorder.files.directory = options.directory;
    recorder.files.maxSize = options.maxSize;
    recorder.files.finished = [&recorder](const std::string& path, int pictures) {
        ++recorder.finished;
        say(recorder, "%s: %d pictures", path.c_str(), pictures);
    };
    recorder.out = silence.saved < 0 ? stderr : fdopen(dup(silence.saved), "w");
    recorder.terminal = isatty(fileno(recorder.out));
    if (!os_startup(4, 1)) return fail("the event loop cannot be started");

    os_main_lock();
    const bool listening = listen(recorder, why) && os_timer_create(on_second, 1000, &recorder);
    os_main_unlock();
    int number = 0;
    if (listening) sigwait(&signals, &number);

    os_main_lock(); // for good: the loop is to touch nothing any more
    recorder.over = true;
    if (recorder.camera.client) let_go(recorder);
    os_cleanup();
    if (!listening) return fail(why);
    return recorder.failed || (options.once && recorder.finished == 0) ? 1 : 0;
}

} // namespace

int main(int argc, char** argv)
{
    Options options;
    CLI::App app{"Record the SDV stream of a camera that connects over TCP.", "sdvrecord"};
    app.add_option("--listen", options.listen, "IP:PORT to listen on; port 0 lets the system choose")
        ->required();
    app.add_option("--out", options.directory, "directory of the AVI files")
        ->required()
        ->check(CLI::ExistingDirectory);
    app.add_option("--key-file", options.keyFile,
                   "file with the key of an encrypted stream (default: $SDV_KEY)");
    app.add_option("--max-size", options.maxSize, "bytes after which the next key frame begins a new file")
        ->check(CLI::Range(uint64_t{1}, tools::LargestAvi))
        ->capture_default_str();
    app.add_option("--idle", options.idle, "seconds of silence after which a camera is dropped")
        ->check(CLI::Range(1, 86400))
        ->capture_default_str();
    app.add_flag("--once", options.once, "end after the first camera");
    cli::complete(app, {"sdvrecord --listen 0.0.0.0:9000 --out recordings", {{cli::Failed, ""}}});
    if (const auto over = cli::parse(app, argc, argv)) return *over;

    tools::fill_standard_descriptors();
    return run(options);
}
