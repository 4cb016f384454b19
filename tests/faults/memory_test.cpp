// Every single request for memory of whole lives and of whole conversations is refused in turn: alone, and
// with all that follow. The broker may refuse and lose things then, but it must neither crash nor keep half a
// client, and with memory back it does everything again and has lost no block.
#include <algorithm>
#include <filesystem>

#include "client/client_mgr.h"
#include "sub/sub_mgr.h"
#include "tests/faults/embedded.h"
#include "tests/faults/failing_memory.h"
#include "tests/faults/quick_clock.h"
#include "tests/faults/scripted_client.h"

namespace {

using zeb_test::bytes;
using zeb_test::connect_options;
using zeb_test::connect_packet;
using zeb_test::embedded;
using zeb_test::eventually;
using zeb_test::g_memory;
using zeb_test::hex;
using zeb_test::mqtt_packet;
using zeb_test::mqtt_peer;
using zeb_test::open_descriptors;
using zeb_test::put_text;
using zeb_test::running_threads;
using zeb_test::scripted_client;
using zeb_test::settle;
using zeb_test::subscribe_packet;
namespace fs = std::filesystem;

const bytes k_disconnect{0xE0, 0};

// A publication at level 4 or, with an empty property block, at level 5.
bytes publication(int level, const std::string &topic, const std::string &payload, uint8_t qos, uint16_t id,
                  bool retain = false) {
    bytes body;
    put_text(&body, topic);
    if (qos != 0) body.insert(body.end(), {static_cast<uint8_t>(id >> 8), static_cast<uint8_t>(id)});
    if (level == 5) body.push_back(0);
    body.insert(body.end(), payload.begin(), payload.end());
    return mqtt_packet(static_cast<uint8_t>(0x30 | qos << 1 | (retain ? 1 : 0)), body);
}

bytes subscription_v5(uint16_t id, const std::string &filter, uint8_t qos) {
    bytes body{static_cast<uint8_t>(id >> 8), static_cast<uint8_t>(id), 0};
    put_text(&body, filter);
    body.push_back(qos);
    return mqtt_packet(0x82, body);
}

connect_options options_of(int level, bool clean, const char *will_topic = "") {
    connect_options options;
    options.level = static_cast<uint8_t>(level);
    options.clean = clean;
    options.will_topic = will_topic;
    options.will_payload =
        "\xff"
        "gone";
    return options;
}

// Lets the second pass after which messages are sent for the first time, or once more.
void send_again(zeb_test::quick_clock *clock) {
    constexpr uint64_t k_retry_ms = 1100;
    const uint64_t scans = clock->qos_scans();
    clock->advance_mono_ms(k_retry_ms);
    EXPECT_TRUE(eventually([=] { return clock->qos_scans() >= scans + 2; }));
}

// Three clients that do everything a client can do. Nothing in it waits for what a broker without memory may
// leave out.
class conversation {
  public:
    conversation(embedded *broker, zeb_test::quick_clock *clock)
        : broker_(broker), clock_(clock), witness_("witness") {
        EXPECT_TRUE(witness_.is_served());  // the queue for its answers exists from now on
    }

    void run() {
        for (scripted_client *client : everybody()) client->forget();
        connect_all();
        publish_all();
        meet_again();
        part();
    }

    // What each of them has received.
    std::vector<std::string> transcript() {
        std::vector<std::string> all;
        for (scripted_client *client : everybody()) {
            all.emplace_back("--");
            all.insert(all.end(), client->received().begin(), client->received().end());
        }
        return all;
    }

    // Ends what it has left, stored things included, and finds nothing of it.
    void clean_up() {
        for (scripted_client *client : everybody()) client->reset();
        settle();
        for (const char *id : {"keeper", "listener", "speaker"}) mqtt_peer(id).send(k_disconnect);
        for (const char *topic : {"m/kept", "m/app"})
            (void)zeb_sdk_mqtt_broker_clear_retain(broker_->get(), topic);  // there may be none
        EXPECT_TRUE(eventually([] { return zeb::g_client_mgr.client_count == 1; }))
            << "records: " << zeb::g_client_mgr.client_count;
        EXPECT_EQ(broker_->text_of(zeb_sdk_mqtt_broker_get_client_id_list), "witness");
        EXPECT_EQ(broker_->text_of(zeb_sdk_mqtt_broker_get_retain_topic_list), "");
        EXPECT_EQ(zeb::g_sub_mgr.sub_count, 0);
    }

    // Nobody is known by half: who is listed is described, and who was accepted and not closed is listed.
    void expect_whole_clients() {
        const std::string ids = "," + broker_->text_of(zeb_sdk_mqtt_broker_get_client_id_list) + ",";
        mqtt_broker_client_info info;
        for (const auto &[name, client] : {std::pair{"keeper", &keeper_},
                                           {"listener", &listener_},
                                           {"speaker", &speaker_},
                                           {"witness", static_cast<scripted_client *>(nullptr)}}) {
            const bool listed = ids.find("," + std::string(name) + ",") != std::string::npos;
            const int result = zeb_sdk_mqtt_broker_get_client_info(broker_->get(), name, &info);
            EXPECT_EQ(result, listed ? 0 : MQTT_BROKER_ERR_NOT_FOUND) << name << " of " << ids;
            if (listed) {
                EXPECT_EQ(info.online, 1) << name;
            }
            const bool accepted = client == nullptr || (client->is_open() && client->was_accepted());
            EXPECT_TRUE(listed || !accepted) << name << " of " << ids;
        }
        EXPECT_TRUE(witness_.is_served());
    }

