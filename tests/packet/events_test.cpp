// From the network's events to client records.
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include "netip/netip_internal.h"
#include "tests/packet/packet_fixture.h"

namespace {

using namespace zeb_test;
using zeb::mqtt_client;
using zeb::mqtt_netip_event_cb;

// A connection as the network layer knows it, over one end of a socket pair.
class socket_client {
  public:
    socket_client() {
        int ends[2];
        EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends));
        sockaddr_in peer{};
        peer.sin_family = AF_INET;
        peer.sin_addr.s_addr = htonl(0x0A010203);
        peer.sin_port = htons(5555);
        std::lock_guard lock(zeb::g_netip_lock);
        uint32_t generation = 0;
        handle_ = netip_index(*zeb::netip_take_slot(zeb::NETIP_TYPE_TCP, ends[0], peer, &generation));
        fd_ = ends[1];
    }
    ~socket_client() {
        zeb::netip_close(handle_);
        close(fd_);
    }
    socket_client(const socket_client &) = delete;
    socket_client &operator=(const socket_client &) = delete;

    uint32_t handle() const { return handle_; }
    std::string address() const { return "10.1.2.3:5555"; }
    std::string received() {
        uint8_t data[512];
        const ssize_t len = recv(fd_, data, sizeof data, 0);
        return len < 0 ? "nothing" : dump(data, static_cast<size_t>(len));
    }
    bool is_closed() const { return zeb::g_netip_clients[handle_].in_use.load() == 0; }
    // Takes all that the broker sends from now on out of its hands: the socket is full.
    void stop_reading() const {
        const bytes filler(65536, 0);
        const int fd = zeb::g_netip_clients[handle_].fd;
        while (::send(fd, filler.data(), filler.size(), MSG_DONTWAIT | MSG_NOSIGNAL) > 0) {
        }
        while (::send(fd, filler.data(), 1, MSG_DONTWAIT | MSG_NOSIGNAL) > 0) {
        }
    }

  private:
    uint32_t handle_;
    int fd_;
};

class packet_events : public packet_fixture {
  protected:
    explicit packet_events(int max_clients = 200) : packet_fixture(max_clients) {
        zeb::g_io_thread_num = 1;
        zeb::g_netip_cb.store(mqtt_netip_event_cb);
        zeb::g_netip_cb_arg.store(&broker);
    }
    ~packet_events() override {
        zeb::g_netip_cb.store(nullptr);
        zeb::g_netip_cb_arg.store(nullptr);
    }
    int fire(uint32_t handle, uint32_t event, const bytes &data = {}, uint32_t reason = 0,
             uint32_t error = 0) {
        return mqtt_netip_event_cb(handle, event, data.empty() ? nullptr : data.data(),
                                   static_cast<uint32_t>(data.size()), reason, error, &broker);
    }
    int data(const socket_client &c, const bytes &packet) {
        return fire(c.handle(), zeb::NETIP_EVENT_DATA, packet, 3);
    }
};

TEST_F(packet_events, an_accepted_connection_is_logged_and_gets_no_record) {
    const socket_client c;
    log_capture log;
    EXPECT_EQ(1, fire(c.handle(), zeb::NETIP_EVENT_CONNECT));
    EXPECT_TRUE(
        log.has("INFO", "Client connected: handle=" + std::to_string(c.handle()) + ", ip=" + c.address()));
    EXPECT_EQ(nullptr, zeb::client_find_by_handle(c.handle()));
    EXPECT_EQ(0, zeb::g_client_mgr.client_count.load());
}

TEST_F(packet_events, an_accepted_connection_without_an_address_is_answered_with_0) {
    log_capture log;
    EXPECT_EQ(0, fire(10999, zeb::NETIP_EVENT_CONNECT));
    EXPECT_TRUE(log.has("ERROR", "Get client IP failed: handle=10999"));
}

TEST_F(packet_events, data_of_length_0_does_nothing) {
    const socket_client c;
    const uint8_t byte = 0xC0;
    EXPECT_EQ(1, mqtt_netip_event_cb(c.handle(), zeb::NETIP_EVENT_DATA, &byte, 0, 3, 0, &broker));
    EXPECT_EQ(1, mqtt_netip_event_cb(c.handle(), zeb::NETIP_EVENT_DATA, nullptr, 2, 3, 0, &broker));
    EXPECT_EQ(0, zeb::g_client_mgr.client_count.load());
    EXPECT_EQ(0u, zeb::g_mqtt_stats.pkt_rx.load());
}

