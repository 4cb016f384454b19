#include <fcntl.h>
#include <sys/resource.h>

#include "tests/netip/netip_fixture.h"
#include "tests/support/log_capture.h"

using namespace zeb;
using namespace zeb_test;

namespace {

// No descriptor beyond those open now, while it lives.
class no_more_descriptors {
  public:
    no_more_descriptors() {
        EXPECT_EQ(0, getrlimit(RLIMIT_NOFILE, &before_));
        const int lowest_free = dup(0);
        EXPECT_EQ(0, close(lowest_free));
        rlimit limit = before_;
        limit.rlim_cur = static_cast<rlim_t>(lowest_free);
        EXPECT_EQ(0, setrlimit(RLIMIT_NOFILE, &limit));
    }
    ~no_more_descriptors() { EXPECT_EQ(0, setrlimit(RLIMIT_NOFILE, &before_)); }
    no_more_descriptors(const no_more_descriptors &) = delete;
    no_more_descriptors &operator=(const no_more_descriptors &) = delete;

  private:
    rlimit before_{};
};

}  // namespace

TEST(netip_accept, a_connection_is_reported_with_reason_0) {
    recorder events;
    running_netip netip(events);
    tcp_client client;
    ASSERT_TRUE(events.wait_connects(1));
    const event e = events.events()[0];
    EXPECT_EQ(0u, e.handle);
    EXPECT_EQ(0u, e.reason);
    EXPECT_EQ(0u, e.error);
    EXPECT_TRUE(e.data.empty());
}

TEST(netip_accept, sockets_are_non_blocking_prompt_and_closed_on_exec) {
    recorder events;
    running_netip netip(events);
    tcp_client client;
    ASSERT_TRUE(events.wait_connects(1));
    const int fd = socket_of(0);
    EXPECT_NE(0, fcntl(fd, F_GETFL) & O_NONBLOCK);
    EXPECT_NE(0, fcntl(fd, F_GETFD) & FD_CLOEXEC);
    int no_delay = 0;
    socklen_t len = sizeof no_delay;
    EXPECT_EQ(0, getsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &no_delay, &len));
    EXPECT_EQ(1, no_delay);
}

TEST(netip_accept, a_connection_beyond_the_table_is_accepted_and_closed_at_once) {
    recorder events;
    running_netip netip(events);
    {
        occupied_slots taken(0, NETIP_MAX_CONN - 2);
        tcp_client last;
        ASSERT_TRUE(events.wait_connects(1));
        EXPECT_EQ(10999u, events.events()[0].handle);
        tcp_client too_many;
        EXPECT_TRUE(too_many.at_end());
        EXPECT_EQ(1u, events.events().size());
        ASSERT_TRUE(last.send("C0 00"));
        EXPECT_TRUE(events.wait_data(1));
    }
    tcp_client next;
    ASSERT_TRUE(events.wait_connects(2));
    EXPECT_EQ(0u, events.events(NETIP_EVENT_CONNECT)[1].handle);
}

TEST(netip_accept, running_out_of_descriptors_turns_clients_away_and_passes) {
    recorder events;
    log_capture log(AGENT_LOG_WARN);
    running_netip netip(events);
    tcp_client served;
    ASSERT_TRUE(events.wait_connects(1));
    {
        std::vector<tcp_client> waiting;
        for (int i = 0; i < 4; ++i) waiting.emplace_back(tcp_client::unconnected{});
        no_more_descriptors limit;
        // The accept that was waiting already may still have had a descriptor put aside.
        for (tcp_client &client : waiting) client.connect();
        for (size_t i = 1; i < waiting.size(); ++i) EXPECT_TRUE(waiting[i].closed_somehow());
        ASSERT_TRUE(served.send("C0 00"));
        EXPECT_TRUE(events.wait_data(1));
    }
    const size_t so_far = events.count(NETIP_EVENT_CONNECT);
    EXPECT_LE(so_far, 2u);
    tcp_client later;
    EXPECT_TRUE(events.wait_connects(so_far + 1));
    EXPECT_TRUE(log.has("WARN", "[NETIP] accept 失败, 暂停后重试, errno=24")) << log.text();
}

TEST(netip_accept, a_handler_may_close_a_connection_as_it_comes) {
    recorder events([](const event &e) {
        if (e.kind == NETIP_EVENT_CONNECT) netip_close(e.handle);
        return 1;
    });
    running_netip netip(events);
    tcp_client client;
    EXPECT_TRUE(client.at_end());
    ASSERT_TRUE(events.wait_disconnects(1));
    EXPECT_FALSE(is_in_use(0));
}
