#include <gtest/gtest.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>

#include "net_support.h"

TEST(TcpClient, ArgumentsAndTheDisconnectedState)
{
    const std::string reports = in_layer(1, 1, [] {
        char ip[17] = "1234567890123456", data[4] = {}, got[16];
        uint16 port = 0;
        EXPECT_EQ(os_tcp_client_destroy(nullptr), 0);
        EXPECT_EQ(os_tcp_client_open(nullptr, -1), 0);
        EXPECT_EQ(os_tcp_client_close(nullptr), 0);
        EXPECT_EQ(os_tcp_client_get_status(nullptr), -1);
        EXPECT_EQ(os_tcp_client_send(nullptr, data, 1), -1);
        EXPECT_EQ(os_tcp_client_read(nullptr, data, 1), -1);
        EXPECT_EQ(os_tcp_client_set_remote(nullptr, ip, 1), 0);
        EXPECT_EQ(os_tcp_client_get_local(nullptr, ip, &port), 0);
        EXPECT_EQ(os_tcp_client_get_udata(nullptr), nullptr);
        EXPECT_EQ(os_tcp_client_bind_read(nullptr, nullptr, nullptr), 0);
        EXPECT_EQ(os_tcp_client_set_rcvbuf_len(nullptr, 1), 0);

        TcpClient* client = os_tcp_client_create();
        EXPECT_EQ(client->create_type, 1);
        EXPECT_EQ(client->connectfd, -1);
        EXPECT_EQ(os_tcp_client_set_remote(client, ip, 1), 0);
        ip[15] = '\0';
        EXPECT_EQ(os_tcp_client_set_remote(client, ip, 77), 1);
        EXPECT_EQ(os_tcp_client_get_remote(client, got, &port), 1);
        EXPECT_STREQ(got, ip);
        EXPECT_EQ(port, 77);
        EXPECT_EQ(os_tcp_client_get_remote(client, got, nullptr), 0);
        EXPECT_EQ(os_tcp_client_send(client, nullptr, 1), -1);
        EXPECT_EQ(os_tcp_client_send(client, data, 1), -1);
        EXPECT_EQ(os_tcp_client_read(client, data, 0), -1);
        EXPECT_EQ(os_tcp_client_set_rcvbuf_len(client, 4096), 0);
        EXPECT_EQ(os_tcp_client_close(client), 1);
    });
    EXPECT_EQ(count_of(reports, " client is null\n"), 8);
    EXPECT_EQ(count_of(reports, " ip length out\n"), 1);
    EXPECT_EQ(count_of(reports, " data is null\n"), 1);
    EXPECT_EQ(count_of(reports, " : Bad file descriptor\n"), 1);
}

TEST(TcpClient, ConnectsInOrderAndTalks)
{
    const std::string reports = in_layer(2, 1, [] {
        uint16_t port = 0;
        const int listener = plain_listener(&port);
        Watched watched;
        char data[8] = "hello", ip[] = "127.0.0.1";
        locked([&] {
            open_watched(watched, port);
            EXPECT_EQ(os_tcp_client_get_status(watched.client), 1);
            EXPECT_EQ(os_tcp_client_send(watched.client, data, 5), 0);
            EXPECT_EQ(os_tcp_client_read(watched.client, data, 5), -1);
            EXPECT_EQ(os_tcp_client_open(watched.client, -1), 0);
            EXPECT_EQ(os_tcp_client_set_local(watched.client, ip, 0), 0);
        });
        const int peer = plain_accept(listener);
        EXPECT_TRUE(wait_for([&] { return watched.happened().size() >= 2; }));
        EXPECT_EQ(watched.happened().substr(0, 2), "CW");
        locked([&] {
            EXPECT_EQ(os_tcp_client_send(watched.client, data, 0), 0);
            EXPECT_EQ(os_tcp_client_read(watched.client, data, 0), 0);
            EXPECT_EQ(os_tcp_client_set_rcvbuf_len(watched.client, 65536), 1);
            EXPECT_EQ(os_tcp_client_send(watched.client, data, 5), 5);
        });
        EXPECT_EQ(read_up_to(peer, 5), "hello");
        const std::string sent = pattern(400);
        for (const char byte : sent) {
            EXPECT_TRUE(send_all(peer, std::string(1, byte)));
        }
        EXPECT_TRUE(wait_for([&] { return watched.received() == sent; }));
        EXPECT_EQ(os_tcp_client_destroy(watched.client), 1);
        EXPECT_TRUE(at_end(peer));
        EXPECT_EQ(count_of(watched.happened(), "D"), 1);
    });
    EXPECT_EQ(count_of(reports, " client is not disconnect\n"), 2) << reports;
}

