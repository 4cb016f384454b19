// An embedding program under a storm of signals, with handlers that interrupt its own system calls. The
// threads of the library neither run the handlers nor notice.
#include <fcntl.h>
#include <sched.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/wait.h>

#include <csignal>
#include <cstdlib>

#include "stats/mqtt_stats.h"
#include "tests/faults/embedded.h"
#include "tests/faults/steady_client.h"
#include "tests/support/log_capture.h"

extern char **environ;

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;
using zeb_test::bytes;
using zeb_test::embedded;
using zeb_test::steady_client;

constexpr int k_threads = 4;
constexpr int k_signals[] = {SIGALRM, SIGCHLD, SIGPIPE, SIGUSR1, SIGHUP};

std::atomic<pid_t> g_application[k_threads + 2];  // the program's own threads, the main one first
std::atomic<int> g_handled{0};
std::atomic<int> g_handled_elsewhere{0};
std::atomic<int> g_pipes{0};

pid_t thread_id() {
    return static_cast<pid_t>(syscall(SYS_gettid));
}

void on_signal(int number) {
    const int saved = errno;
    const pid_t self = thread_id();
    bool ours = false;
    for (const std::atomic<pid_t> &thread : g_application) ours |= thread.load() == self;
    ++g_handled;
    if (!ours) ++g_handled_elsewhere;
    if (number == SIGPIPE) ++g_pipes;
    errno = saved;
}

// The handlers, a timer that fires every millisecond, and the way it was before.
class storm {
  public:
    storm() {
        struct sigaction action {};
        action.sa_handler = on_signal;  // no SA_RESTART: what is interrupted says so
        sigemptyset(&action.sa_mask);
        for (size_t i = 0; i < std::size(k_signals); ++i)
            EXPECT_EQ(sigaction(k_signals[i], &action, &before_[i]), 0);
        g_handled = g_handled_elsewhere = g_pipes = 0;
        for (std::atomic<pid_t> &thread : g_application) thread = 0;
        g_application[0] = thread_id();
    }
    void rise() {
        const itimerval every{{0, 1000}, {0, 1000}};
        EXPECT_EQ(setitimer(ITIMER_REAL, &every, nullptr), 0);
    }
    ~storm() {
        const itimerval never{};
        EXPECT_EQ(setitimer(ITIMER_REAL, &never, nullptr), 0);
        for (size_t i = 0; i < std::size(k_signals); ++i) sigaction(k_signals[i], &before_[i], nullptr);
    }

  private:
    struct sigaction before_[std::size(k_signals)]{};
};

// One more thread of the program. It is known by its number before the first signal can reach it.
template <typename Body>
std::thread application_thread(int place, Body body) {
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    std::thread thread([=] {
        g_application[place] = thread_id();
        pthread_sigmask(SIG_SETMASK, &before, nullptr);
        body();
    });
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return thread;
}

void spawn_child() {
    char program[] = "/bin/true";
    char *arguments[] = {program, nullptr};
    pid_t child = 0;
    if (posix_spawn(&child, program, nullptr, nullptr, arguments, environ) != 0) return;
    while (waitpid(child, nullptr, 0) < 0 && errno == EINTR) {
    }
}

// Signals to the whole process, which the kernel hands to any thread that does not block them.
void blow(const std::atomic<bool> &over) {
    int broken[2];
    EXPECT_EQ(pipe2(broken, O_CLOEXEC), 0);
    close(broken[0]);
    for (int round = 0; !over.load(); ++round) {
        for (const int number : k_signals)
            if (number != SIGPIPE) kill(getpid(), number);
        (void)!write(broken[1], "x", 1);  // raises SIGPIPE in this very thread
        if (round % 50 == 0) spawn_child();
        sched_yield();
    }
    close(broken[1]);
}

// A conversation of one client with itself through the application, until the time is up.
int converse(mqtt_broker_instance *b, int number, steady_clock::time_point end) {
    steady_client client("client-" + std::to_string(number));
    EXPECT_TRUE(client.was_accepted());
    const std::string topic = "t/" + std::to_string(number);
    EXPECT_TRUE(client.send(zeb_test::subscribe_packet(1, topic, 1)));
    EXPECT_EQ(client.read(), (bytes{0x90, 3, 0, 1, 1}));
    int rounds = 0;
    for (; steady_clock::now() < end && !testing::Test::HasFailure(); ++rounds) {
        const uint8_t payload = 0xFF;
        const int retain = rounds % 20 == 0 ? 1 : 0;
        EXPECT_EQ(zeb_sdk_mqtt_broker_publish(b, topic.c_str(), &payload, 1, 1, retain, 0), 0);
        const bytes got = client.read();
        EXPECT_EQ(got.size(), 10u) << zeb_test::dump(got);
        if (got.size() != 10u) break;
        EXPECT_TRUE(client.send({0x40, 2, got[7], got[8]}));
        EXPECT_TRUE(client.is_served());
        steady_client("visitor-" + std::to_string(number)).send({0xE0, 0});
    }
    return rounds;
}

TEST(faults_signals, a_storm_of_signals_stays_with_the_programs_own_threads) {
    storm signals;
    embedded broker;
    ASSERT_EQ(broker.open("./data"), 0);
    std::atomic<bool> over{false};
    std::atomic<int> rounds{0};
    std::thread wind = application_thread(1, [&over] { blow(over); });
    signals.rise();
    const auto end = steady_clock::now() + milliseconds(3000);
    std::vector<std::thread> clients;
    for (int i = 0; i < k_threads; ++i) {
        clients.push_back(application_thread(
            2 + i, [&rounds, &broker, i, end] { rounds += converse(broker.get(), i, end); }));
    }
    for (std::thread &client : clients) client.join();
    over = true;
    wind.join();
    EXPECT_GE(rounds, k_threads * 10);
    EXPECT_GE(g_handled, 1000);
    EXPECT_GE(g_pipes, 10);
    EXPECT_EQ(zeb::g_mqtt_stats.drop_send_failed, 0u);
    EXPECT_EQ(zeb::g_mqtt_stats.parse_error, 0u);
    broker.close();
    EXPECT_EQ(g_handled_elsewhere, 0);
}

// Peers that vanish while the broker sends to them: each is one more write to a broken connection.
TEST(faults_signals, a_connection_that_breaks_raises_no_signal) {
    storm signals;
    embedded broker;
    ASSERT_EQ(broker.open("./data"), 0);
    const uint8_t payload[1000] = {0xFF};
    for (int round = 0; round < 50; ++round) {
        zeb_test::mqtt_peer vanishing("vanishing");
        vanishing.subscribe("t");
        for (int i = 0; i < 20; ++i)
            EXPECT_EQ(zeb_sdk_mqtt_broker_publish(broker.get(), "t", payload, sizeof payload, 0, 0, 0), 0);
        vanishing.reset();
    }
    EXPECT_TRUE(zeb_test::mqtt_peer("served").is_served());
    broker.close();
    EXPECT_EQ(g_handled, 0);
}

TEST(faults_signals, whole_lives_pass_in_a_storm) {
    storm signals;
    signals.rise();
    std::atomic<bool> over{false};
    std::thread wind = application_thread(1, [&over] { blow(over); });
    for (int life = 0; life < 10; ++life) {
        embedded broker;
        EXPECT_EQ(broker.open("./data"), 0) << life;
        steady_client client("client");
        EXPECT_TRUE(client.was_accepted() && client.is_served()) << life;
    }
    over = true;
    wind.join();
    EXPECT_EQ(g_handled_elsewhere, 0);
    EXPECT_GE(g_handled, 100);
}

}  // namespace