TEST_F(packet_events, a_first_packet_that_is_no_connect_creates_the_record_and_is_processed) {
    const socket_client c;
    EXPECT_EQ(1, data(c, hex("C0 00")));
    mqtt_client *client = zeb::client_find_by_handle(c.handle());
    ASSERT_NE(nullptr, client);
    EXPECT_EQ(zeb::CONNECTED, client->state.load());
    EXPECT_STREQ("10.1.2.3", client->ip);
    EXPECT_EQ(5555, client->port.load());
    EXPECT_EQ(&broker, client->broker.load());
    EXPECT_EQ(just("D0 00"), sent(client));
}

TEST_F(packet_events, later_packets_find_the_record_of_the_first) {
    const socket_client c;
    data(c, hex("C0 00"));
    data(c, connect_packet("x"));
    EXPECT_EQ(1, zeb::g_client_mgr.client_count.load());
    EXPECT_EQ(texts({"D0 00", "20 02 00 00"}), sent(zeb::client_find_by_handle(c.handle())));
}

TEST_F(packet_events, data_of_a_connection_that_is_gone_creates_nothing) {
    log_capture log;
    EXPECT_EQ(1, fire(10999, zeb::NETIP_EVENT_DATA, hex("C0 00")));
    EXPECT_TRUE(log.has("ERROR", "Get client IP failed: handle=10999"));
    EXPECT_EQ(0, zeb::g_client_mgr.client_count.load());
}

class packet_events_full : public packet_events {
  protected:
    packet_events_full() : packet_events(1) {}
};

TEST_F(packet_events_full, a_first_packet_beyond_the_pool_closes_its_connection) {
    const socket_client first;
    socket_client second;
    data(first, hex("C0 00"));
    log_capture log;
    EXPECT_EQ(1, data(second, hex("C0 00")));
    EXPECT_TRUE(log.has("ERROR", "Create client failed, close handle=" + std::to_string(second.handle())));
    EXPECT_TRUE(second.is_closed());
    EXPECT_EQ("", second.received());  // the end of the stream
    EXPECT_FALSE(first.is_closed());
}

TEST_F(packet_events, a_close_of_no_handle_is_ignored_without_a_line) {
    log_capture log;
    EXPECT_EQ(1, fire(zeb::NETIP_HANDLE_NONE, zeb::NETIP_EVENT_DISCONNECT));
    EXPECT_EQ("", log.text());
}

TEST_F(packet_events, a_close_without_a_client_is_only_logged) {
    log_capture log;
    EXPECT_EQ(1, fire(77, zeb::NETIP_EVENT_DISCONNECT, {}, 2, 104));
    EXPECT_TRUE(log.has("INFO", "Client disconnected: handle=77, reason=2, error=104"));
}

TEST_F(packet_events, a_close_before_connect_touches_no_subscriptions) {
    const socket_client c;
    data(c, hex("C0 00"));
    EXPECT_EQ(0, zeb::sub_add("other", "t", 0, 1));
    log_capture log;
    EXPECT_EQ(1, fire(c.handle(), zeb::NETIP_EVENT_DISCONNECT));
    EXPECT_EQ(std::string::npos, log.text().find("CleanSession"));
    EXPECT_EQ(std::string::npos, log.text().find("移除订阅"));
    EXPECT_EQ(nullptr, zeb::client_find_by_handle(c.handle()));
    EXPECT_EQ(1, zeb::g_sub_mgr.sub_count.load());
}

TEST_F(packet_events, a_close_takes_the_subscriptions_of_a_clean_session_along) {
    const socket_client c;
    data(c, connect_packet("leaver"));
    data(c, subscribe_packet(1, {{"a", 0}, {"b", 1}}));
    log_capture log;
    fire(c.handle(), zeb::NETIP_EVENT_DISCONNECT);
    EXPECT_TRUE(log.has("INFO", "MQTT标准：CleanSession=true，移除客户端所有订阅：ClientID=leaver, 数量=2"));
    EXPECT_TRUE(in_order(log.text(), {"Client disconnected", "移除客户端所有订阅", "[FREE-NORMAL]"}));
    EXPECT_EQ(0, live_subscriptions("leaver"));
    EXPECT_EQ(0, zeb::g_client_mgr.client_count.load());
}

