// What a client has missed, from the files on disk to its connection.
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <set>

#include "persist/persist.h"
#include "qos/qos_queue.h"
#include "tests/packet/packet_fixture.h"

namespace zeb_test {

// Runs once, between a load of the replay and its end.
std::function<void()> g_between;

}  // namespace zeb_test

extern "C" {

int __real__ZN3zeb21persist_finish_replayEPKNS_15persist_sessionE(const zeb::persist_session *replayed);

int __wrap__ZN3zeb21persist_finish_replayEPKNS_15persist_sessionE(const zeb::persist_session *replayed) {
    std::function<void()> between;
    between.swap(zeb_test::g_between);
    if (between) between();
    return __real__ZN3zeb21persist_finish_replayEPKNS_15persist_sessionE(replayed);
}

}  // extern "C"

namespace {

namespace fs = std::filesystem;
using namespace zeb_test;

class packet_replay_files : public packet_fixture {
  protected:
    using mqtt_client = zeb::mqtt_client;

    packet_replay_files() {
        fs::remove_all("data");
        EXPECT_EQ(0, zeb::persist_init("data"));
        g_between = nullptr;
    }
    ~packet_replay_files() override {
        zeb::persist_destroy();
        fs::remove_all("data");
    }

    static void miss(const std::string &payload, int qos = 1) {
        zeb::persist_add_offline_msg("x", "t", reinterpret_cast<const uint8_t *>(payload.data()),
                                     static_cast<int>(payload.size()), qos);
    }
    static std::string numbered(int i, std::size_t size) {
        std::string out = std::to_string(i);
        out.resize(size, '.');
        return out;
    }
    static std::string queue_file() {
        std::ifstream in("data/message/x.json", std::ios::binary);
        return {std::istreambuf_iterator<char>(in), {}};
    }
    mqtt_client *come_back() {
        mqtt_client *client = open();
        connect_options o;
        o.clean = false;
        give(client, connect_packet("x", o));
        EXPECT_EQ(just("20 02 01 00"), sent(client));
        return client;
    }
    // The payloads of all that comes, each acknowledged; a repetition would show as a second one.
    std::multiset<std::string> received(mqtt_client *client) {
        std::multiset<std::string> out;
        for (int scan = 0; scan < 10; ++scan) {
            clock.advance_ms(1001);
            zeb::qos_reliable_scan_queue();
            for (const std::string &line : sent(client)) {
                const bytes packet = hex(line);
                const std::size_t topic = packet[1] < 0x80 ? 2 : 3;
                const std::size_t id = topic + 2 + 1;
                out.emplace(packet.begin() + static_cast<std::ptrdiff_t>(id) + 2, packet.end());
                give(client, {0x40, 0x02, packet[id], packet[id + 1]});
            }
        }
        return out;
    }
    static std::multiset<std::string> all(int from, int to, std::size_t size) {
        std::multiset<std::string> out;
        for (int i = from; i <= to; ++i) out.insert(numbered(i, size));
        return out;
    }
    static constexpr char k_empty[] = R"({"msgs":[]})";
};

TEST_F(packet_replay_files, three_messages_are_one_load_and_one_write) {
    for (int i = 1; i <= 3; ++i) miss(numbered(i, 5));
    const uint64_t reads = zeb::g_mqtt_stats.persist_read.load();
    const uint64_t writes = zeb::g_mqtt_stats.persist_write.load();
    mqtt_client *client = nullptr;
    {
        log_capture log;
        client = come_back();
        EXPECT_TRUE(in_order(log.text(), {"[INFO] [packet_handler] 开始补发离线消息: x 共 3 条\n",
                                          "[DEBUG] [packet_handler] 已补发: msgid=",
                                          "[INFO] [packet_handler] 离线消息补发完成: x，已清空离线消息\n"}));
        EXPECT_EQ(log.text().find("开始补发"), log.text().rfind("开始补发"));
    }
    // Of the message file: once for the session, once for the replay.
    EXPECT_EQ(reads + 2, zeb::g_mqtt_stats.persist_read.load());
    EXPECT_EQ(writes + 1, zeb::g_mqtt_stats.persist_write.load());
    EXPECT_EQ(k_empty, queue_file());
    EXPECT_EQ(all(1, 3, 5), received(client));
}

TEST_F(packet_replay_files, all_100_messages_of_a_full_queue_arrive) {
    for (int i = 1; i <= 100; ++i) miss(numbered(i, 64));
    mqtt_client *client = come_back();
    EXPECT_EQ(k_empty, queue_file());
    EXPECT_EQ(all(1, 100, 64), received(client));
}

TEST_F(packet_replay_files, they_are_registered_in_stored_order) {
    for (int i = 1; i <= 100; ++i) miss(numbered(i, 64));
    (void)come_back();
    int expected = 100;  // newest first
    for (const zeb::qos_packet *node = zeb::g_pending_queue; node != nullptr; node = node->next, --expected)
        EXPECT_EQ(numbered(expected, 64),
                  std::string(reinterpret_cast<const char *>(node->payload), node->payload_len));
    EXPECT_EQ(0, expected);
}

TEST_F(packet_replay_files, a_message_that_comes_between_load_and_end_arrives) {
    for (int i = 1; i <= 3; ++i) miss(numbered(i, 5));
    g_between = [] { miss(numbered(4, 5)); };
    mqtt_client *client = come_back();
    EXPECT_EQ(k_empty, queue_file());
    EXPECT_EQ(all(1, 4, 5), received(client));
}

TEST_F(packet_replay_files, messages_that_newer_ones_push_out_meanwhile_cost_no_other) {
    for (int i = 1; i <= 100; ++i) miss(numbered(i, 1000));
    g_between = [] { miss(numbered(101, 1000)); };  // the load had room for the first one only
    (void)come_back();
    EXPECT_EQ(k_empty, queue_file());
    std::multiset<std::string> ids;
    for (const zeb::qos_packet *node = zeb::g_pending_queue; node != nullptr; node = node->next) {
        const std::string payload(reinterpret_cast<const char *>(node->payload), node->payload_len);
        ids.insert(payload.substr(0, payload.find('.')));
    }
    std::multiset<std::string> expected;
    for (int i = 1; i <= 101; ++i) expected.insert(std::to_string(i));
    EXPECT_EQ(expected, ids);
}

TEST_F(packet_replay_files, a_payload_that_is_cut_is_named) {
    miss(std::string(1000, 'p'));
    log_capture log;
    (void)come_back();
    ASSERT_NE(nullptr, zeb::g_pending_queue);
    const uint32_t len = zeb::g_pending_queue->payload_len;
    const std::string id = std::to_string(zeb::g_pending_queue->msg_id);
    EXPECT_EQ((1023 - 41 - id.size()) / 2, len);
    EXPECT_TRUE(log.has("WARN", "[persist] payload cut: client=x, msgid=" + id + ", " + std::to_string(len) +
                                    " of 1000 bytes"));
}

TEST_F(packet_replay_files, an_entry_that_no_load_can_give_arrives_once_the_file_is_rewritten) {
    miss("before");
    const std::string good = queue_file();
    std::ofstream("data/message/x.json", std::ios::binary)
        << good.substr(0, good.size() - 2) << R"(,{"filler":")" << std::string(5000, ' ')
        << R"(","msgid":3,"qos":1,"topic":"t","payload":"61"}]})";
    mqtt_client *client = come_back();
    EXPECT_EQ(k_empty, queue_file());
    EXPECT_EQ((std::multiset<std::string>{"a", "before"}), received(client));
}