TEST(TcpClient, AdoptsAConnectedSocketWithoutRegisteringIt)
{
    const std::string reports = in_layer(1, 1, [] {
        uint16_t port = 0;
        const int listener = plain_listener(&port);
        TcpClient* client = os_tcp_client_create();
        EXPECT_EQ(os_tcp_client_open(client, plain_connect(port)), 1);
        const int peer = plain_accept(listener);
        char ip[16], data[4] = "abc";
        uint16 remote = 0;
        EXPECT_EQ(os_tcp_client_get_remote(client, ip, &remote), 1);
        EXPECT_STREQ(ip, "127.0.0.1");
        EXPECT_EQ(remote, port);
        EXPECT_EQ(os_tcp_client_read(client, data, 3), 0); // a blocking socket, yet nothing waits
        EXPECT_EQ(os_tcp_client_send(client, data, 3), 3);
        EXPECT_EQ(read_up_to(peer, 3), "abc");
        EXPECT_EQ(os_tcp_client_close(client), 1);
        EXPECT_TRUE(at_end(peer));
    });
    EXPECT_EQ(reports, "");
}

TEST(TcpClient, AGreetingThatCameWithTheConnectionIsRead)
{
    in_layer(1, 1, [] {
        uint16_t port = 0;
        const int listener = plain_listener(&port);
        for (int i = 0; i < 50; ++i) {
            Watched watched;
            locked([&] {
                open_watched(watched, port);
                EXPECT_TRUE(send_all(plain_accept(listener), "220 ready"));
            });
            EXPECT_TRUE(wait_for([&] { return watched.received() == "220 ready"; }));
            EXPECT_EQ(watched.happened().substr(0, 2), "CW");
            os_tcp_client_destroy(watched.client);
        }
    });
}

// ---- how a connection ends

struct Ending
{
    const char* name;
    bool reads; // with a read callback, or the loop discards
    size_t sent_before;
    void (*end)(int peer); // nullptr: refused
};

class Endings : public ::testing::TestWithParam<Ending> {};

static void half_close(int peer)
{
    shutdown(peer, SHUT_WR);
}

static void plain_close(int peer)
{
    close(peer);
}

TEST_P(Endings, TellTheClientOnce)
{
    const Ending ending = GetParam();
    in_layer(1, 1, [&] {
        uint16_t port = unused_port();
        const int listener = ending.end ? plain_listener(&port) : -1;
        Watched watched;
        locked([&] {
            open_watched(watched, port);
            if (!ending.reads) os_tcp_client_bind_read(watched.client, nullptr, nullptr);
        });
        const std::string sent = pattern(ending.sent_before);
        if (ending.end) {
            const int peer = plain_accept(listener);
            EXPECT_TRUE(wait_for([&] { return watched.happened().size() >= 2; }));
            EXPECT_TRUE(send_all(peer, sent));
            if (ending.reads) {
                EXPECT_TRUE(wait_for([&] { return watched.received() == sent; }));
            }
            ending.end(peer);
        }
        EXPECT_TRUE(wait_for([&] { return os_tcp_client_get_status(watched.client) == 0; }));
        on_loop([] {});
        EXPECT_EQ(count_of(watched.happened(), "D"), 1) << watched.happened();
        EXPECT_EQ(count_of(watched.happened(), "C"), ending.end ? 1 : 0) << watched.happened();
        EXPECT_EQ(watched.client->connectfd, -1);
        EXPECT_EQ(os_tcp_client_destroy(watched.client), 1);
        EXPECT_EQ(count_of(watched.happened(), "D"), 1);
    });
}
INSTANTIATE_TEST_SUITE_P(Of, Endings,
                         ::testing::Values(Ending{"refused", true, 0, nullptr},
                                           Ending{"refused_without_reader", false, 0, nullptr},
                                           Ending{"closed", true, 10, plain_close},
                                           Ending{"half_closed", true, 300000, half_close},
                                           Ending{"reset", true, 10, close_with_reset},
                                           Ending{"reset_without_reader", false, 10, close_with_reset},
                                           Ending{"closed_after_more_than_one_event_discards", false, 5000000,
                                                  plain_close}),
                         [](const auto& it) { return std::string(it.param.name); });

TEST(TcpClient, APeerThatNeverReadsThenDoes)
{
    in_layer(1, 1, [] {
        uint16_t port = 0;
        const int listener = plain_listener(&port);
        const std::string whole = pattern(8000000);
        size_t done = 0;
        bool filled = false;
        Watched watched;
        watched.then = [&](char what) {
            while (what == 'W' && done < whole.size()) {
                char* from = const_cast<char*>(whole.data()) + done;
                const int32 sent =
                    os_tcp_client_send(watched.client, from, static_cast<uint32>(whole.size() - done));
                ASSERT_GE(sent, 0);
                if (sent == 0) {
                    filled = true;
                    break;
                }
                done += static_cast<size_t>(sent);
            }
        };
        open_watched(watched, port);
        const int peer = plain_accept(listener);
        EXPECT_TRUE(wait_for([&] {
            bool now = false;
            locked([&] { now = filled; });
            return now;
        }));
        EXPECT_EQ(read_up_to(peer, whole.size()), whole);
        os_tcp_client_destroy(watched.client);
    });
}

// ---- what callbacks do to their own client

struct Mischief
{
    char where;
    const char* what;
};

class FromCallback : public ::testing::TestWithParam<Mischief> {};

