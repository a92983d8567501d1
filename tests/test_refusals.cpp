// What the layer's calls return and report when they are given what they cannot use, or called out of turn.
#include "net_support.h"

using namespace std::string_literals;

TEST(Refusals, ReturnAndReport)
{
    in_layer(1, 2, [] {
        char ip[] = "1234567890123456", data[] = "abc", *fits = ip + 1, zeros[] = "0000127.0000.0000.0001";
        uint16 port = 0;
        TcpServer *server = os_tcp_server_create(), *other = os_tcp_server_create();
        TcpClient* client = os_tcp_client_create();
        UdpClient* udp = os_udp_client_create();
        RingBuf* ring = ringbuf_create(8, RINGBUF_WRITE_BLOCK);
        DList* list = adt_dlist_create(4);
        DListNode* node = adt_dlist_add(list, nullptr, data);
        const auto open_same = [&] {
            other->port = port_of(server->listenfd);
            return os_tcp_server_open(other) + other->listenfd + 1;
        };
        const struct
        {
            long result;
            const char* report;
            std::function<long()> call;
        } rows[] = {
            {-1, "server is NULL", [] { return os_tcp_server_get_status(nullptr); }},
            {0, "server is NULL", [&] { return os_tcp_server_get_local(server, nullptr, &port); }},
            {0, "ip is fail", [&] { return os_tcp_server_set_local(server, data, 1); }},
            {0, "ip is fail", [&] { return os_tcp_server_set_local(server, zeros, 1); }},
            {1, "", [&] { return os_tcp_server_set_local(server, nullptr, 0); }},
            {1, "", [&] { return os_tcp_server_open(server); }},
            {0, "server is not dislisten", [&] { return os_tcp_server_open(server); }},
            {0, "bind fail: Address already in use", open_same},
            {1, "", [&] { return os_tcp_server_close(server); }},
            {1, "server is dislisten", [&] { return os_tcp_server_close(server); }},
            {1, "", [&] { return os_tcp_server_open(server); }},
            {0, "client is null", [] { return os_tcp_client_destroy(nullptr); }},
            {-1, "client is null", [&] { return os_tcp_client_send(nullptr, data, 1); }},
            {-1, "data is null", [&] { return os_tcp_client_read(client, nullptr, 1); }},
            {-1, "", [&] { return os_tcp_client_send(client, data, 1); }},
            {1, "", [&] { return os_tcp_client_close(client); }},
            {0, "ip length out", [&] { return os_tcp_client_set_remote(client, ip, 1); }},
            {1, "", [&] { return os_tcp_client_set_remote(client, fits, 1); }},
            {0, ": Bad file descriptor", [&] { return os_tcp_client_set_rcvbuf_len(client, 4096); }},
            {0, "client is null", [] { return os_udp_client_open(nullptr); }},
            {0, "ip length out", [&] { return os_udp_client_set_local(udp, ip, 1); }},
            {1, "", [&] { return os_udp_client_set_local(udp, fits, 1); }},
            {-1, "client is null or data is null or ip is null or port is null",
             [&] { return os_udp_client_read(udp, data, 1, ip, nullptr); }},
            {0, "timer is null", [] { return os_timer_destroy(nullptr); }},
            {0, "func is null", [] { return os_post_func(nullptr, nullptr); }},
            {0, "", [] { return os_comm_client_open(os_comm_client_create(1, 9600, 8, 0, 1, 0)); }},
            {0, "mutex is null", [] { return os_mutex_lock(nullptr); }},
            {1, "mutex is null", [] { return os_mutex_free(nullptr); }},
            {0, "thr is null", [] { return os_thread_detach(nullptr); }},
            {0, "thr is null", [] { return os_thread_create(nullptr, 0, nullptr, nullptr); }},
            {0, "bufsize<=0", [] { return ringbuf_create(0, 2) != nullptr; }},
            {0, "unkonw ringbug write type", [] { return ringbuf_create(16, 2) != nullptr; }},
            {-1, "ptbuf is null", [&] { return ringbuf_write(1, data, nullptr); }},
            {-1, "src is null", [&] { return ringbuf_write(1, nullptr, ring); }},
            {-1, "dst is null", [&] { return ringbuf_read(1, nullptr, ring); }},
            {-5, "", [] { return ringbuf_write(-5, nullptr, nullptr); }},
            {-5, "", [] { return ringbuf_read(-5, nullptr, nullptr); }},
            {-1, "", [&] { return ringbuf_copy(1, data, nullptr); }},
            {0, "", [] { return ringbuf_datasize(nullptr) + ringbuf_capacity(nullptr); }},
            {0, "dlist is null", [&] { return adt_dlist_insert(nullptr, node, data) != nullptr; }},
            {0, "dlist is null", [&] { return adt_dlist_head(nullptr) != nullptr; }},
            {0, "data is null", [&] { return adt_dlist_insert(list, node, nullptr) != nullptr; }},
            {0, "data is null", [&] { return adt_dlist_add(list, node, nullptr) != nullptr; }},
            {0, "node is null", [&] { return adt_dlist_delete(list, nullptr); }},
            {0, "node == NULL", [&] { return adt_dlist_delete_ex(list, nullptr) != nullptr; }},
            {0, "",
             [] { return adt_dlist_next(nullptr) || adt_dlist_prev(nullptr) || adt_darray_create(4); }},
            {1, "", [&] { return adt_dlist_size(list); }}, // none of these changed it
            {1, "", [&] { return adt_dlist_destroy(list); }},
        };
        for (const auto& [result, report, call] : rows) {
            const auto [got, lines] = told(2, call);
            EXPECT_EQ(std::pair(got, messages(lines)), std::pair(result, *report ? report + "\n"s : ""s));
        }
        ringbuf_destroy(ring);
    });
}
