#include <atomic>

#include "net_support.h"

TEST(TcpClient, ConnectsInOrderAndTalks)
{
    const std::string reports = in_layer(2, 1, [] {
        const int listener = plain_listener();
        char data[8] = "hello", ip[16] = "127.0.0.1";
        uint16 port = 0;
        Watched watched;
        TcpClient*& client = watched.client;
        locked([&] {
            open_watched(watched, port_of(listener));
            const std::vector<int32> results = {
                // none of these can be done while it connects
                os_tcp_client_get_status(client), os_tcp_client_send(client, data, 5),
                os_tcp_client_read(client, data, 5), os_tcp_client_open(client, -1),
                os_tcp_client_set_local(client, ip, 0)};
            EXPECT_EQ(results, (std::vector<int32>{1, 0, -1, 0, 0}));
        });
        const int peer = accept(listener, nullptr, nullptr);
        wait_for([&] { return watched.order.starts_with("CW"); });
        EXPECT_EQ(os_tcp_client_set_rcvbuf_len(client, 65536), 1);
        EXPECT_EQ(os_tcp_client_send(client, data, 0), 0);
        EXPECT_EQ(os_tcp_client_send(client, data, 5), 5);
        EXPECT_EQ(read_up_to(peer, 5), "hello");
        const std::string sent = pattern(400);
        for (const char byte : sent) EXPECT_TRUE(send_all(peer, {byte}));
        wait_for([&] { return watched.got == sent; });
        EXPECT_EQ(os_tcp_client_destroy(client), 1);
        EXPECT_EQ(watched.times('D'), 1);

        client = os_tcp_client_create(); // for a socket that would block
        EXPECT_EQ(os_tcp_client_open(client, plain_connect(port_of(listener))), 1);
        EXPECT_EQ(os_tcp_client_get_remote(client, ip, &port), 1);
        EXPECT_EQ(ip + std::to_string(port), "127.0.0.1" + std::to_string(port_of(listener)));
        EXPECT_EQ(os_tcp_client_read(client, data, 3), 0);
        EXPECT_EQ(os_tcp_client_send(client, data, 3), 3);
        EXPECT_EQ(os_tcp_client_close(client), 1);
        EXPECT_EQ(read_up_to(accept(listener, nullptr, nullptr), 4), "hel");
    });
    EXPECT_EQ(reports, "client is not disconnect\nclient is not disconnect\n");
}

TEST(TcpClient, ARefusedOpenKeepsNoDescriptor)
{
    in_layer(1, 1, [] {
        TcpClient* client = os_tcp_client_create();
        os_tcp_client_set_local(client, text("127.0.0.1"), port_of(bound_socket()));
        const int next = dup(0);
        close(next);
        EXPECT_EQ(os_tcp_client_open(client, -1), 0);
        EXPECT_EQ(dup(0), next);
    });
}

// Destroying waits for the callback that runs, and slots are given back one by one.
TEST(TcpClient, DestroyedByOtherThreads)
{
    in_layer(8, 1, [] {
        static std::atomic<bool> inside;
        Watched watched;
        watched.then = [](char what) {
            if (what != 'R') return;
            inside = true;
            os_sleep(50);
            inside = false;
        };
        const int peer = open_pair(watched);
        EXPECT_TRUE(send_all(peer, "x"));
        while (!inside) std::this_thread::yield();
        EXPECT_EQ(os_tcp_client_destroy(watched.client), 1);
        EXPECT_FALSE(inside);

        two_at_once([](int) {
            for (int i = 0; i < 20000; ++i) os_tcp_client_destroy(os_tcp_client_create());
        });
        for (int i = 0; i < 8; ++i) EXPECT_EQ(os_tcp_client_create()->index, i);
    });
}

TEST(TcpClient, TheEndIsToldOnce)
{
    const auto half_close = [](int peer) { shutdown(peer, SHUT_WR); };
    const auto plain_close = [](int peer) { close(peer); };
    const struct
    {
        bool reads; // with a read callback, or the loop discards
        size_t sent_before;
        void (*end)(int peer); // none: refused
    } endings[] = {
        {true, 0, nullptr},         {false, 0, nullptr},           {true, 10, plain_close},
        {true, 300000, half_close}, {true, 10, close_with_reset},  {false, 10, close_with_reset},
        {false, 0, half_close},     {false, 5000000, plain_close}, // more than one event discards
    };
    for (const auto& [reads, sent_before, end] : endings)
        in_layer(1, 1, [&, &reads = reads, &sent_before = sent_before, &end = end] {
            const std::string sent = pattern(sent_before);
            Watched watched;
            watched.then = [&](char) { // at the first, which is no R
                if (!reads) os_tcp_client_bind_read(watched.client, nullptr, nullptr);
            };
            if (end) {
                const int peer = open_pair(watched);
                EXPECT_TRUE(send_all(peer, sent));
                wait_for([&] { return !reads || watched.got == sent; });
                end(peer);
            } else {
                open_watched(watched, port_of(bound_socket()));
            }
            wait_for([&] { return watched.client->status == 0; });
            on_loop([] {});
            EXPECT_EQ(os_tcp_client_destroy(watched.client), 1);
            EXPECT_EQ(watched.times('D'), 1) << watched.order;
            EXPECT_EQ(watched.times('C'), end ? 1 : 0) << watched.order;
        });
}