TEST_F(packet_replay_files, a_queue_that_cannot_be_written_is_replayed_once) {
    for (int i = 1; i <= 100; ++i) miss(numbered(i, 64));
    const std::string before = queue_file();
    fs::create_directories("data/message/x.json.tmp/in the way");
    log_capture log;
    mqtt_client *client = come_back();
    EXPECT_EQ(before, queue_file());
    EXPECT_TRUE(log.has("ERROR", "[persist] 写入临时文件失败(重试3次): data/message/x.json.tmp"));
    const std::multiset<std::string> came = received(client);
    EXPECT_FALSE(came.empty());
    for (const std::string &payload : came) EXPECT_EQ(1u, came.count(payload));
}

TEST_F(packet_replay_files, a_full_queue_of_the_longest_payloads_is_one_write) {
    for (int i = 1; i <= 100; ++i) miss(numbered(i, 1024));
    const uint64_t writes = zeb::g_mqtt_stats.persist_write.load();
    log_capture log;
    (void)come_back();
    EXPECT_EQ(writes + 1, zeb::g_mqtt_stats.persist_write.load());
    EXPECT_EQ(100, zeb::qos_queue_all().count);
    EXPECT_TRUE(log.has("INFO", "[packet_handler] 开始补发离线消息: x 共 100 条"));
}

