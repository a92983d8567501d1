#include "net_support.h"

static int accept_from(int listener)
{
    return accept(listener, nullptr, nullptr);
}

TEST(TcpClient, ConnectsInOrderAndTalks)
{
    const std::string reports = in_layer(2, 1, [] {
        const int listener = plain_listener();
        char data[8] = "hello", ip[16] = "127.0.0.1";
        uint16 port = 0;
        Watched watched;
        locked([&] {
            open_watched(watched, port_of(listener));
            EXPECT_EQ(os_tcp_client_get_status(watched.client), 1);
            EXPECT_EQ(os_tcp_client_send(watched.client, data, 5), 0);
            EXPECT_EQ(os_tcp_client_read(watched.client, data, 5), -1);
            EXPECT_EQ(os_tcp_client_open(watched.client, -1), 0);
            EXPECT_EQ(os_tcp_client_set_local(watched.client, ip, 0), 0);
        });
        const int peer = accept_from(listener);
        wait_for([&] { return watched.order.size() >= 2; });
        locked([&] {
            EXPECT_EQ(watched.order.substr(0, 2), "CW");
            EXPECT_EQ(os_tcp_client_set_rcvbuf_len(watched.client, 65536), 1);
            EXPECT_EQ(os_tcp_client_send(watched.client, data, 0), 0);
            EXPECT_EQ(os_tcp_client_send(watched.client, data, 5), 5);
        });
        EXPECT_EQ(read_up_to(peer, 5), "hello");
        const std::string sent = pattern(400);
        for (const char byte : sent) EXPECT_TRUE(send_all(peer, {byte}));
        wait_for([&] { return watched.got == sent; });
        EXPECT_EQ(os_tcp_client_destroy(watched.client), 1);
        EXPECT_EQ(watched.times('D'), 1);

        TcpClient* adopting = os_tcp_client_create(); // a socket that would block
        EXPECT_EQ(os_tcp_client_open(adopting, plain_connect(port_of(listener))), 1);
        EXPECT_EQ(os_tcp_client_get_remote(adopting, ip, &port), 1);
        EXPECT_EQ(ip + std::to_string(port), "127.0.0.1" + std::to_string(port_of(listener)));
        EXPECT_EQ(os_tcp_client_read(adopting, data, 3), 0);
        EXPECT_EQ(os_tcp_client_send(adopting, data, 3), 3);
        EXPECT_EQ(os_tcp_client_close(adopting), 1);
        EXPECT_EQ(read_up_to(accept_from(listener), 4), "hel");
    });
    EXPECT_EQ(count_of(reports, " client is not disconnect\n"), 2) << reports;
    EXPECT_EQ(count_of(reports, "\n"), 2) << reports;
}

TEST(TcpClient, TheEndIsToldOnce)
{
    const auto half_close = [](int peer) { shutdown(peer, SHUT_WR); };
    const auto plain_close = [](int peer) { close(peer); };
    const struct
    {
        bool reads; // with a read callback, or the loop discards
        size_t sent_before;
        std::function<void(int)> end; // none: refused
    } endings[] = {
        {true, 0, nullptr},         {false, 0, nullptr},           {true, 10, plain_close},
        {true, 300000, half_close}, {true, 10, close_with_reset},  {false, 10, close_with_reset},
        {false, 0, half_close},     {false, 5000000, plain_close}, // more than one event discards
    };
    for (const auto& ending : endings) {
        SCOPED_TRACE(&ending - endings);
        in_layer(1, 1, [&] {
            const int listener = ending.end ? plain_listener() : bound_socket();
            const std::string sent = pattern(ending.sent_before);
            Watched watched;
            locked([&] {
                open_watched(watched, port_of(listener));
                if (!ending.reads) os_tcp_client_bind_read(watched.client, nullptr, nullptr);
            });
            if (ending.end) {
                const int peer = accept_from(listener);
                wait_for([&] { return watched.order.size() >= 2; });
                EXPECT_TRUE(send_all(peer, sent));
                wait_for([&] { return !ending.reads || watched.got == sent; });
                ending.end(peer);
            }
            wait_for([&] { return watched.client->status == 0; });
            on_loop([] {});
            EXPECT_EQ(os_tcp_client_destroy(watched.client), 1);
            EXPECT_EQ(watched.times('D'), 1) << watched.order;
            EXPECT_EQ(watched.times('C'), ending.end ? 1 : 0) << watched.order;
        });
    }
}

