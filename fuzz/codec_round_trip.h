#pragma once

#include <cstdint>

#include "codec/mqtt_codec.h"
#include "fuzz/fuzz_input.h"

// Encode a record, decode the packet, compare: what comes back is the record, but for what the packet has no
// place for. The encoders refuse some records that the decoders give, and no others: both is checked.

namespace zeb_fuzz {

// The record must be one that the decoder could have given: texts terminated, counts in their arrays, flags 0
// or 1. `level` is 4 or 5.
void check_round_trip(uint32_t level, const zeb::mqtt_connect_para &record);
void check_round_trip(uint32_t level, const zeb::mqtt_connack_para &record);
void check_round_trip(uint32_t level, const zeb::mqtt_publish_para &record);
void check_round_trip(uint32_t level, const zeb::mqtt_subscribe_para &record);
void check_round_trip(uint32_t level, const zeb::mqtt_unsubscribe_para &record);
void check_round_trip(uint32_t level, const zeb::mqtt_disconnect_para &record);
void check_round_trip(uint32_t level, int type, const zeb::mqtt_ack_para &record);
void check_simple_round_trip(uint32_t level, int type);

// Makes a record of the input and sends it on its round trip.
void round_trip_of_input(uint32_t level, fuzz_input *in);

// A record of any bytes at all, which the encoders may refuse but must survive.
void encode_anything(uint32_t level, fuzz_input *in);

}  // namespace zeb_fuzz
