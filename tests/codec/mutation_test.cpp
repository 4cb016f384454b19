#include <random>

#include "tests/codec/codec_test.h"

using namespace zeb_test;

namespace {

constexpr uint32_t k_seed = 20240611;
constexpr int k_packets = 200000;
constexpr int k_traced_every = 64;  // so many packets are also decoded with the whole trace formatted

template <int type>
int decode_ack(mqtt_codec_ctx *ctx, const uint8_t *buf, int *len, mqtt_ack_para *para) {
    return mqtt_codec_decode_ack(ctx, type, buf, len, para);
}
int decode_ping(mqtt_codec_ctx *ctx, const uint8_t *buf, int *len, mqtt_connack_para *para) {
    *para = {};
    return mqtt_codec_decode_simple(ctx, MQTT_PKT_PINGREQ, buf, len);
}

template <typename Para, int (*decode)(mqtt_codec_ctx *, const uint8_t *, int *, Para *)>
void attack(uint32_t level, const uint8_t *data, size_t n) {
    decode_anything<Para>(decode, level, data, n);
}

struct target {
    void (*run)(uint32_t level, const uint8_t *data, size_t n);
    std::string wire;
};

// A well-formed packet for every decoder, the start of all mutations.
std::vector<target> targets() {
    constexpr auto connect = attack<mqtt_connect_para, mqtt_codec_decode_connect>;
    constexpr auto connack = attack<mqtt_connack_para, mqtt_codec_decode_connack>;
    constexpr auto publish = attack<mqtt_publish_para, mqtt_codec_decode_publish>;
    constexpr auto subscribe = attack<mqtt_subscribe_para, mqtt_codec_decode_subscribe>;
    constexpr auto unsubscribe = attack<mqtt_unsubscribe_para, mqtt_codec_decode_unsubscribe>;
    constexpr auto disconnect = attack<mqtt_disconnect_para, mqtt_codec_decode_disconnect>;
    return {
        {connect,
         pkt("10", "00 04 'MQTT' 04 EE 00 3C 00 02 'c1' 00 03 'w/t' 00 02 'wp' 00 01 'u' 00 01 'p'")},
        {connect, pkt("10",
                      "00 04 'MQTT' 05 C6 00 3C 08 11 00 00 00 09 21 00 14 00 02 'c1' 05 18 00 00 00 1E "
                      "00 03 'w/t' 00 02 'wp' 00 01 'u' 00 01 'p'")},
        {connect, pkt("10", "00 04 'MQTT' 05 82 00 3C 00 00 46 " + rep(70) + " 00 01 'u'")},
        {connack, "20 0B 01 00 08 21 00 14 27 00 00 10 00"},
        {publish, "30 07 00 03 'a/b' 'hi'"},
        {publish, pkt("35", "00 03 'a/b' 12 34 09 02 00 00 00 3C 23 02 00 05 'payload'")},
        {publish, pkt("32", "00 03 'a/b' 12 34 07 99 02 AA BB 23 00 05 'payload'")},
        {publish, pkt("30", "01 00 " + rep(256, 't') + " " + rep(300, '\xFF'))},
        {attack<mqtt_ack_para, decode_ack<MQTT_PKT_PUBACK>>, "40 07 12 34 10 03 AA BB CC"},
        {attack<mqtt_ack_para, decode_ack<MQTT_PKT_SUBACK>>, pkt("90", "12 34 00 00 " + rep(20, '\x01'))},
        {subscribe, pkt("82", "00 0A 06 26 01 27 02 0B 03 00 03 'a/b' 01 00 01 '#' 02")},
        {subscribe, pkt("82", "00 0A 00 03 'a/b' 01 00 01 '#' 02")},
        {unsubscribe, pkt("A2", "00 0A 02 0B 07 00 03 'a/b' 00 01 '#'")},
        {unsubscribe, pkt("A2", "00 0A 00 03 'a/b' 00 01 '#'")},
        {disconnect, pkt("E0", "00 11 10 00 00 00 3C 1F 00 03 'bye' 26 00 03 'k=v'")},
        {attack<mqtt_connack_para, decode_ping>, "C0 00"},
    };
}

class mutator {
  public:
    bytes mutate(bytes data) {
        for (uint32_t rounds = 1 + pick(4); rounds > 0; --rounds) step(&data);
        return data;
    }
    uint32_t pick(uint32_t n) { return static_cast<uint32_t>(random_() % n); }

  private:
    static constexpr uint8_t k_nasty[] = {0x00, 0x01, 0x02, 0x7F, 0x80, 0x81, 0xFE, 0xFF};

    void step(bytes *data) {
        if (data->empty()) return data->push_back(static_cast<uint8_t>(pick(256)));
        const uint32_t at = pick(static_cast<uint32_t>(data->size()));
        const auto here = data->begin() + at;
        switch (pick(6)) {
            case 0:
                (*data)[at] ^= static_cast<uint8_t>(1u << pick(8));
                break;
            case 1:
                (*data)[at] = k_nasty[pick(sizeof k_nasty)];
                break;
            case 2:
                (*data)[at] = static_cast<uint8_t>(pick(256));
                break;
            case 3:
                data->resize(at);
                break;
            case 4:
                data->insert(here, k_nasty[pick(sizeof k_nasty)]);
                break;
            default:
                data->erase(here);
                break;
        }
    }

    std::mt19937 random_{k_seed};
};

}  // namespace

class mutated_packets : public quiet_codec_test {
  protected:
    void SetUp() override {
        // The trace is formatted but written nowhere.
        const agent_log_config silent{AGENT_LOG_FATAL, 0, 0, 0, nullptr};
        agent_log_init(&silent);
    }
};

TEST_F(mutated_packets, are_decoded_or_refused_within_their_bounds) {
    const std::vector<target> all = targets();
    std::vector<bytes> seeds;
    for (const target &t : all) seeds.push_back(hex(t.wire));
    mutator m;
    for (int i = 0; i < k_packets; ++i) {
        const uint32_t which = m.pick(static_cast<uint32_t>(all.size()));
        const bytes data = m.mutate(seeds[which]);
        agent_log_set_level(i % k_traced_every == 0 ? AGENT_LOG_DEBUG : AGENT_LOG_FATAL);
        all[which].run(3 + m.pick(3), data.data(), data.size());
        ASSERT_FALSE(HasFailure()) << "packet " << i << " of target " << which << ": " << dump(data);
    }
}

TEST_F(mutated_packets, of_one_type_do_no_harm_in_the_decoder_of_another) {
    const std::vector<target> all = targets();
    for (const target &seed : all) {
        bytes data = hex(seed.wire);
        for (int first = 0; first < 256; ++first) {
            data[0] = static_cast<uint8_t>(first);
            for (const target &t : all) t.run(4 + first % 2, data.data(), data.size());
        }
    }
}
