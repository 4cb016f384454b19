// Message identifiers of what the broker publishes.
#include <cstdlib>

#include "log/platform_time.h"
#include "packet/packet_handler.h"
#include "packet/packet_internal.h"

namespace zeb {

uint32_t msgid_seed = 0;
std::mutex msgid_mutex;

uint16_t packet_draw_msg_id() {
    constexpr int k_range = 65533;
    std::lock_guard lock(msgid_mutex);
    if (msgid_seed == 0) msgid_seed = static_cast<uint32_t>(platform_wall_sec());
    return static_cast<uint16_t>(rand_r(&msgid_seed) % k_range + 1);
}

uint16_t packet_new_msg_id() {
    const uint16_t first = packet_draw_msg_id();
    const uint16_t second = packet_draw_msg_id();
    return static_cast<uint16_t>((second & 0xFF00u) | (first & 0x00FFu));
}

}  // namespace zeb