  private:
    void settle() { zeb_test::settle(&witness_, everybody()); }
    void say(scripted_client *client, const bytes &packet) {
        client->send(packet);
        settle();
    }
    void connect(scripted_client *client, const bytes &packet) {
        client->open();
        say(client, packet);
    }

    void connect_all() {
        connect(&keeper_, connect_packet("keeper", options_of(4, false)));
        say(&keeper_, subscribe_packet(1, "m/#", 2));
        say(&keeper_, subscribe_packet(2, "w/#", 1));
        connect(&listener_, connect_packet("listener", options_of(5, true)));
        say(&listener_, subscription_v5(1, "m/+", 1));
        say(&listener_, subscription_v5(2, "$share/g/m/+", 0));
        connect(&speaker_, connect_packet("speaker", options_of(5, true, "w/speaker")));
    }
    void publish_all() {
        for (uint8_t qos = 0; qos <= 2; ++qos)
            say(&speaker_, publication(5, "m/a", "hello", qos, static_cast<uint16_t>(10 + qos)));
        say(&speaker_, publication(5, "m/kept", "kept", 1, 20, true));
        say(&listener_, subscription_v5(3, "m/kept", 1));
        const auto *payload = reinterpret_cast<const uint8_t *>("app");
        EXPECT_EQ(zeb_sdk_mqtt_broker_publish(broker_->get(), "m/app", payload, 3, 2, 1, 0), 0);
        settle();
    }
    void meet_again() {
        say(&keeper_, k_disconnect);
        keeper_.close();
        say(&speaker_, publication(5, "m/missed", "one", 1, 30));
        say(&speaker_, publication(5, "m/missed", "two", 2, 31));
        connect(&keeper_, connect_packet("keeper", options_of(4, false)));
        send_again(clock_);  // what it has missed
        settle();
        say(&keeper_, mqtt_packet(0xA2, hex("00 09 00 02 'no'")));
        say(&keeper_, publication(4, "m/own", "\xff", 0, 0));
    }
    void part() {
        speaker_.reset();
        settle();
        (void)zeb_sdk_mqtt_broker_kick_client(broker_->get(), "listener");  // it may not be there
        settle();
    }

    std::vector<scripted_client *> everybody() { return {&keeper_, &listener_, &speaker_}; }

    embedded *broker_;
    zeb_test::quick_clock *clock_;
    mqtt_peer witness_;
    scripted_client keeper_;
    scripted_client listener_;
    scripted_client speaker_;
};

class faults_memory : public testing::Test {
  protected:
    void TearDown() override { g_memory.disarm(); }

    // Every packet of a conversation. Sorted: on a busy machine a repetition comes before or behind its
    // neighbours.
    static std::vector<std::string> whole(conversation *talk) {
        talk->run();
        std::vector<std::string> got = talk->transcript();
        talk->clean_up();
        std::sort(got.begin(), got.end());
        return got;
    }

    // As two conversations in a row had it.
    static std::vector<std::string> settled(conversation *talk) {
        std::vector<std::string> first = whole(talk);
        for (int again = 0; again < 5; ++again) {
            std::vector<std::string> next = whole(talk);
            if (next == first) break;
            first.swap(next);
        }
        return first;
    }

    void refuse_each_request_of_a_conversation(bool for_good) {
        embedded broker;
        ASSERT_EQ(broker.open("./talk"), 0);
        conversation talk(&broker, &clock_);
        (void)whole(&talk);  // what is kept for the life of the process is there from now on
        const std::vector<std::string> expected = settled(&talk);
        ASSERT_GE(expected.size(), 30u);
        const int blocks = g_memory.live();
        const size_t descriptors = open_descriptors();
        int requests = INT_MAX;
        int passing = 0;
        for (; requests >= passing && !HasFailure(); ++passing) {
            SCOPED_TRACE("request " + std::to_string(passing));
            g_memory.arm(passing, for_good);
            talk.run();
            talk.expect_whole_clients();
            requests = g_memory.disarm();
            talk.clean_up();
            std::vector<std::string> got;
            // On a busy machine one more repetition may slip in, but not again and again.
            for (int again = 0; again < 3 && got != expected; ++again) got = whole(&talk);
            EXPECT_EQ(got, expected);
            EXPECT_EQ(g_memory.live(), blocks);
            EXPECT_EQ(open_descriptors(), descriptors);
        }
        EXPECT_GE(passing, 20);
        RecordProperty("refused", passing - 1);
    }

