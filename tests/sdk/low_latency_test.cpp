// The low-latency option in a whole broker whose beats never come: sleeps of 10 ms or more last until the
// test ends.
#include <time.h>

#include <atomic>

#include "log/platform_time.h"
#include "tests/sdk/sdk_fixture.h"

namespace {

using zeb_test::broker;
using zeb_test::bytes;
using zeb_test::dump;
using zeb_test::hex;
using zeb_test::mqtt_peer;

class endless_beats {
  public:
    endless_beats() {
        s_ended = false;
        zeb::platform_set_clock(&k_clock);
    }
    ~endless_beats() { end(); }
    endless_beats(const endless_beats &) = delete;
    endless_beats &operator=(const endless_beats &) = delete;

    static void end() {
        s_ended = true;
        zeb::platform_set_clock(nullptr);
    }

  private:
    static void sleep_us(uint64_t us) {
        constexpr uint64_t k_beat_us = 10000;
        const timespec span{0, 1000000};
        for (uint64_t left = us; (left > 0 || us >= k_beat_us) && !s_ended;
             left -= std::min<uint64_t>(left, 1000))
            nanosleep(&span, nullptr);
    }
    static inline std::atomic<bool> s_ended{false};
    static constexpr zeb::platform_clock k_clock{nullptr, nullptr, sleep_us};
};

class sdk_low_latency : public testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(zeb_sdk_mqtt_broker_set_option(b_.get(), MQTT_BROKER_OPTION_LOW_LATENCY, 1), 0);
        ASSERT_EQ(b_.start(200), 0);
    }
    void TearDown() override { endless_beats::end(); }

    broker b_;
    endless_beats beats_;  // from here on; the broker's destructor runs after it has ended
};

TEST_F(sdk_low_latency, a_whole_exchange_needs_no_beat) {
    mqtt_peer subscriber("subscriber");  // CONNACK
    ASSERT_TRUE(subscriber.send("82 06 00 01 00 01 't' 01"));
    EXPECT_EQ(dump(subscriber.read()), dump(hex("90 03 00 01 01")));
    mqtt_peer publisher("publisher");
    ASSERT_TRUE(publisher.send("32 07 00 01 't' 00 05 FF 01"));
    EXPECT_EQ(dump(publisher.read()), dump(hex("40 02 00 05")));
    const bytes got = subscriber.read();
    ASSERT_EQ(got.size(), 9u) << dump(got);
    EXPECT_EQ(dump(bytes(got.begin(), got.begin() + 5)), dump(hex("32 07 00 01 't'")));
    EXPECT_EQ(dump(bytes(got.begin() + 7, got.end())), dump(hex("FF 01")));
    EXPECT_TRUE(publisher.is_served());
}

TEST_F(sdk_low_latency, a_callback_that_publishes_needs_no_beat) {
    zeb_sdk_mqtt_broker_register_event_callback(
        b_.get(), [](mqtt_broker_instance *b, uint32_t event, const char *) {
            const uint8_t payload[] = {0xFF};
            if (event == MQTT_BROKER_EVENT_SUBSCRIBE)
                zeb_sdk_mqtt_broker_publish(b, "t", payload, 1, 0, 0, 0);
            return 0;
        });
    mqtt_peer subscriber("subscriber");
    ASSERT_TRUE(subscriber.send("82 06 00 01 00 01 't' 00"));
    EXPECT_EQ(dump(subscriber.read()), dump(hex("30 04 00 01 't' FF")));
    EXPECT_EQ(dump(subscriber.read()), dump(hex("90 03 00 01 00")));
}

TEST(sdk_exact_lookup, a_kicked_connection_takes_its_subscriptions_with_it_and_the_older_is_found) {
    broker b;
    ASSERT_EQ(zeb_sdk_mqtt_broker_set_option(b.get(), MQTT_BROKER_OPTION_EXACT_LOOKUP, 1), 0);
    ASSERT_EQ(b.start(200), 0);
    mqtt_peer older("same");
    mqtt_peer newer("same");
    ASSERT_TRUE(newer.send("82 06 00 01 00 01 't' 00"));
    EXPECT_EQ(dump(newer.read()), dump(hex("90 03 00 01 00")));
    ASSERT_EQ(zeb_sdk_mqtt_broker_kick_client(b.get(), "same"), 0);
    const uint8_t payload[] = {0xFF};
    EXPECT_EQ(zeb_sdk_mqtt_broker_publish(b.get(), "t", payload, 1, 0, 0, 0), 0);
    EXPECT_TRUE(older.is_served()) << "the next packet is the answer to its ping";
    mqtt_broker_client_info info;
    EXPECT_EQ(zeb_sdk_mqtt_broker_get_client_info(b.get(), "same", &info), 0);
    EXPECT_EQ(b.online(), 1);
}

}  // namespace
