// Every decoder of the codec on arbitrary bytes, at each level it may find a connection in. The first byte
// chooses the level, the rest is the packet, in a heap block of exactly its size.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "codec/mqtt_codec.h"
#include "log/agent_log.h"

namespace {

template <typename Decode>
void run(uint32_t level, const std::vector<uint8_t> &packet, Decode decode) {
    zeb::mqtt_codec_ctx ctx{};
    zeb::mqtt_codec_ctx_init(&ctx);
    ctx.protocol_version.store(level);
    int len = static_cast<int>(packet.size());
    const int result = decode(&ctx, packet.data(), &len);
    // What was consumed lies in the packet, and the level stays one that the encoders know.
    if (result == zeb::MQTT_CODEC_OK && (len < 0 || len > static_cast<int>(packet.size()))) abort();
    if (level != 0 && ctx.protocol_version.load() != 4 && ctx.protocol_version.load() != 5) abort();
}

template <typename Para, typename Decoder>
auto with(Decoder decoder) {
    return [decoder](zeb::mqtt_codec_ctx *ctx, const uint8_t *data, int *len) {
        Para para;
        return decoder(ctx, data, len, &para);
    };
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static const bool quiet = [] {
        zeb::agent_log_set_level(zeb::AGENT_LOG_FATAL);
        return true;
    }();
    (void)quiet;
    if (size < 1) return 0;
    const uint32_t level = data[0] % 3 == 0 ? 4 : data[0] % 3 == 1 ? 5 : 0;
    const std::vector<uint8_t> packet(data + 1, data + size);
    run(level, packet, with<zeb::mqtt_connect_para>(zeb::mqtt_codec_decode_connect));
    run(level, packet, with<zeb::mqtt_connack_para>(zeb::mqtt_codec_decode_connack));
    run(level, packet, with<zeb::mqtt_publish_para>(zeb::mqtt_codec_decode_publish));
    run(level, packet, with<zeb::mqtt_subscribe_para>(zeb::mqtt_codec_decode_subscribe));
    run(level, packet, with<zeb::mqtt_unsubscribe_para>(zeb::mqtt_codec_decode_unsubscribe));
    run(level, packet, with<zeb::mqtt_disconnect_para>(zeb::mqtt_codec_decode_disconnect));
    for (const int type : {4, 5, 6, 7, 9, 11}) {
        run(level, packet, [type](zeb::mqtt_codec_ctx *ctx, const uint8_t *bytes, int *len) {
            zeb::mqtt_ack_para para;
            return zeb::mqtt_codec_decode_ack(ctx, type, bytes, len, &para);
        });
    }
    return 0;
}
