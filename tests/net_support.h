// What the network tests share: a process of their own per case, plain sockets as the other side, and a
// client that writes down what happens to it.
#pragma once

#include <stdint.h>

#include <atomic>
#include <functional>
#include <string>

#include "libos.h"

// ---- a case in its own process: the layer starts once in a process and never stops

struct ChildResult
{
    int status;          // CHILD_DONE when the body came to its end, else the exit status; -1 for a signal
    std::string reports; // what it wrote to standard error
};

static const int CHILD_DONE = 42;

ChildResult in_child(const std::function<void()>& body);

// The layer, started with these sizes, in a child that must come to its end. Returns the reports.
std::string in_layer(int clients, int servers, const std::function<void()>& body);

// Wait until the condition holds; false after a generous time.
bool wait_for(const std::function<bool()>& condition);

// Run under the main lock.
void locked(const std::function<void()>& body);

// Run on the loop's thread, and wait until it ran.
void on_loop(const std::function<void()>& body);

int count_of(const std::string& text, const std::string& what);

// ---- plain sockets on loopback

int plain_listener(uint16_t* port);
int plain_connect(uint16_t port);
void connect_plain(int fd, uint16_t port);
int plain_accept(int listener);
uint16_t port_of(int fd);
uint16_t unused_port();
bool send_all(int fd, const std::string& data);
std::string read_up_to(int fd, size_t count); // shorter at the peer's end
bool at_end(int fd);                          // waits for the peer's end
void close_with_reset(int fd);

std::string pattern(size_t count, unsigned seed = 1);

// ---- a watched client: C connected, W writable, R input, D disconnected

struct Watched
{
    TcpClient* client = nullptr;
    std::string order; // all of it under the main lock
    std::string got;
    std::function<void(char)> then; // runs in the callback, after it was written down
    size_t at_most = SIZE_MAX;      // to read per event

    std::string happened();
    std::string received();
};

void watch(Watched& watched, TcpClient* client);
void aim(TcpClient* client, uint16_t port);

// Create, bind and open towards a port.
void open_watched(Watched& watched, uint16_t port);

TcpServer* open_server(uint16_t* port, OnServerAcceptFunc accept, void* usr);
