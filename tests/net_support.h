// What the network tests share: a process of their own per case, plain sockets as the other side, and a
// client that writes down what happens to it.
#pragma once

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>

#include "libos.h"
#include "support.h"

using Work = std::function<void()>;

template <class Body>
auto locked(Body body)
{
    struct MainLock
    {
        MainLock() { os_main_lock(); }
        ~MainLock() { os_main_unlock(); }
    } lock;
    return body();
}

// What reports say: each without its date and place, which are held to their form.
std::string messages(const std::string& reports);

// The layer starts once in a process and never stops, so each case has its own. Returns what its reports say.
static const int CAME_TO_ITS_END = 42;
std::string in_process(int status, const Work& body);
std::string in_layer(int clients, int servers, const Work& body);

void wait_for(const std::function<bool()>& condition); // asked under the main lock
void on_loop(const Work& body);                        // and waits until it ran
int count_of(const std::string& text, const std::string& what);
std::string pattern(size_t count, uint32_t seed = 1);

int bound_socket();
int plain_listener();
uint16_t port_of(int fd);
int plain_connect(uint16_t port, int fd = socket(AF_INET, SOCK_STREAM, 0));
bool send_all(int fd, const std::string& data);
std::string read_up_to(int fd, size_t count); // shorter at the peer's end
void close_with_reset(int fd);
void close_peer(int fd, bool reset);

struct Watched
{
    TcpClient* client = nullptr;
    std::string order, got;         // C connected, W writable, R input, D disconnected; main lock
    std::function<void(char)> then; // runs in the callback, after it was written down
    size_t at_most = SIZE_MAX;      // to read per event
    size_t sent = 0;
    int32 last = 0; // result of sending

    bool send(const std::string& whole); // what is not sent yet; false when the room ended
    int times(char what) const { return static_cast<int>(std::count(order.begin(), order.end(), what)); }
};
void watch(Watched& watched, TcpClient* client);
void open_watched(Watched& watched, uint16_t port);
int open_pair(Watched& watched, int listener = plain_listener()); // the peer, once both are connected
TcpServer* open_server(OnServerAcceptFunc accept, void* usr = nullptr);
int open_echoes(); // accepted by the next one and not ended; main lock
void accept_echo(TcpServer*, TcpClient* client, void* accepted); // an int, counted up
