#include <errno.h>

#include "net_support.h"

static char s_loopback[] = "127.0.0.1";

static int32 read_datagrams(UdpClient* client, void* usr)
{
    char data[100], ip[16] = "127.0.0.1";
    uint16 port = 0;
    for (;;) {
        errno = EIO; // an empty datagram is none
        const int32 count = os_udp_client_read(client, data, sizeof(data), ip, &port);
        if (count == 0 || (count < 0 && errno != 0)) return 0;
        EXPECT_STREQ(ip, s_loopback);
        static_cast<std::string*>(usr)->append(data, static_cast<size_t>(std::max(count, 0))) += '/';
    }
}

TEST(Udp, Datagrams)
{
    const std::string reports = in_layer(2, 1, [] {
        std::string got; // each datagram with '/' behind it
        char ip[16] = "", data[8] = "one";
        uint16 port = 0, from = 0;
        UdpClient* client = os_udp_client_create();
        UdpClient* sender = os_udp_client_create();
        os_udp_client_set_local(client, s_loopback, 0);
        os_udp_client_bind_read(client, read_datagrams, &got);
        EXPECT_EQ(os_udp_client_open(client), 1);
        EXPECT_EQ(os_udp_client_open(client), 0); // the first opening's callbacks go on
        EXPECT_EQ(os_udp_client_get_local(client, ip, &port), 0);
        EXPECT_STREQ(ip, s_loopback);
        locked([&] { // so that one event announces all three
            for (const int32 length : {3, 0, 2})
                EXPECT_EQ(os_udp_client_send(sender, data, static_cast<uint32>(length), ip, port), length);
        });
        wait_for([&] { return got == "one//on/"; });
        EXPECT_EQ(os_udp_client_get_local(sender, ip, &from), 0); // the first send bound it
        EXPECT_NE(from, 0);
        EXPECT_EQ(os_udp_client_read(sender, data, sizeof(data), ip, &from), 0);
        EXPECT_EQ(os_udp_client_close(client), 1);
        EXPECT_EQ(os_udp_client_get_status(client), 0);
        EXPECT_EQ(os_udp_client_send(sender, data, 3, s_loopback, port), 3);
        on_loop([] {});
        EXPECT_EQ(os_udp_client_read(client, data, sizeof(data), ip, &from), 3);
    });
    EXPECT_EQ(reports, "bind fail: Invalid argument\nrecv fail\n"); // bound already; an empty datagram
}

TEST(Udp, DestroyedByItsOwnCallback)
{
    const std::string reports = in_layer(1, 1, [] {
        const OnUdpClientWriteFunc destroy = [](UdpClient* own, void*) { return os_udp_client_destroy(own); };
        const OnUdpClientReadFunc report = [](UdpClient*, void*) { return os_timer_destroy(nullptr); };
        UdpClient* client = os_udp_client_create();
        os_udp_client_bind_write(client, destroy, nullptr);
        os_udp_client_bind_read(client, report, nullptr);
        on_loop([&] { // so that one event announces input and room
            char ip[16];
            uint16 port = 0;
            EXPECT_EQ(os_udp_client_open(client), 1);
            EXPECT_EQ(os_udp_client_get_local(client, ip, &port), 0);
            EXPECT_EQ(os_udp_client_send(client, ip, 1, s_loopback, port), 1);
        });
        wait_for([&] { return client->index == -1; });
    });
    EXPECT_EQ(reports, "");
}