TEST_F(packet_replay_files, an_entry_that_reads_otherwise_than_it_stands_is_given_once) {
    // The load's limit for one message cuts the identifier behind the filler in two.
    const std::string tail = R"(","msgid":)";
    std::string entry = R"({"topic":"t","payload":"61","qos":1,"f":")";
    entry += std::string(1023 - entry.size() - tail.size() - 2, 'x') + tail + "12345";
    fs::create_directories("data/message");
    std::ofstream("data/message/x.json", std::ios::binary) << R"({"msgs":[)" << entry << "}]}";
    mqtt_client *client = come_back();
    EXPECT_EQ(k_empty, queue_file());
    EXPECT_EQ(1, zeb::qos_queue_all().count);
    EXPECT_EQ(std::multiset<std::string>{"a"}, received(client));
}

TEST_F(packet_replay_files, a_client_that_goes_meanwhile_finds_the_rest_when_it_returns) {
    mqtt_client *leaving = nullptr;
    for (int i = 1; i <= 3; ++i) miss(numbered(i, 5));
    connect_options o;
    o.clean = false;
    o.level = 5;
    o.properties = hex("11 00 00 01 2C 27 00 00 10 00");
    leaving = open();
    g_between = [&] {
        miss(numbered(4, 5));
        zeb::client_close(leaving);
    };
    give(leaving, connect_packet("x", o));
    EXPECT_NE(std::string::npos, queue_file().find(R"("payload":"342e2e2e2e")"));
    mqtt_client *client = come_back();
    EXPECT_EQ(k_empty, queue_file());
    EXPECT_EQ(all(4, 4, 5), received(client)) << "the first three went with the connection";
}

TEST_F(packet_replay_files, the_will_of_a_superseded_connection_leaves_the_files_alone) {
    const auto file = [] {
        std::ifstream in("data/subscription/x.json", std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(in), {});
    };
    connect_options kept;
    kept.clean = false;
    connect_options willing = kept;
    willing.will = true;
    for (const bool clean_successor : {false, true}) {
        mqtt_client *older = open();
        give(older, connect_packet("x", willing));
        give(older, subscribe_packet(1, {{"f/1", 1}}));
        mqtt_client *newer = open();
        connect_options options = kept;
        options.clean = clean_successor;
        give(newer, connect_packet("x", options));
        if (!clean_successor) give(newer, subscribe_packet(2, {{"f/2", 1}}));
        const std::string before = file();
        EXPECT_EQ(clean_successor, before.empty());
        zeb::client_close(older);
        EXPECT_EQ(before, file());
        zeb::client_close(newer);
    }
}

TEST_F(packet_replay_files, a_session_that_ends_meanwhile_leaves_no_file) {
    miss("one");
    g_between = [] { EXPECT_EQ(0, zeb::persist_remove("x")); };
    (void)come_back();
    EXPECT_FALSE(fs::exists("data/message/x.json"));
}

}  // namespace
