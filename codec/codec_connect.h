#pragma once

#include <cstdint>

// What the two directions of CONNECT share.
namespace zeb {

inline constexpr uint8_t k_connect_first_byte = 0x10;
inline constexpr char k_connect_protocol_name[] = "MQTT";
inline constexpr int k_connect_protocol_name_len = 4;

// Connect flags.
inline constexpr uint8_t k_connect_clean_start = 0x02;
inline constexpr uint8_t k_connect_will = 0x04;
inline constexpr int k_connect_will_qos_shift = 3;
inline constexpr uint8_t k_connect_will_qos_mask = 3;
inline constexpr uint8_t k_connect_will_retain = 0x20;
inline constexpr uint8_t k_connect_password = 0x40;
inline constexpr uint8_t k_connect_username = 0x80;

// Limits of the record, all in bytes.
inline constexpr int k_client_id_max_v4 = 23;
inline constexpr int k_client_id_max = 64;
inline constexpr int k_credential_max = 64;

// Properties under the same identifier in both directions. Kept: request problem information is 0x1A here.
inline constexpr uint8_t k_connect_prop_request_response = 0x19;
inline constexpr uint8_t k_connect_prop_request_problem = 0x1A;
inline constexpr uint8_t k_connect_prop_receive_maximum = 0x21;
inline constexpr uint8_t k_connect_prop_topic_alias_maximum = 0x22;
inline constexpr uint8_t k_will_prop_message_expiry = 0x02;
inline constexpr uint8_t k_will_prop_delay = 0x18;

}  // namespace zeb
