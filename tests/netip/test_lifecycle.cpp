#include <fcntl.h>
#include <sys/mman.h>

#include <fstream>
#include <set>

#include "tests/netip/netip_fixture.h"
#include "tests/support/log_capture.h"

using namespace zeb;
using namespace zeb_test;

namespace {

int init(recorder &events, int io_threads = 1) {
    return netip_init(recorder::on_event, &events, io_threads);
}

std::multiset<std::string> thread_names() {
    std::multiset<std::string> names;
    DIR *dir = opendir("/proc/self/task");
    while (const dirent *entry = readdir(dir)) {
        std::string name;
        std::ifstream file(std::string("/proc/self/task/") + entry->d_name + "/comm");
        if (std::getline(file, name)) names.insert(name);
    }
    closedir(dir);
    return names;
}

// A foreign program on the port.
class taken_port {
  public:
    explicit taken_port(int type) : fd_(socket(AF_INET, type | SOCK_CLOEXEC, 0)) {
        const int on = 1;  // connections of earlier tests may still hold the port in TIME_WAIT
        if (type == SOCK_STREAM) {
            EXPECT_EQ(0, setsockopt(fd_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on));
        }
        sockaddr_in address = broker_address();
        address.sin_addr.s_addr = htonl(INADDR_ANY);
        EXPECT_EQ(0, bind(fd_, reinterpret_cast<const sockaddr *>(&address), sizeof address));
        if (type == SOCK_STREAM) {
            EXPECT_EQ(0, listen(fd_, 1));
        }
    }
    ~taken_port() { close(fd_); }
    taken_port(const taken_port &) = delete;
    taken_port &operator=(const taken_port &) = delete;

  private:
    int fd_;
};

}  // namespace

TEST(netip_lifecycle, a_null_callback_is_refused) {
    EXPECT_EQ(6, netip_init(nullptr, nullptr, 1));
    EXPECT_EQ(0, g_netip_running.load());
}

TEST(netip_lifecycle, a_second_init_answers_bind_failed_and_changes_nothing) {
    recorder events;
    recorder second;
    running_netip netip(events);
    const size_t descriptors = open_descriptors();
    EXPECT_EQ(3, init(second, 4));
    EXPECT_EQ(descriptors, open_descriptors());
    EXPECT_EQ(1, g_io_thread_num);
    tcp_client client;
    EXPECT_TRUE(events.wait_connects(1));
    EXPECT_EQ(0u, second.events().size());
}

TEST(netip_lifecycle, a_taken_tcp_port_fails_and_leaves_nothing_behind) {
    recorder events;
    const size_t descriptors = open_descriptors();
    const size_t threads = running_threads();
    {
        taken_port foreign(SOCK_STREAM);
        EXPECT_EQ(3, init(events));
    }
    EXPECT_EQ(descriptors, open_descriptors());
    EXPECT_TRUE(eventually([=] { return running_threads() == threads; }));
    EXPECT_EQ(-1, g_netip_tcp_listen);
    EXPECT_EQ(-1, netip_epoll_fd);
    EXPECT_EQ(nullptr, g_io_threads);
    EXPECT_EQ(0, g_netip_running.load());
    running_netip netip(events);
}

TEST(netip_lifecycle, a_taken_udp_port_leaves_tcp_working) {
    recorder events;
    taken_port foreign(SOCK_DGRAM);
    running_netip netip(events);
    EXPECT_EQ(-1, g_netip_udp);
    tcp_client client;
    ASSERT_TRUE(client.send("C0 00"));
    EXPECT_TRUE(events.wait_data(1));
}

TEST(netip_lifecycle, the_number_of_io_threads_is_clamped) {
    recorder events;
    const struct {
        int asked;
        int given;
    } rows[] = {{-5, 1}, {0, 1}, {1, 1}, {3, 3}, {8, 8}, {9, 8}, {1000, 8}};
    for (const auto &row : rows) {
        running_netip netip(events, row.asked);
        EXPECT_EQ(row.given, g_io_thread_num);
        // Threads of the row before may still be on their way out.
        EXPECT_TRUE(eventually([&] {
            const auto names = thread_names();
            return names.count("zeb-io") == static_cast<size_t>(row.given) && names.count("zeb-accept") == 1;
        }));
    }
}

TEST(netip_lifecycle, descriptors_are_closed_on_exec) {
    recorder events;
    running_netip netip(events, 2);
    for (const int fd : {netip_epoll_fd, g_netip_tcp_listen, g_netip_udp})
        EXPECT_NE(0, fcntl(fd, F_GETFD) & FD_CLOEXEC);
}

TEST(netip_lifecycle, init_empties_the_table_and_deinit_restarts_the_handles) {
    recorder events;
    g_netip_clients[77].in_use.store(1);
    g_netip_clients[10999].in_use.store(1);
    {
        running_netip netip(events);
        EXPECT_FALSE(is_in_use(77));
        EXPECT_FALSE(is_in_use(10999));
        tcp_client client;
        ASSERT_TRUE(events.wait_connects(1));
        EXPECT_EQ(1u, g_last_handle);
    }
    EXPECT_EQ(0u, g_last_handle);
    EXPECT_EQ(nullptr, g_netip_cb.load());
    EXPECT_EQ(nullptr, g_netip_cb_arg.load());
    EXPECT_EQ(-1, g_netip_udp);
    EXPECT_EQ(-1, g_netip_tcp_listen);
    EXPECT_EQ(-1, netip_epoll_fd);
}

