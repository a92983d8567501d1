#include <errno.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <unistd.h>

#include <string>

#include "net_support.h"

static char s_loopback[] = "127.0.0.1";

struct Received
{
    std::string got; // each datagram with '/' behind it
    int writes = 0;
};

static int32 read_datagrams(UdpClient* client, void* usr)
{
    Received* received = static_cast<Received*>(usr);
    char data[100], ip[16];
    uint16 port = 0;
    for (;;) {
        const int32 count = os_udp_client_read(client, data, sizeof(data), ip, &port);
        if (count == 0 || (count < 0 && errno != 0)) return 0;
        received->got.append(data, static_cast<size_t>(count < 0 ? 0 : count)) += '/';
        if (count > 0) {
            EXPECT_STREQ(ip, "127.0.0.1");
        }
    }
}

TEST(Udp, DatagramsAndStates)
{
    const std::string reports = in_layer(2, 1, [] {
        Received received;
        char ip[16] = "", text[] = "one", data[8];
        uint16 port = 0, from = 0;
        UdpClient* client = os_udp_client_create();
        UdpClient* sender = os_udp_client_create();
        EXPECT_EQ(os_udp_client_set_local(client, s_loopback, 0), 1);
        EXPECT_EQ(os_udp_client_bind_read(client, read_datagrams, &received), 1);
        EXPECT_EQ(os_udp_client_bind_write(
                      client,
                      [](UdpClient*, void* usr) -> int32 { return ++static_cast<Received*>(usr)->writes; },
                      &received),
                  1);
        EXPECT_EQ(os_udp_client_get_status(client), 0);
        EXPECT_EQ(os_udp_client_open(client), 1);
        EXPECT_EQ(os_udp_client_get_status(client), 1);
        EXPECT_EQ(os_udp_client_open(client), 0); // bound already; the first opening's callbacks go on
        EXPECT_EQ(os_udp_client_get_local(client, ip, &port), 0);
        EXPECT_STREQ(ip, "127.0.0.1");
        EXPECT_NE(port, 0);

        locked([&] { // so that one event announces all three
            EXPECT_EQ(os_udp_client_send(sender, text, 3, s_loopback, port), 3);
            EXPECT_EQ(os_udp_client_send(sender, text, 0, s_loopback, port), 0);
            EXPECT_EQ(os_udp_client_send(sender, text, 2, s_loopback, port), 2);
        });
        EXPECT_TRUE(wait_for([&] {
            bool all = false;
            locked([&] { all = received.got == "one//on/" && received.writes > 0; });
            return all;
        })) << received.got;

        EXPECT_EQ(os_udp_client_get_local(sender, ip, &from), 0); // the first send bound it
        EXPECT_NE(from, 0);
        EXPECT_EQ(os_udp_client_read(sender, data, sizeof(data), ip, &from), 0);
        EXPECT_EQ(os_udp_client_close(client), 1);
        EXPECT_EQ(os_udp_client_get_status(client), 0);
        EXPECT_EQ(os_udp_client_send(sender, text, 3, s_loopback, port), 3);
        on_loop([] {});
        locked([&] { EXPECT_EQ(received.got, "one//on/"); });
        EXPECT_EQ(os_udp_client_read(client, data, sizeof(data), ip, &from), 3);
        const int fd = client->fd;
        EXPECT_EQ(os_udp_client_destroy(client), 1);
        EXPECT_EQ(os_udp_client_create(), client);
        EXPECT_EQ(client->fd, fd);
    });
    EXPECT_EQ(count_of(reports, " recv fail\n"), 1) << reports;
    EXPECT_EQ(count_of(reports, " bind fail: Invalid argument\n"), 1) << reports;
    EXPECT_EQ(count_of(reports, "\n"), 2) << reports;
}

TEST(Udp, DestroyedByItsOwnCallback)
{
    const std::string reports = in_layer(1, 1, [] {
        for (int i = 0; i < 100; ++i) {
            UdpClient* client = nullptr;
            EXPECT_TRUE(wait_for([&] { return (client = os_udp_client_create()) != nullptr; }));
            os_udp_client_bind_write(
                client, [](UdpClient* own, void*) -> int32 { return os_udp_client_destroy(own); }, nullptr);
            os_udp_client_bind_read(
                client,
                [](UdpClient*, void*) -> int32 {
                    ADD_FAILURE();
                    return 0;
                },
                nullptr);
            locked([&] {
                char ip[16];
                uint16 port = 0;
                EXPECT_EQ(os_udp_client_set_local(client, s_loopback, 0), 1);
                EXPECT_EQ(os_udp_client_open(client), 1);
                EXPECT_EQ(os_udp_client_get_local(client, ip, &port), 0);
                EXPECT_EQ(os_udp_client_send(client, ip, 1, s_loopback, port), 1);
            });
        }
    });
    EXPECT_EQ(count_of(reports, "session fail") + count_of(reports, "-1 fail"), 0) << reports;
}

TEST(Udp, Arguments)
{
    const std::string reports = in_layer(1, 1, [] {
        char text[17] = "1234567890123456", data[4] = {};
        uint16 port = 0;
        UdpClient* client = os_udp_client_create();
        EXPECT_EQ(os_udp_client_set_local(client, text, 1), 0);
        text[15] = '\0';
        EXPECT_EQ(os_udp_client_set_local(client, text, 1), 1);
        EXPECT_EQ(os_udp_client_set_local(client, nullptr, 1), 0);
        EXPECT_EQ(os_udp_client_get_local(client, nullptr, &port), 0);
        EXPECT_EQ(os_udp_client_send(nullptr, data, 1, s_loopback, 1), -1);
        EXPECT_EQ(os_udp_client_send(client, nullptr, 1, s_loopback, 1), -1);
        EXPECT_EQ(os_udp_client_send(client, data, 1, nullptr, 1), -1);
        EXPECT_EQ(os_udp_client_read(client, data, 1, nullptr, &port), -1);
        EXPECT_EQ(os_udp_client_get_status(nullptr), -1);
        EXPECT_EQ(os_udp_client_open(nullptr), 0);
        EXPECT_EQ(os_udp_client_close(nullptr), 0);
        EXPECT_EQ(os_udp_client_destroy(nullptr), 0);
        EXPECT_EQ(os_comm_client_create(1, 9600, 8, 0, 1, 0), nullptr);
        EXPECT_EQ(os_comm_client_open(nullptr), 0);
    });
    EXPECT_EQ(count_of(reports, " ip length out\n"), 1);
    EXPECT_EQ(count_of(reports, " client is null or ip is null\n"), 1);
    EXPECT_EQ(count_of(reports, " client is null or ip is null or port is null\n"), 1);
    EXPECT_EQ(count_of(reports, " client is null or data is null or ip is null or port is null\n"), 1);
    EXPECT_EQ(count_of(reports, " client is null\n"), 5);
    EXPECT_EQ(count_of(reports, "\n"), 11) << reports;
}