TEST_P(FromCallback, IsLeftAloneForTheRestOfTheEvent)
{
    const Mischief mischief = GetParam();
    const std::string what = mischief.what;
    const std::string reports = in_layer(1, 1, [&] {
        uint16_t port = 0;
        const int listener = plain_listener(&port);
        Watched watched;
        bool done = false;
        watched.then = [&](char where) {
            if (where != mischief.where || done) return;
            done = true;
            if (what == "destroy") {
                os_tcp_client_destroy(watched.client);
                return;
            }
            os_tcp_client_close(watched.client);
            if (what == "reopen") {
                EXPECT_EQ(os_tcp_client_open(watched.client, -1), 1);
            }
        };
        locked([&] {
            open_watched(watched, port);
            const int first = plain_accept(listener);
            send_all(first, "first");
            if (mischief.where == 'D') half_close(first);
        });
        EXPECT_TRUE(wait_for([&] { return count_of(watched.happened(), "D") == 1; }));
        on_loop([] {});
        if (what == "reopen") {
            watched.got.clear();
            EXPECT_TRUE(send_all(plain_accept(listener), "second"));
            EXPECT_TRUE(wait_for([&] { return watched.received() == "second"; }));
            const std::string order = watched.happened();
            EXPECT_EQ(order.substr(order.find('D'), 3), "DCW") << order;
            EXPECT_EQ(count_of(order, "D"), 1) << order;
            EXPECT_EQ(count_of(order, "C"), 2) << order;
        } else {
            EXPECT_EQ(watched.happened().back(), 'D') << watched.happened();
        }
        if (what != "destroy") os_tcp_client_destroy(watched.client);
        EXPECT_NE(os_tcp_client_create(), nullptr);
    });
    EXPECT_EQ(reports, "");
}
INSTANTIATE_TEST_SUITE_P(Does, FromCallback,
                         ::testing::Values(Mischief{'C', "close"}, Mischief{'W', "close"},
                                           Mischief{'R', "close"}, Mischief{'D', "close"},
                                           Mischief{'C', "reopen"}, Mischief{'W', "reopen"},
                                           Mischief{'R', "reopen"}, Mischief{'D', "reopen"},
                                           Mischief{'C', "destroy"}, Mischief{'W', "destroy"},
                                           Mischief{'R', "destroy"}),
                         [](const auto& it) { return std::string(1, it.param.where) + "_" + it.param.what; });

// ---- events that come too late

struct Late
{
    const char* name;
    void (*change)(Watched& second);
    const char* report;
};

class LateEvents : public ::testing::TestWithParam<Late> {};

// Both peers send while the loop is kept busy: one wait returns both events, and the first callback changes
// the second client.
TEST_P(LateEvents, DoNotReachTheNextOwner)
{
    const Late late = GetParam();
    const std::string reports = in_layer(2, 1, [&] {
        uint16_t port = 0;
        const int listener = plain_listener(&port);
        Watched first, second;
        open_watched(first, port);
        const int first_peer = plain_accept(listener);
        open_watched(second, port);
        const int second_peer = plain_accept(listener);
        EXPECT_TRUE(wait_for([&] { return first.happened() == "CW" && second.happened() == "CW"; }));
        first.then = [&](char what) {
            if (what == 'R') late.change(second);
        };
        std::atomic<bool> busy = false, go_on = false;
        on_loop([] {});
        std::pair<std::atomic<bool>&, std::atomic<bool>&> gates{busy, go_on};
        os_post_func(
            [](void* context) {
                auto& [in, out] = *static_cast<decltype(gates)*>(context);
                in = true;
                wait_for([&] { return out.load(); });
            },
            &gates);
        EXPECT_TRUE(wait_for([&] { return busy.load(); }));
        send_all(first_peer, "1");
        send_all(second_peer, "2");
        go_on = true;
        EXPECT_TRUE(wait_for([&] { return count_of(first.happened(), "R") == 1; }));
        on_loop([] {});
        EXPECT_EQ(count_of(second.happened(), "R"), 0) << second.happened();
        EXPECT_EQ(second.received(), "");
    });
    EXPECT_EQ(count_of(reports, "\n"), late.report ? 1 : 0) << reports;
    if (late.report) {
        EXPECT_EQ(count_of(reports, late.report), 1) << reports;
    }
}
INSTANTIATE_TEST_SUITE_P(
    After, LateEvents,
    ::testing::Values(Late{"close", [](Watched& second) { os_tcp_client_close(second.client); }, nullptr},
                      Late{"reopen",
                           [](Watched& second) {
                               os_tcp_client_close(second.client);
                               os_tcp_client_open(second.client, -1);
                           },
                           nullptr},
                      Late{"destroy", [](Watched& second) { os_tcp_client_destroy(second.client); },
                           " client index == -1 fail\n"},
                      Late{"destroy_and_create",
                           [](Watched& second) {
                               os_tcp_client_destroy(second.client);
                               watch(second, os_tcp_client_create());
                           },
                           " index session fail\n"}),
    [](const auto& it) { return std::string(it.param.name); });
