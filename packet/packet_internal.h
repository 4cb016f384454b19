#pragma once

#include <array>
#include <cstdint>

#include "client/client_mgr.h"
#include "codec/mqtt_codec.h"
#include "sub/sub_mgr.h"

// What the packet handler's own files share. Everything here runs on the connection's I/O thread unless a
// comment says otherwise, and no lock is held while the application's callbacks run.
namespace zeb {

inline constexpr int k_fanout_max = 11000;        // subscribers beyond it are not reached
inline constexpr int k_publish_buf_bytes = 2048;  // an encoded copy that is longer is not forwarded
inline constexpr int k_answer_buf_bytes = 128;
inline constexpr uint32_t k_min_packet_size = 256;
inline constexpr uint32_t k_v3_max_packet_size = 4096;
inline constexpr uint8_t k_reason_packet_too_large = 0x95;
inline constexpr uint8_t k_reason_bad_credentials = 0x86;
inline constexpr uint32_t k_suback_failure = 0x80;

// One handler for each packet type that a client may send.
void packet_on_connect(mqtt_client *client, const uint8_t *data, int len);
void packet_on_publish(mqtt_client *client, const uint8_t *data, int len);
void packet_on_puback(mqtt_client *client, const uint8_t *data, int len);
void packet_on_pubrec(mqtt_client *client, const uint8_t *data, int len);
void packet_on_pubrel(mqtt_client *client, const uint8_t *data, int len);
void packet_on_pubcomp(mqtt_client *client, const uint8_t *data, int len);
void packet_on_subscribe(mqtt_client *client, const uint8_t *data, int len);
void packet_on_unsubscribe(mqtt_client *client, const uint8_t *data, int len);
void packet_on_pingreq(mqtt_client *client, const uint8_t *data, int len);
void packet_on_disconnect(mqtt_client *client, const uint8_t *data, int len);

// A packet of the named type failed to decode: logged, counted, dropped.
void packet_decode_failed(const mqtt_client *client, const char *type_name, int error);

// Encode an acknowledgement for the client's protocol level and queue it. True when it was queued.
bool packet_send_ack(mqtt_client *client, int type, const mqtt_ack_para &ack);
bool packet_send_id_ack(mqtt_client *client, int type, uint16_t msg_id);

// As packet_handler_broadcast_msg for a will whose packet was built by a connection of a fixed level: what
// precedes the payload depends on the packet and not on who gets it. Any thread.
void packet_broadcast_will(const uint8_t *msg, int len, bool has_properties);

// Hands what is queued to the socket now, because the connection is about to be closed; waits 10 ms once when
// the socket is full. Any thread.
void packet_flush_before_close(mqtt_client *client);

// Whether a newer connection has taken the identifier over, and the files that bear it.
bool packet_has_successor(mqtt_client *client);

// Drops in-flight messages and, for a clean session, the subscriptions of a client that leaves; a newer
// connection with the same identifier keeps what is its own.
void packet_settle_subscriptions(mqtt_client *client);

// Message identifiers. Any thread.
uint16_t packet_draw_msg_id();  // one draw: 1..65533
uint16_t packet_new_msg_id();   // two draws, as on the wire; may be 0, and is then not redrawn: kept

// min(publication, subscription)
inline uint32_t packet_effective_qos(uint32_t published, uint32_t subscribed) {
    return published < subscribed ? published : subscribed;
}

inline bool packet_is_shared_filter(const char *filter) {
    return filter != nullptr && __builtin_strncmp(filter, "$share/", 7) == 0;
}

// Encodes one publication for many subscribers: once per protocol level and QoS, then only the identifier is
// patched. An encoding that fails is tried again for each subscriber, so that each failure has its log line.
class publication_encoder {
  public:
    explicit publication_encoder(const mqtt_publish_para &publication) : record_(publication) {}

    // 0 and a packet in data()/len(), or the codec's error code.
    int encode(mqtt_client *subscriber, uint32_t qos, uint16_t msg_id);
    const uint8_t *data() const { return packet_->bytes.data(); }
    int len() const { return packet_->len; }
    // The record as encoded last, for the reliable delivery module.
    const mqtt_publish_para &record() const { return record_; }

  private:
    struct packet {
        int len = 0;  // 0: not encoded yet
        int id_offset = 0;
        std::array<uint8_t, k_publish_buf_bytes> bytes;  // as far as len says; the rest is never touched
    };
    mqtt_publish_para record_;
    packet packets_[2][3];
    packet *packet_ = nullptr;
};

// Scratch memory for one routed publication, taken from a small stock and given back, so that a steady stream
// of publications allocates nothing. Any thread; empty when memory is short.
class routing_scratch {
  public:
    routing_scratch();
    ~routing_scratch();
    routing_scratch(const routing_scratch &) = delete;
    routing_scratch &operator=(const routing_scratch &) = delete;

    static constexpr int k_no_routes = -1;
    static constexpr int k_no_selection = -2;

    // Matches a topic and chooses the members of shared groups; the number of routes, or one of the two above
    // when there is no memory for the routes or for the choice.
    int match(const char *topic);
    const sub_route &route(int i) const;
    bool skipped(int i) const;   // a shared subscription whose turn it is not
    persist_session *session();  // a scratch session record, null when there is no memory

    struct block;

  private:
    block *block_;
};

// As shared_sub_mark_selected, over routes.
bool packet_mark_shared(const sub_route *routes, int count, uint8_t *selected);

// Whether the client identifier has a stored session (any of its files).
bool packet_has_stored_session(persist_session *scratch, const char *client_id);

}  // namespace zeb