TEST(TcpClient, APeerThatNeverReadsThenDoes)
{
    in_layer(1, 1, [] {
        const int listener = plain_listener();
        const std::string whole = pattern(8000000);
        bool filled = false;
        Watched watched;
        watched.then = [&](char what) { filled |= what == 'W' && !watched.send(whole) && watched.last == 0; };
        open_watched(watched, port_of(listener));
        const int peer = accept_from(listener);
        wait_for([&] { return filled; });
        EXPECT_TRUE(read_up_to(peer, whole.size()) == whole);
        os_tcp_client_destroy(watched.client);
    });
}

// The first connection brings a greeting along; in the callback after which the order ends so, the client is
// changed, and left alone for the rest of the event.
static void change_after(const std::string& order, const std::string& what)
{
    const int listener = plain_listener();
    Watched watched;
    bool changed = false;
    watched.then = [&](char) {
        if (changed || !watched.order.ends_with(order)) return;
        changed = true;
        EXPECT_EQ(watched.got, order == "D" || order == "CWWR" ? "first" : "");
        what == "destroy" ? os_tcp_client_destroy(watched.client) : os_tcp_client_close(watched.client);
        EXPECT_TRUE(what != "reopen" || os_tcp_client_open(watched.client, -1));
    };
    on_loop([&] { // so that one event announces both
        open_watched(watched, port_of(listener));
        const int first = accept_from(listener);
        send_all(first, "first");
        if (order == "D") shutdown(first, SHUT_WR);
    });
    wait_for([&] { return watched.times('D') == 1; });
    on_loop([&] { watched.got.clear(); });
    if (what == "reopen") {
        EXPECT_TRUE(send_all(accept_from(listener), "second"));
        wait_for([&] { return watched.got == "second"; });
    }
    if (what != "destroy") os_tcp_client_destroy(watched.client);
    const std::string after = watched.order.substr(watched.order.find('D'));
    EXPECT_EQ(after.substr(0, 3), what == "reopen" ? "DCW" : "D") << watched.order;
    EXPECT_EQ(watched.times('D'), what == "reopen" ? 2 : 1) << watched.order;
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
    const char* reports[] = {"", "", " client index == -1 fail\n", " index session fail\n"};
    for (int change = 0; change < 4; ++change) {
        const std::string report = in_layer(2, 1, [&] {
            const int listener = plain_listener();
            Watched watched[2];
            int peers[2];
            for (int i = 0; i < 2; ++i) {
                open_watched(watched[i], port_of(listener));
                peers[i] = accept_from(listener);
                wait_for([&] { return watched[i].order == "CW"; });
            }
            watched[0].then = [&](char what) {
                if (what != 'R') return;
                change < 2 ? os_tcp_client_close(watched[1].client)
                           : os_tcp_client_destroy(watched[1].client);
                if (change == 1) os_tcp_client_open(watched[1].client, -1);
                if (change == 3) watch(watched[1], os_tcp_client_create());
            };
            on_loop([&] { // which therefore does not wait meanwhile
                for (const int peer : peers) EXPECT_TRUE(send_all(peer, "x"));
            });
            wait_for([&] { return watched[0].times('R') == 1; });
            on_loop([&] { EXPECT_EQ(watched[1].times('R'), 0) << change; });
        });
        EXPECT_TRUE(report.ends_with(reports[change])) << report;
        EXPECT_EQ(count_of(report, "\n"), change < 2 ? 0 : 1) << report;
    }
}