TEST_F(packet_events, a_close_leaves_the_subscriptions_of_a_kept_session) {
    const socket_client c;
    connect_options o;
    o.clean = false;
    data(c, connect_packet("keeper", o));
    data(c, subscribe_packet(1, {{"a", 0}}));
    log_capture log;
    fire(c.handle(), zeb::NETIP_EVENT_DISCONNECT);
    EXPECT_TRUE(log.has("INFO", "MQTT标准：CleanSession=false，保留客户端订阅：ClientID=keeper"));
    EXPECT_EQ(1, live_subscriptions("keeper"));
}

TEST_F(packet_events, an_old_connection_that_ends_leaves_its_successors_subscriptions) {
    const socket_client older;
    const socket_client newer;
    data(older, connect_packet("same"));
    data(older, subscribe_packet(1, {{"a", 0}}));
    data(newer, connect_packet("same"));
    data(newer, subscribe_packet(1, {{"b", 0}}));
    fire(older.handle(), zeb::NETIP_EVENT_DISCONNECT);
    EXPECT_EQ(1, live_subscriptions("same"));
    EXPECT_EQ(zeb::client_find_by_handle(newer.handle()), zeb::client_find_by_cid("same"));
    fire(newer.handle(), zeb::NETIP_EVENT_DISCONNECT);
    EXPECT_EQ(0, live_subscriptions("same"));
}

TEST_F(packet_events, an_unknown_event_is_logged) {
    log_capture log;
    EXPECT_EQ(1, fire(1, 7));
    EXPECT_TRUE(log.has("WARN", "Unknown NetIP event type: 7"));
}

TEST_F(packet_events, a_refused_client_reads_its_connack_before_the_end) {
    socket_client c;
    app().refused_user = "eve";
    connect_options o;
    o.level = 5;
    o.user = "eve";
    data(c, connect_packet("e", o));
    EXPECT_TRUE(c.is_closed());
    EXPECT_EQ("20 0B 00 86 08 21 FF FF 27 00 00 10 00", c.received());
    EXPECT_EQ("", c.received());
    EXPECT_EQ(0u, slept_us());  // it left at once, so that nobody had to wait
}

TEST_F(packet_events, a_refused_client_that_does_not_read_gets_10_ms_and_no_more) {
    const socket_client c;
    c.stop_reading();
    app().refused_user = "eve";
    connect_options o;
    o.user = "eve";
    data(c, connect_packet("e", o));
    EXPECT_TRUE(c.is_closed());
    EXPECT_EQ(10000u, slept_us());
}

TEST_F(packet_events, an_oversize_packet_is_answered_before_the_end) {
    socket_client c;
    connect_options o;
    o.level = 5;
    data(c, connect_packet("big", o));
    zeb::client_send_flush(zeb::client_find_by_handle(c.handle()));
    EXPECT_EQ("20 0B 00 00 08 21 FF FF 27 00 00 01 00", c.received());
    data(c, publish_packet("t", bytes(300 - 7, 'x')));
    EXPECT_TRUE(c.is_closed());
    EXPECT_EQ("E0 02 95 00", c.received());
    EXPECT_EQ("", c.received());
}

TEST_F(packet_events, the_close_of_a_goodbye_finds_no_client_any_more) {
    const socket_client c;
    data(c, connect_packet("bye"));
    log_capture log;
    data(c, hex("E0 00"));
    EXPECT_TRUE(c.is_closed());
    EXPECT_TRUE(in_order(log.text(), {"MQTT标准：客户端主动断开连接：ClientID=bye", "[FREE-NORMAL]",
                                      "Client disconnected: handle="}));
    EXPECT_EQ(0, zeb::g_client_mgr.client_count.load());
}

TEST_F(packet_events, readiness_to_send_changes_nothing) {
    const socket_client c;
    data(c, hex("C0 00"));
    zeb::on_netip_send_ready(c.handle());
    EXPECT_EQ(just("D0 00"), sent(zeb::client_find_by_handle(c.handle())));
}

}  // namespace
