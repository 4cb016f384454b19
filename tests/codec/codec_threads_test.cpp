#include <atomic>
#include <thread>

#include "tests/codec/codec_test.h"

using namespace zeb_test;

namespace {

constexpr int k_rounds = 20000;

}  // namespace

class codec_threads : public quiet_codec_test {};

TEST_F(codec_threads, encode_and_decode_on_one_context_at_the_same_time) {
    mqtt_codec_ctx ctx{};
    mqtt_codec_ctx_init(&ctx);
    std::atomic<int> failures{0};
    const bytes incoming = hex("32 09 00 03 'a/b' 12 34 'hi'");

    const auto encode_publish = [&] {
        auto para = std::make_unique<mqtt_publish_para>();
        strcpy(para->topic, "a/b");
        for (int i = 0; i < k_rounds; ++i) {
            uint8_t out[128];
            int len = sizeof out;
            if (mqtt_codec_encode_publish(&ctx, para.get(), out, &len) != 0 || len != 7) ++failures;
        }
    };
    std::thread first(encode_publish);
    std::thread second(encode_publish);
    std::thread acknowledging([&] {
        const mqtt_ack_para para{0x1234, 0, {}, 0};
        for (int i = 0; i < k_rounds; ++i) {
            uint8_t out[128];
            int len = sizeof out;
            if (mqtt_codec_encode_ack(&ctx, MQTT_PKT_PUBREL, &para, out, &len) != 0 || len != 4) ++failures;
        }
    });
    auto para = std::make_unique<mqtt_publish_para>();
    for (int i = 0; i < k_rounds; ++i) {
        int len = static_cast<int>(incoming.size());
        if (mqtt_codec_decode_publish(&ctx, incoming.data(), &len, para.get()) != 0 || len != 11) ++failures;
    }
    first.join();
    second.join();
    acknowledging.join();
    EXPECT_EQ(failures, 0);
    EXPECT_EQ(ctx.protocol_version, 4u);
    EXPECT_EQ(ctx.last_packet_len, 11u);
}