TEST(netip_lifecycle, deinit_tells_about_every_connection_and_closes_it) {
    recorder events([](const event &) { return 0; });  // the answer does not matter here
    std::vector<tcp_client> clients;
    {
        running_netip netip(events);
        for (int i = 0; i < 5; ++i) clients.emplace_back();
        ASSERT_TRUE(events.wait_connects(5));
    }
    const std::vector<event> gone = events.events(NETIP_EVENT_DISCONNECT);
    ASSERT_EQ(5u, gone.size());
    for (uint32_t i = 0; i < 5; ++i) {
        EXPECT_EQ(i, gone[i].handle);
        EXPECT_EQ(2u, gone[i].reason);
        EXPECT_FALSE(is_in_use(i));
    }
    for (tcp_client &client : clients) EXPECT_TRUE(client.at_end());
}

TEST(netip_lifecycle, deinit_is_harmless_twice_and_without_init) {
    netip_deinit();
    recorder events;
    ASSERT_EQ(0, init(events));
    netip_deinit();
    netip_deinit();
    ASSERT_EQ(0, init(events));
    netip_deinit();
}

TEST(netip_lifecycle, calls_after_deinit_are_refused) {
    recorder events;
    {
        running_netip netip(events);
        tcp_client client;
        ASSERT_TRUE(events.wait_connects(1));
    }
    const bytes data = hex("D0 00");
    EXPECT_EQ(6, netip_send(0, data.data(), 2));
    netip_close(0);
    EXPECT_EQ(0, netip_get_client_port(0));
    EXPECT_EQ(1u, events.count(NETIP_EVENT_DISCONNECT));
}

TEST(netip_lifecycle, deinit_inside_a_callback_is_refused_with_an_error) {
    for (const uint32_t kind : {NETIP_EVENT_CONNECT, NETIP_EVENT_DATA, NETIP_EVENT_DISCONNECT}) {
        std::atomic<bool> tried{false};
        log_capture log(AGENT_LOG_ERROR);
        recorder events([&](const event &e) {
            if (e.kind != kind) return 1;
            EXPECT_TRUE(netip_in_callback());
            netip_deinit();
            EXPECT_EQ(3, netip_init(recorder::on_event, nullptr, 1));
            tried = true;
            return 1;
        });
        running_netip netip(events);
        tcp_client client;
        ASSERT_TRUE(client.send("C0 00"));
        ASSERT_TRUE(events.wait_data(1));
        client.close();
        ASSERT_TRUE(events.wait_disconnects(1));
        ASSERT_TRUE(eventually([&] { return tried.load(); }));
        EXPECT_EQ(1, g_netip_running.load());
        EXPECT_FALSE(netip_in_callback());
        EXPECT_TRUE(log.has("ERROR", "[NETIP] netip_deinit 不能在事件回调中调用")) << log.text();
    }
}

TEST(netip_lifecycle, a_hundred_lives_leave_no_descriptor_and_no_thread) {
    recorder events;
    const size_t descriptors = open_descriptors();
    const size_t threads = running_threads();
    for (int i = 0; i < 100; ++i) {
        tcp_client client(tcp_client::unconnected{});
        ASSERT_EQ(0, init(events, 1 + i % 3));
        client.connect();
        ASSERT_TRUE(client.send("C0 00"));
        ASSERT_TRUE(events.wait_data(static_cast<size_t>(i) + 1));
        netip_deinit();
    }
    EXPECT_EQ(descriptors, open_descriptors());
    EXPECT_TRUE(eventually([=] { return running_threads() == threads; }));
    EXPECT_EQ(100u, events.count(NETIP_EVENT_CONNECT));
    EXPECT_EQ(100u, events.count(NETIP_EVENT_DISCONNECT));
}

TEST(netip_lifecycle, an_idle_table_takes_no_memory) {
    const auto resident_pages = [] {
        const size_t page = 4096;
        std::vector<unsigned char> resident(sizeof g_netip_clients / page + 1);
        EXPECT_EQ(0, mincore(g_netip_clients, sizeof g_netip_clients, resident.data()));
        size_t count = 0;
        for (const unsigned char flags : resident) count += flags & 1;
        return count;
    };
    recorder events;
    for (netip_conn &conn : g_netip_clients) conn.last_active_ms.store(1);
    ASSERT_GE(resident_pages(), 11000u);
    running_netip netip(events);
    EXPECT_LE(resident_pages(), 2u);
    tcp_client client;
    ASSERT_TRUE(client.send("C0 00"));
    ASSERT_TRUE(events.wait_data(1));
    EXPECT_LE(resident_pages(), 4u);
}
