#pragma once

#include <cstdint>

#include "sub/sub_mgr.h"

namespace zeb {

inline constexpr int64_t RETAIN_DEFAULT_EXPIRY_SEC = 604800;

int retain_msg_set(const char *topic, const uint8_t *payload, uint32_t payload_len, uint32_t qos);
int retain_msg_set_with_expiry(const char *topic, const uint8_t *payload, uint32_t payload_len, uint32_t qos,
                               uint32_t expiry_interval);
int retain_msg_get(const char *topic, retain_msg *out);  // 0, -5 not found, -1 bad argument
int retain_msg_delete(const char *topic);                // 0, -5 not found, -1 bad argument
void retain_clean_expired();
int retain_fill_topic_list(char *buf, int size);  // topics written, or -1

}  // namespace zeb
