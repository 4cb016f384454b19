#include "fuzz/retain_image.h"

#include <algorithm>
#include <cstring>

#include "fuzz/fuzz_check.h"
#include "sub/sub_mgr.h"

namespace zeb_fuzz {

using namespace zeb;

namespace {

template <typename Value>
void put(std::vector<uint8_t> *out, const Value &value) {
    const auto *bytes = reinterpret_cast<const uint8_t *>(&value);
    out->insert(out->end(), bytes, bytes + sizeof value);
}

// Mostly a length that fits.
uint32_t read_length(fuzz_input *in, uint32_t fits) {
    const uint8_t choice = in->u8();
    return choice < 0xF0 ? choice % (fits + 1) : choice < 0xF8 ? fits + (choice & 1u) : in->u32();
}

void put_record(fuzz_input *in, std::vector<uint8_t> *out) {
    retain_msg msg;
    std::memset(static_cast<void *>(&msg), 0, sizeof msg);
    const std::vector<uint8_t> topic = in->block();
    std::copy_n(topic.begin(), std::min(topic.size(), sizeof msg.topic), msg.topic);
    msg.payload_len = read_length(in, sizeof msg.payload);
    std::memset(msg.payload, in->u8(), std::min<std::size_t>(msg.payload_len, sizeof msg.payload));
    msg.qos = in->below(4);
    msg.timestamp = int64_t{1700000000} + in->u16() - 32768;
    msg.expiry_interval = in->u16();
    put(out, msg);
}

// One entry of the log, as a save writes it: the record in short.
void put_entry(fuzz_input *in, uint32_t slots, std::vector<uint8_t> *out) {
    const std::vector<uint8_t> topic = in->block();
    const uint32_t payload_len = in->u8();
    put(out, in->u8() < 0xF0 ? in->below(slots + 1) : in->u32());
    put(out, static_cast<uint32_t>(topic.size()));
    put(out, payload_len);
    put(out, uint32_t{in->below(4)});
    put(out, int64_t{1700000000});
    put(out, uint32_t{in->u8()});
    put(out, uint32_t{0});
    out->insert(out->end(), topic.begin(), topic.end());
    out->insert(out->end(), payload_len, in->u8());
}

void put_log(fuzz_input *in, uint32_t records, std::vector<uint8_t> *out) {
    const std::size_t start = out->size();
    const uint32_t entries = in->below(5);
    const uint32_t count = in->u8() < 0xF0 ? records + in->below(3) : in->u32();
    for (uint32_t i = 0; i < entries; ++i) put_entry(in, std::max(records, 1u), out);
    const auto bytes = static_cast<uint32_t>(out->size() - start);
    constexpr uint64_t k_prime = 1099511628211u;
    uint64_t sum = 14695981039346656037u;
    for (std::size_t i = start; i < out->size(); ++i) sum = (sum ^ (*out)[i]) * k_prime;
    for (const uint32_t field : {bytes, entries, count, uint32_t{0}}) sum = (sum ^ field) * k_prime;
    const char mark[8] = {'Z', 'E', 'B', 'R', 'L', 'O', 'G', '1'};
    put(out, mark);
    put(out, sum);
    for (const uint32_t field : {bytes, entries, count, uint32_t{0}}) put(out, field);
}

void change_bytes(fuzz_input *in, std::vector<uint8_t> *out) {
    for (uint32_t n = in->below(4); n > 0 && !out->empty(); --n) {
        const uint16_t at = in->u16();
        (*out)[at % out->size()] ^= in->u8();
    }
    if (in->u8() >= 0xE0) out->resize(in->u16() % (out->size() + 1));
}

}  // namespace

std::vector<uint8_t> build_retain_file(fuzz_input *in) {
    const uint8_t choice = in->u8();
    if (choice >= 0xF0) return in->block();
    const uint32_t records = choice % 6u;
    std::vector<uint8_t> out;
    put(&out, choice < 0xE0 ? records : in->u32());
    for (uint32_t i = 0; i < records; ++i) put_record(in, &out);
    if ((choice & 0x40) != 0) put_log(in, records, &out);
    change_bytes(in, &out);
    return out;
}

}  // namespace zeb_fuzz
