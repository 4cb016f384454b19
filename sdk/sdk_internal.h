#pragma once

#include <atomic>

#include "sdk/zeb_sdk_mqtt_broker.h"

namespace zeb {

// What stop, deinit and destroy ask, because they would wait for the very thread they are called on.
bool broker_in_callback();

// The public record is plain C; its running flag is read by other threads all the same.
inline bool broker_is_running(mqtt_broker_instance *b) {
    return std::atomic_ref<uint8_t>(b->running).load(std::memory_order_acquire) != 0;
}

inline void broker_set_running(mqtt_broker_instance *b, bool running) {
    std::atomic_ref<uint8_t>(b->running).store(running ? 1 : 0, std::memory_order_release);
}

}  // namespace zeb
