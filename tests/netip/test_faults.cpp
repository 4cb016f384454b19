#include "tests/netip/fault_injection.h"
#include "tests/netip/netip_fixture.h"
#include "tests/support/log_capture.h"

using namespace zeb;
using namespace zeb_test;

namespace {

int init(recorder &events, int io_threads = 1) {
    return netip_init(recorder::on_event, &events, io_threads);
}

// A start with one armed fault gives the code and leaves no trace, and the next start works.
void expect_failed_start(int code, int io_threads, fault &armed) {
    recorder events;
    const size_t descriptors = open_descriptors();
    const size_t threads = running_threads();
    EXPECT_EQ(code, init(events, io_threads));
    armed.disarm();
    EXPECT_EQ(descriptors, open_descriptors());
    EXPECT_TRUE(eventually([=] { return running_threads() == threads; }));
    EXPECT_EQ(-1, netip_epoll_fd);
    EXPECT_EQ(-1, g_netip_tcp_listen);
    EXPECT_EQ(-1, g_netip_udp);
    EXPECT_EQ(nullptr, g_io_threads);
    EXPECT_EQ(0, g_netip_running.load());
    EXPECT_EQ(nullptr, g_netip_cb.load());
    netip_deinit();
    running_netip netip(events, io_threads);
    tcp_client client;
    EXPECT_TRUE(events.wait_connects(1));
}

// Sends to handle 0 in pieces of at most `piece` bytes and checks what arrives.
void expect_stream_survives(size_t piece) {
    recorder events;
    running_netip netip(events);
    tcp_client client;
    ASSERT_TRUE(events.wait_connects(1));
    g_send_at_most = piece;
    bytes expected;
    for (uint8_t i = 0; i < 20; ++i) {
        const bytes packet = packet_of(2 + i * 13u, i);
        expected = expected + packet;
        EXPECT_TRUE(eventually([&] {
            const int code = netip_send(0, packet.data(), static_cast<int>(packet.size()));
            EXPECT_TRUE(code == NETIP_OK || code == NETIP_ERR_WOULDBLOCK) << code;
            return code == NETIP_OK;
        }));
    }
    // The rest of the last packet goes out without another send. The client's own bytes are not cut.
    EXPECT_EQ(dump(expected), dump(client.read(expected.size())));
    EXPECT_TRUE(eventually([] { return !netip_send_blocked(0); }));
    g_send_at_most = SIZE_MAX;
}

}  // namespace

TEST(netip_faults, no_epoll_instance_gives_7) {
    g_epoll_create1.arm(EMFILE);
    expect_failed_start(7, 1, g_epoll_create1);
    g_epoll_create1.arm(EMFILE, 1, 2);
    expect_failed_start(7, 4, g_epoll_create1);
}

TEST(netip_faults, no_memory_for_the_threads_gives_1) {
    g_calloc.arm(ENOMEM);
    expect_failed_start(1, 1, g_calloc);
}

TEST(netip_faults, no_tcp_socket_gives_2) {
    g_socket.arm(EMFILE);
    expect_failed_start(2, 1, g_socket);
}

TEST(netip_faults, a_failed_listen_gives_4) {
    g_listen.arm(EADDRINUSE);
    expect_failed_start(4, 1, g_listen);
}

TEST(netip_faults, an_io_thread_that_cannot_start_gives_1) {
    g_pthread_create.arm(EAGAIN);
    expect_failed_start(1, 1, g_pthread_create);
    g_pthread_create.arm(EAGAIN, 1, 2);
    expect_failed_start(1, 4, g_pthread_create);
}

TEST(netip_faults, an_accept_thread_that_cannot_start_gives_1_and_is_logged) {
    log_capture log(AGENT_LOG_ERROR);
    g_pthread_create.arm(EAGAIN, 1, 3);
    expect_failed_start(1, 3, g_pthread_create);
    EXPECT_TRUE(log.has("ERROR", "创建 accept 线程失败")) << log.text();
}

TEST(netip_faults, no_udp_socket_leaves_tcp_working) {
    recorder events;
    g_socket.arm(EMFILE, 1, 1);
    running_netip netip(events);
    EXPECT_EQ(-1, g_netip_udp);
    tcp_client client;
    ASSERT_TRUE(client.send("C0 00"));
    EXPECT_TRUE(events.wait_data(1));
}

TEST(netip_faults, without_a_wake_up_the_threads_end_by_themselves) {
    recorder events;
    const size_t threads = running_threads();
    g_eventfd.arm(EMFILE, 2);
    {
        running_netip netip(events, 2);
        tcp_client client;
        EXPECT_TRUE(events.wait_connects(1));
    }
    EXPECT_TRUE(eventually([=] { return running_threads() == threads; }));
}