TEST(TcpClient, APeerThatNeverReadsThenDoes)
{
    in_layer(1, 1, [] {
        const std::string whole = pattern(8000000);
        Watched watched;
        watched.then = [&](char what) { what == 'W' && watched.send(whole); };
        const int peer = open_pair(watched);
        wait_for([&] { return watched.sent > 0 && watched.last == 0; });
        EXPECT_TRUE(read_up_to(peer, whole.size()) == whole);
        os_tcp_client_destroy(watched.client);
    });
}

// The first connection brings a greeting along; in the callback after which the order ends so, the client is
// changed, and left alone for the rest of the event.
static void change_after(const std::string& order, const std::string& what)
{
    const bool reopen = what == "reopen", destroy = what == "destroy";
    const int listener = plain_listener();
    Watched watched;
    bool changed = false;
    watched.then = [&](char) {
        if (changed || !watched.order.ends_with(order)) return;
        changed = true;
        EXPECT_EQ(watched.got, order == "D" || order == "CWWR" ? "first" : "");
        destroy ? os_tcp_client_destroy(watched.client) : os_tcp_client_close(watched.client);
        EXPECT_TRUE(!reopen || os_tcp_client_open(watched.client, -1));
    };
    on_loop([&] { // so that one event announces both
        open_watched(watched, port_of(listener));
        const int first = accept(listener, nullptr, nullptr);
        send_all(first, "first");
        if (order == "D") shutdown(first, SHUT_WR);
    });
    wait_for([&] { return watched.times('D') == 1; });
    on_loop([&] { watched.got.clear(); });
    if (reopen) {
        EXPECT_TRUE(send_all(accept(listener, nullptr, nullptr), "second"));
        wait_for([&] { return watched.got == "second"; });
    }
    if (!destroy) os_tcp_client_destroy(watched.client);
    const std::string after = watched.order.substr(watched.order.find('D'));
    EXPECT_EQ(after.substr(0, 3), reopen ? "DCW" : "D") << watched.order;
    EXPECT_EQ(watched.times('D'), reopen ? 2 : 1) << watched.order;
    EXPECT_NE(os_tcp_client_create(), nullptr);
}

TEST(TcpClient, ChangedByItsCallback)
{
    for (const char* order : {"C", "CW", "CWW", "CWWR", "D"})
        for (const char* what : {"close", "reopen", "destroy"}) {
            if (*order == 'D' && *what == 'd') continue; // must not
            SCOPED_TRACE(what + std::string(" after ") + order);
            EXPECT_EQ(in_layer(1, 1, [&] { change_after(order, what); }), "");
        }
}

// One wait returns the events of two clients, and the first one's callback changes the second client.
TEST(TcpClient, LateEventsDoNotReachTheNextOwner)
{
    const std::pair<const char*, void (*)(Watched&)> rows[] = {
        // report, change
        {"", [](Watched& of) { os_tcp_client_close(of.client); }},
        {"", [](Watched& of) { os_tcp_client_close(of.client), os_tcp_client_open(of.client, -1); }},
        {"client index == -1 fail\n", [](Watched& of) { os_tcp_client_destroy(of.client); }},
        {"index session fail\n",
         [](Watched& of) { os_tcp_client_destroy(of.client), watch(of, os_tcp_client_create()); }},
    };
    for (const auto& [report, change] : rows) {
        const std::string reports = in_layer(2, 1, [&change = change] {
            Watched first, second;
            const int peers[] = {open_pair(first), open_pair(second)};
            first.then = [&](char what) { what == 'R' ? change(second) : void(); };
            on_loop([&] { // which therefore does not wait meanwhile
                for (const int peer : peers) EXPECT_TRUE(send_all(peer, "x"));
            });
            wait_for([&] { return first.times('R') == 1; });
            on_loop([&] { EXPECT_EQ(second.times('R'), 0); });
        });
        EXPECT_EQ(reports, report);
    }
}
