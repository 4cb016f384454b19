#include "tests/packet/store_double.h"

#include <cstdio>
#include <cstring>

#include "client/client_mgr.h"

namespace zeb_test {

namespace {

void note(const std::string &call) {
    store().calls.push_back(call);
}

std::string name_of(zeb::mqtt_client *client) {
    return client == nullptr ? "nobody" : client->client_id;
}

}  // namespace

int load_double(zeb::persist_session *rec,
                bool *found) asm("__wrap__ZN3zeb18persist_load_foundEPNS_15persist_sessionEPb");
int load_double(zeb::persist_session *rec, bool *found) {
    const auto it = store().sessions.find(rec->client_id);
    *found = it != store().sessions.end();
    if (store().load_result != 0 || !*found) return store().load_result;
    const stored_session &s = it->second;
    for (const filter_request &f : s.subs) {
        zeb::persist_sub &sub = rec->subs[rec->sub_count++];
        snprintf(sub.topic, sizeof sub.topic, "%s", f.filter.c_str());
        sub.qos = static_cast<uint8_t>(f.qos);
    }
    for (const stored_message &m : s.messages) {
        zeb::persist_msg &msg = rec->msgs[rec->msg_count++];
        msg.msgid = m.id;
        snprintf(msg.topic, sizeof msg.topic, "%s", m.topic.c_str());
        memcpy(msg.payload, m.payload.data(), m.payload.size());
        msg.payload_len = static_cast<uint32_t>(m.payload.size());
        msg.qos = static_cast<uint8_t>(m.qos);
    }
    if (!s.will_topic.empty()) {
        rec->will_flag = 1;
        snprintf(rec->will_topic, sizeof rec->will_topic, "%s",
                 store().cut_will_topic ? "" : s.will_topic.c_str());
        memcpy(rec->will_payload, s.will_payload.data(), s.will_payload.size());
        rec->will_len = s.will_len != 0 ? s.will_len : static_cast<uint32_t>(s.will_payload.size());
        rec->will_qos = static_cast<uint8_t>(s.will_qos);
    }
    return 0;
}

void mark_double(zeb::persist_session *rec,
                 int kinds) asm("__wrap__ZN3zeb12persist_markEPNS_15persist_sessionEi");
void mark_double(zeb::persist_session *rec, int kinds) {
    note("mark " + std::string(rec->client_id) + " " + std::to_string(kinds) +
         " subs=" + std::to_string(rec->sub_count) + " msgs=" + std::to_string(rec->msg_count) +
         " will=" + std::to_string(rec->will_flag));
    if (kinds != zeb::PERSIST_SUBS) return;
    stored_session &s = store().sessions[rec->client_id];
    s.subs.clear();
    for (int i = 0; i < rec->sub_count; ++i) s.subs.push_back({rec->subs[i].topic, rec->subs[i].qos});
}

void flush_double() asm("__wrap__ZN3zeb13persist_flushEv");
void flush_double() {
    note("flush");
}

int remove_double(const char *id) asm("__wrap__ZN3zeb14persist_removeEPKc");
int remove_double(const char *id) {
    note("remove " + std::string(id));
    store().sessions.erase(id);
    return 0;
}

int finish_replay_double(const zeb::persist_session *replayed) asm(
    "__wrap__ZN3zeb21persist_finish_replayEPKNS_15persist_sessionE");
int finish_replay_double(const zeb::persist_session *replayed) {
    note("finish " + std::string(replayed->client_id) + " " + std::to_string(replayed->msg_count));
    store().sessions[replayed->client_id].messages.clear();
    return 0;
}

bool add_to_stored_double(const char *id, const char *topic, const uint8_t *payload, int len,
                          int qos) asm("__wrap__ZN3zeb25persist_add_msg_to_storedEPKcS1_PKhii");
bool add_to_stored_double(const char *id, const char *topic, const uint8_t *payload, int len, int qos) {
    if (store().end_before_additions) return false;
    note("offline " + std::string(id) + " " + topic + " " +
         std::string(reinterpret_cast<const char *>(payload), static_cast<size_t>(len)) + " " +
         std::to_string(qos));
    return true;
}

int add_packet_double(zeb::mqtt_client *client, uint16_t id, uint8_t qos, const zeb::mqtt_publish_para *pub, const uint8_t *payload, uint32_t len) asm(
    "__wrap__ZN3zeb23qos_reliable_add_packetEPNS_"
    "11mqtt_clientEthPKNS_17mqtt_publish_"
    "paraEPKhj");
int add_packet_double(zeb::mqtt_client *client, uint16_t id, uint8_t qos, const zeb::mqtt_publish_para *pub,
                      const uint8_t *payload, uint32_t len) {
    note("register " + name_of(client) + " " + std::to_string(id) + " " + std::to_string(qos) + " " +
         pub->topic + " " + std::string(reinterpret_cast<const char *>(payload), len));
    return 0;
}

int handle_ack_double(zeb::mqtt_client *client, uint16_t id,
                      int type) asm("__wrap__ZN3zeb23qos_reliable_handle_ackEPNS_11mqtt_clientEti");
int handle_ack_double(zeb::mqtt_client *client, uint16_t id, int type) {
    note("ack " + name_of(client) + " " + std::to_string(id) + " " + std::to_string(type));
    return -1;
}

void set_expiry_double(zeb::mqtt_client *client, uint16_t id, uint32_t seconds) asm(
    "__wrap__ZN3zeb30qos_reliable_set_packet_expiryEPNS_11mqtt_clientEtj");
void set_expiry_double(zeb::mqtt_client *client, uint16_t id, uint32_t seconds) {
    note("expiry " + name_of(client) + " " + std::to_string(id) + " " + std::to_string(seconds));
}

void clean_double(zeb::mqtt_client *client) asm(
    "__wrap__ZN3zeb33qos_reliable_clean_client_packetsEPNS_11mqtt_clientE");
void clean_double(zeb::mqtt_client *client) {
    if (name_of(client) != "") note("clean " + name_of(client));
}

}  // namespace zeb_test