TEST(netip_faults, a_client_that_epoll_refuses_is_closed_without_an_event) {
    recorder events;
    running_netip netip(events);
    g_epoll_ctl_op = EPOLL_CTL_ADD;
    g_epoll_ctl.arm(ENOSPC);
    tcp_client refused;
    EXPECT_TRUE(refused.at_end());
    EXPECT_FALSE(is_in_use(0));
    tcp_client served;
    ASSERT_TRUE(events.wait_connects(1));
    EXPECT_EQ(1u, events.events().size());
    EXPECT_EQ(1u, events.events()[0].handle);
}

TEST(netip_faults, a_failing_accept_is_retried) {
    for (const int error : {ECONNABORTED, EINTR, ENOBUFS, ENOMEM, EPROTO}) {
        recorder events;
        g_accept4.arm(error, 2);
        running_netip netip(events);
        tcp_client client;
        EXPECT_TRUE(events.wait_connects(1)) << error;
    }
}

TEST(netip_faults, a_failing_epoll_wait_is_logged_and_retried) {
    recorder events;
    log_capture log(AGENT_LOG_ERROR);
    {
        g_epoll_wait.arm(EBADF);
        running_netip netip(events);
        tcp_client client;
        ASSERT_TRUE(client.send("C0 00"));
        EXPECT_TRUE(events.wait_data(1));
    }
    EXPECT_TRUE(log.has("ERROR", "[IO] epoll_wait 错误, errno=9")) << log.text();
}

TEST(netip_faults, an_interrupted_epoll_wait_is_no_news) {
    recorder events;
    log_capture log(AGENT_LOG_DEBUG);
    {
        g_epoll_wait.arm(EINTR, 3);
        running_netip netip(events);
        tcp_client client;
        ASSERT_TRUE(client.send("C0 00"));
        EXPECT_TRUE(events.wait_data(1));
    }
    EXPECT_EQ(std::string::npos, log.text().find("[IO]")) << log.text();
}

TEST(netip_faults, short_writes_never_tear_a_packet) {
    for (const size_t piece : {1u, 2u, 100u}) expect_stream_survives(piece);
}

TEST(netip_faults, an_interrupted_send_is_repeated) {
    recorder events;
    running_netip netip(events);
    tcp_client client;
    ASSERT_TRUE(events.wait_connects(1));
    const bytes data = hex("D0 00");
    g_send.arm(EINTR, 3);
    EXPECT_EQ(0, netip_send(0, data.data(), 2));
    EXPECT_EQ(data, client.read(2));
}

TEST(netip_faults, a_failed_send_gives_6_and_leaves_the_connection) {
    recorder events;
    running_netip netip(events);
    tcp_client client;
    ASSERT_TRUE(events.wait_connects(1));
    const bytes data = hex("D0 00");
    g_send.arm(ENOBUFS);
    EXPECT_EQ(6, netip_send(0, data.data(), 2));
    EXPECT_FALSE(netip_send_blocked(0));
    EXPECT_EQ(0, netip_send(0, data.data(), 2));
    EXPECT_EQ(data, client.read(2));
}

TEST(netip_faults, a_passing_failure_in_the_middle_of_a_packet_does_not_tear_it) {
    recorder events;
    running_netip netip(events);
    tcp_client client;
    ASSERT_TRUE(events.wait_connects(1));
    const bytes first = packet_of(50, 1);
    const bytes second = packet_of(60, 2);
    g_send.arm(ENOBUFS, 1, 1);  // the I/O thread's attempt to send the rest
    g_send_at_most = 10;
    EXPECT_EQ(0, netip_send(0, first.data(), 50));
    EXPECT_TRUE(eventually([] { return g_send.times.load() == 0; }));
    EXPECT_TRUE(eventually([] { return !netip_send_blocked(0); }));
    EXPECT_EQ(0, netip_send(0, second.data(), 60));
    EXPECT_EQ(dump(first + second), dump(client.read(110)));
    g_send_at_most = SIZE_MAX;
}

TEST(netip_faults, the_rest_of_a_packet_leaves_before_a_close) {
    recorder events;
    running_netip netip(events);
    tcp_client client;
    ASSERT_TRUE(events.wait_connects(1));
    const bytes data = packet_of(50, 1);
    g_epoll_ctl_op = EPOLL_CTL_MOD;
    g_epoll_ctl.arm(ENOMEM, 1);  // nobody hears that the socket is writable
    g_send_at_most = 10;
    EXPECT_EQ(0, netip_send(0, data.data(), 50));
    EXPECT_FALSE(netip_send_blocked(0));
    g_send_at_most = SIZE_MAX;
    netip_close(0);
    EXPECT_EQ(dump(data), dump(client.read(50)));
    EXPECT_TRUE(client.at_end());
}
