// An embedding program that forks while its broker serves clients.
#include <fcntl.h>
#include <sys/wait.h>

#include <csignal>
#include <cstdlib>

#include "tests/faults/embedded.h"
#include "tests/faults/steady_client.h"

namespace {

using zeb_test::embedded;
using zeb_test::eventually;
using zeb_test::mqtt_peer;
using zeb_test::open_descriptors;
using zeb_test::running_threads;
using zeb_test::steady_client;

// A program that is started the way most are: fork, exec. It may do so as it likes with the first three.
pid_t run(const char *command, int output = -1) {
    const pid_t child = fork();
    if (child != 0) return child;
    if (output >= 0) dup2(output, STDOUT_FILENO);
    execl("/bin/sh", "sh", "-c", command, static_cast<char *>(nullptr));
    _exit(127);
}

int status_of(pid_t child) {
    int status = -1;
    EXPECT_TRUE(eventually([&] { return waitpid(child, &status, WNOHANG) == child; }));
    return status;
}

class faults_fork : public testing::Test {
  protected:
    void SetUp() override {
        before = descriptors_of_a_program();
        ASSERT_EQ(broker.open("./data"), 0);
    }

    static std::string descriptors_of_a_program() {
        int ends[2];
        EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0);
        const pid_t child = run("for fd in /proc/$$/fd/*; do readlink $fd; done; true", ends[1]);
        close(ends[1]);
        std::string text;
        char chunk[512];
        for (ssize_t got = 0; (got = read(ends[0], chunk, sizeof chunk)) > 0;)
            text.append(chunk, static_cast<size_t>(got));
        close(ends[0]);
        EXPECT_EQ(status_of(child), 0);
        // The number of a pipe or socket, in brackets, is another one each time.
        for (size_t open = 0; (open = text.find('[', open)) != std::string::npos;)
            text.erase(open, text.find(']', open) + 1 - open);
        return text;
    }

    std::string before;
    embedded broker;
};

TEST_F(faults_fork, a_program_that_is_started_inherits_no_descriptor) {
    mqtt_peer client("client");
    mqtt_peer silent;
    EXPECT_TRUE(client.is_served());
    EXPECT_EQ(descriptors_of_a_program(), before);
    EXPECT_NE(before.find("pipe"), std::string::npos) << before;
}

TEST_F(faults_fork, a_program_that_runs_on_keeps_neither_port_nor_connections) {
    auto client = std::make_unique<mqtt_peer>("client");
    EXPECT_TRUE(client->is_served());
    const pid_t child = run("exec sleep 60");
    EXPECT_TRUE(eventually([=] {
        std::ifstream name("/proc/" + std::to_string(child) + "/comm");
        std::string text;
        return std::getline(name, text) && text == "sleep";
    }));
    broker.close();
    EXPECT_TRUE(client->at_end()) << "nobody else has the connection open";
    EXPECT_EQ(broker.open("./data"), 0) << "nobody else has the port";
    EXPECT_TRUE(mqtt_peer("client").is_served());
    kill(child, SIGKILL);
    EXPECT_EQ(status_of(child), SIGKILL);
}

TEST_F(faults_fork, a_child_that_ends_at_once_leaves_the_broker_alone) {
    mqtt_peer client("client");
    client.subscribe("t", 1);
    const size_t threads = running_threads();
    const size_t descriptors = open_descriptors();
    const uint8_t payload = 0xFF;
    for (int round = 0; round < 20; ++round) {
        const pid_t child = fork();
        if (child == 0) _exit(running_threads() == 1 ? 0 : 1);
        EXPECT_EQ(zeb_sdk_mqtt_broker_publish(broker.get(), "t", &payload, 1, 1, 0, 0), 0);
        const zeb_test::bytes got = client.read();
        ASSERT_EQ(got.size(), 8u) << zeb_test::dump(got);
        client.send({0x40, 2, got[5], got[6]});
        EXPECT_EQ(status_of(child), 0);
        EXPECT_TRUE(client.is_served());
    }
    EXPECT_EQ(running_threads(), threads);
    EXPECT_EQ(open_descriptors(), descriptors);
    EXPECT_EQ(zeb_sdk_mqtt_broker_get_online_count(broker.get()), 1);
}

// A leak checker in the child would take what the threads that are gone there held for lost.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
TEST_F(faults_fork, a_child_that_ends_by_exit_neither_hangs_nor_harms) {
    mqtt_peer client("client");
    for (int round = 0; round < 20; ++round) {
        const pid_t child = fork();
        if (child == 0) exit(7);
        EXPECT_EQ(WEXITSTATUS(status_of(child)), 7);
        EXPECT_TRUE(client.is_served());
    }
}
#endif

TEST_F(faults_fork, forks_under_load_lose_nothing) {
    std::atomic<bool> over{false};
    std::atomic<int> rounds{0};
    std::vector<std::thread> clients;
    for (int i = 0; i < 3; ++i) {
        clients.emplace_back([&, i] {
            steady_client client("client-" + std::to_string(i));
            EXPECT_TRUE(client.was_accepted());
            const zeb_test::bytes publication = zeb_test::publish_packet("t", {0xFF}, 1, 9);
            for (; !over; ++rounds) {
                EXPECT_TRUE(client.send(publication));
                EXPECT_EQ(client.read(), (zeb_test::bytes{0x40, 2, 0, 9}));
            }
        });
    }
    for (int round = 0; round < 50; ++round) {
        const pid_t child = round % 2 == 0 ? run("exit 0") : fork();
        if (child == 0) _exit(0);
        EXPECT_EQ(status_of(child), 0);
    }
    EXPECT_TRUE(eventually([&] { return rounds >= 30; }));
    over = true;
    for (std::thread &client : clients) client.join();
    EXPECT_EQ(WEXITSTATUS(std::system("exit 3")), 3);
}

// Its exit handlers and destructors run, while the threads of the broker exist in the parent alone.
TEST(faults_fork_with_low_latency, a_child_may_exit_the_ordinary_way) {
    embedded broker;
    ASSERT_EQ(broker.open("./data-prompt", {.connect_timeout_s = 0, .max_clients = 100, .low_latency = true}),
              0);
    for (int i = 0; i < 10; ++i) {
        const pid_t child = fork();
        if (child == 0) exit(0);
        int status = -1;
        const bool ended = eventually([&] { return waitpid(child, &status, WNOHANG) == child; });
        if (!ended) kill(child, SIGKILL);
        ASSERT_TRUE(ended) << "child " << i;
        EXPECT_EQ(status, 0);
    }
    EXPECT_TRUE(mqtt_peer("after").is_served());
}

}  // namespace
