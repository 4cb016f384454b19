#pragma once

#include "codec/byte_reader.h"

namespace zeb {

// The property block of a PUBLISH whose connection's level is fixed at 5. Afterwards the reader stands behind
// the block, where the payload begins. MQTT_CODEC_ERR_MALFORMED when the block does not fit the packet or
// holds what is no property of a PUBLISH.
int codec_read_publish_properties(byte_reader *r, int packet_end, mqtt_publish_para *para) noexcept;

}  // namespace zeb