    zeb_test::quick_clock clock_;
};

TEST_F(faults_memory, each_refused_request_of_a_conversation_is_survived) {
    refuse_each_request_of_a_conversation(false);
}

TEST_F(faults_memory, a_conversation_that_loses_all_memory_under_way_is_survived) {
    refuse_each_request_of_a_conversation(true);
}

// A life over stored sessions, messages and retained topics, from create to destroy.
class faults_memory_of_a_life : public faults_memory {
  protected:
    void SetUp() override {
        fs::remove_all("./stored");
        embedded broker;
        ASSERT_EQ(broker.open("./stored"), 0);
        mqtt_peer keeper("keeper", options_of(4, false));
        keeper.subscribe("m", 1);
        keeper.send(k_disconnect);
        ASSERT_TRUE(keeper.at_end());
        mqtt_peer speaker("speaker");
        speaker.send(publication(4, "m", "\xff", 1, 1, true));
        ASSERT_EQ(speaker.read(), hex("40 02 00 01"));
    }

    // Everything that was stored is there.
    void live_whole(const char *directory) {
        embedded broker;
        ASSERT_EQ(broker.open(directory), 0);
        EXPECT_EQ(broker.text_of(zeb_sdk_mqtt_broker_get_retain_topic_list), "m\n");
        mqtt_peer keeper;
        keeper.send(connect_packet("keeper", options_of(4, false)));
        EXPECT_EQ(zeb_test::dump(keeper.read()), "20 02 01 00");
        EXPECT_EQ(zeb_test::dump(keeper.read()).substr(0, 14), "33 06 00 01 6D") << "retained";
        EXPECT_TRUE(keeper.is_served());
        send_again(&clock_);
        EXPECT_EQ(zeb_test::dump(keeper.read()).substr(0, 14), "32 06 00 01 6D") << "missed";
        EXPECT_TRUE(keeper.is_served());
    }
    static void copy_stored() {
        fs::remove_all("./life");
        fs::copy("./stored", "./life", fs::copy_options::recursive);
    }

    void refuse_each_request_of_a_life(bool for_good) {
        copy_stored();
        live_whole("./life");
        const int blocks = g_memory.live();
        const size_t descriptors = open_descriptors();
        const size_t threads = running_threads();
        int requests = INT_MAX;
        int passing = 0;
        for (; requests >= passing && !HasFailure(); ++passing) {
            SCOPED_TRACE("request " + std::to_string(passing));
            copy_stored();
            {
                embedded broker;
                g_memory.arm(passing, for_good);
                const int result = broker.open("./life");
                EXPECT_TRUE(result == 0 || result == MQTT_BROKER_ERR_RESOURCE) << result;
                broker.close();
                requests = g_memory.disarm();
            }
            EXPECT_EQ(running_threads(), threads);
            EXPECT_EQ(open_descriptors(), descriptors);
            live_whole("./life");
            EXPECT_EQ(g_memory.live(), blocks);
        }
        EXPECT_GE(passing, 10);
        RecordProperty("refused", passing - 1);
    }
};

TEST_F(faults_memory_of_a_life, each_refused_request_is_survived_and_nothing_stored_is_lost) {
    refuse_each_request_of_a_life(false);
}

// A client comes back to its stored session while memory is short, and once more when there is enough. What
// it has missed may be lost: the list is cleared even when a message on it could not be taken over.
TEST_F(faults_memory_of_a_life, each_refused_request_of_a_return_costs_at_most_the_missed_messages) {
    int requests = INT_MAX;
    for (int passing = 0; requests >= passing && !HasFailure(); ++passing) {
        SCOPED_TRACE("request " + std::to_string(passing));
        copy_stored();
        embedded broker;
        ASSERT_EQ(broker.open("./life"), 0);
        mqtt_peer witness("witness");
        ASSERT_TRUE(witness.is_served());
        scripted_client keeper;
        const auto visit = [&] {
            keeper.open();
            keeper.send(connect_packet("keeper", options_of(4, false)));
            settle(&witness, {&keeper});
            send_again(&clock_);
            settle(&witness, {&keeper});
        };
        g_memory.arm(passing, false);
        visit();
        requests = g_memory.disarm();
        keeper.send(k_disconnect);
        settle(&witness, {&keeper});
        const std::vector<std::string> first = keeper.received();
        keeper.forget();
        visit();
        const std::vector<std::string> &second = keeper.received();
        EXPECT_EQ(std::count(second.begin(), second.end(), "20 02 01 00"), 1) << "a session is present";
        EXPECT_EQ(std::count(second.begin(), second.end(), "33 06 00 01 6D 00 00 FF"), 1) << "retained";
        const char *const missed = "32 06 00 01 6D 00 00 FF";
        const auto times =
            std::count(first.begin(), first.end(), missed) + std::count(second.begin(), second.end(), missed);
        EXPECT_LE(times, 2);
        if (passing >= requests) {
            EXPECT_EQ(times, 1) << "nothing was refused";
        }
    }
}

TEST_F(faults_memory_of_a_life, losing_all_memory_under_way_is_survived_and_nothing_stored_is_lost) {
    refuse_each_request_of_a_life(true);
}

}  // namespace
