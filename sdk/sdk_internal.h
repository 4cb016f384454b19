#pragma once

#include <atomic>

#include "log/agent_log.h"
#include "sdk/zeb_sdk_mqtt_broker.h"

namespace zeb {

// A missing instance is logged wherever one is needed.
inline bool broker_is_null(const mqtt_broker_instance *b) {
    if (b != nullptr) return false;
    ZEB_LOG(AGENT_LOG_ERROR, "[SDK] invalid broker handle");
    return true;
}

// The public record is plain C; what is set while other threads may look is read and written through these.
template <typename T>
T broker_field(T &field) {
    return std::atomic_ref<T>(field).load(std::memory_order_relaxed);
}
template <typename T>
void broker_set_field(T &field, T value) {
    std::atomic_ref<T>(field).store(value, std::memory_order_relaxed);
}

// What stop, deinit and destroy ask, because they would wait for the very thread they are called on.
bool broker_in_callback();

inline bool broker_is_running(mqtt_broker_instance *b) {
    return std::atomic_ref<uint8_t>(b->running).load(std::memory_order_acquire) != 0;
}

inline void broker_set_running(mqtt_broker_instance *b, bool running) {
    std::atomic_ref<uint8_t>(b->running).store(running ? 1 : 0, std::memory_order_release);
}

}  // namespace zeb
