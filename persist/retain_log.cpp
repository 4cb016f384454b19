#include "persist/retain_log.h"

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "persist/persist_file.h"

namespace zeb {

namespace {

// Native byte order, as the records themselves.
struct log_entry {
    uint32_t slot;
    uint32_t topic_len;
    uint32_t payload_len;
    uint32_t qos;
    int64_t timestamp;
    uint32_t expiry_interval;
    uint32_t zero;
};

struct log_footer {
    char mark[8];
    uint64_t checksum;
    uint32_t bytes;  // the entries' size
    uint32_t entries;
    uint32_t count;  // records in the file once the change is done
    uint32_t zero;
};

constexpr std::size_t k_entries_max =
    RETAIN_MAX * (sizeof(log_entry) + sizeof retain_msg::topic + sizeof retain_msg::payload);
constexpr uint32_t k_qos_max = 2;
constexpr char k_mark[8] = {'Z', 'E', 'B', 'R', 'L', 'O', 'G', '1'};

// FNV-1a over the entries and what the footer says of them.
uint64_t checksum(const uint8_t *entries, const log_footer &footer) {
    constexpr uint64_t k_prime = 1099511628211u;
    uint64_t sum = 14695981039346656037u;
    for (uint32_t i = 0; i < footer.bytes; ++i) sum = (sum ^ entries[i]) * k_prime;
    for (const uint32_t field : {footer.bytes, footer.entries, footer.count, footer.zero})
        sum = (sum ^ field) * k_prime;
    return sum;
}

uint32_t topic_size(const retain_msg &msg) {
    return static_cast<uint32_t>(strnlen(msg.topic, sizeof msg.topic - 1));
}

uint32_t payload_size(const retain_msg &msg) {
    return std::min<uint32_t>(msg.payload_len, sizeof msg.payload);
}

struct heap_bytes {
    explicit heap_bytes(std::size_t size) : data(static_cast<uint8_t *>(std::calloc(1, size))) {}
    ~heap_bytes() { std::free(data); }
    heap_bytes(const heap_bytes &) = delete;
    heap_bytes &operator=(const heap_bytes &) = delete;
    uint8_t *data;
};

uint8_t *put(uint8_t *at, const void *data, std::size_t size) {
    std::memcpy(at, data, size);
    return at + size;
}

uint8_t *put_entry(uint8_t *at, const retain_msg &msg, int slot) {
    const log_entry entry{static_cast<uint32_t>(slot),
                          topic_size(msg),
                          payload_size(msg),
                          msg.qos,
                          msg.timestamp,
                          msg.expiry_interval,
                          0};
    at = put(at, &entry, sizeof entry);
    at = put(at, msg.topic, entry.topic_len);
    return put(at, msg.payload, entry.payload_len);
}

struct entry_view {
    log_entry head;
    const uint8_t *topic;
    const uint8_t *payload;
};

// Takes the next entry from the bytes before `end`; false when they hold none that fits `count` records.
bool take_entry(const uint8_t **at, const uint8_t *end, int count, entry_view *out) {
    const auto left = static_cast<std::size_t>(end - *at);
    if (left < sizeof out->head) return false;
    std::memcpy(&out->head, *at, sizeof out->head);
    const log_entry &head = out->head;
    if (head.slot >= static_cast<uint32_t>(count) || head.topic_len == 0 ||
        head.topic_len >= sizeof retain_msg::topic || head.payload_len == 0 ||
        head.payload_len > sizeof retain_msg::payload || head.qos > k_qos_max)
        return false;
    if (left - sizeof head < head.topic_len + head.payload_len) return false;
    out->topic = *at + sizeof head;
    out->payload = out->topic + head.topic_len;
    *at = out->payload + head.payload_len;
    return true;
}

bool entries_are_sound(const uint8_t *at, const uint8_t *end, const log_footer &footer) {
    entry_view entry;
    for (uint32_t i = 0; i < footer.entries; ++i)
        if (!take_entry(&at, end, static_cast<int>(footer.count), &entry)) return false;
    return at == end;
}

void apply_entry(const entry_view &entry, retain_msg *msg) {
    std::memset(msg, 0, sizeof *msg);
    std::memcpy(msg->topic, entry.topic, entry.head.topic_len);
    std::memcpy(msg->payload, entry.payload, entry.head.payload_len);
    msg->payload_len = entry.head.payload_len;
    msg->qos = entry.head.qos;
    msg->timestamp = entry.head.timestamp;
    msg->expiry_interval = entry.head.expiry_interval;
}

// Where a log begins. What a payload says in the remains of a record that was not written whole does not.
bool follows_a_record(int64_t offset) {
    constexpr auto count_size = static_cast<int64_t>(sizeof(uint32_t));
    return offset >= count_size && (offset - count_size) % static_cast<int64_t>(sizeof(retain_msg)) == 0;
}

bool read_footer(int fd, int64_t size, log_footer *footer) {
    if (size < static_cast<int64_t>(sizeof *footer)) return false;
    const auto offset = size - static_cast<int64_t>(sizeof *footer);
    return persist_read_at(fd, footer, sizeof *footer, offset) == sizeof *footer &&
           std::memcmp(footer->mark, k_mark, sizeof k_mark) == 0 && footer->bytes <= offset &&
           footer->bytes <= k_entries_max && footer->entries > 0 &&
           footer->count <= static_cast<uint32_t>(RETAIN_MAX);
}

}  // namespace

bool retain_log_write(int fd, int64_t offset, const retain_msg *records, const retain_slots &changed,
                      int count) {
    log_footer footer{};
    for (int i = 0; i < count; ++i) {
        if (!changed[i]) continue;
        ++footer.entries;
        footer.bytes +=
            static_cast<uint32_t>(sizeof(log_entry)) + topic_size(records[i]) + payload_size(records[i]);
    }
    const std::size_t size = footer.bytes + sizeof footer;
    const heap_bytes log(size);
    if (log.data == nullptr) return false;
    uint8_t *at = log.data;
    for (int i = 0; i < count; ++i)
        if (changed[i]) at = put_entry(at, records[i], i);
    std::memcpy(footer.mark, k_mark, sizeof k_mark);
    footer.count = static_cast<uint32_t>(count);
    footer.checksum = checksum(log.data, footer);
    std::memcpy(at, &footer, sizeof footer);
    return persist_write_at(fd, log.data, size, offset);
}

bool retain_log_apply(int fd, int64_t size, retain_msg *records, retain_slots &changed, int *count) {
    log_footer footer;
    if (!read_footer(fd, size, &footer)) return false;
    const heap_bytes log(footer.bytes + std::size_t{1});
    const int64_t offset = size - static_cast<int64_t>(sizeof footer) - footer.bytes;
    if (!follows_a_record(offset)) return false;
    if (log.data == nullptr || persist_read_at(fd, log.data, footer.bytes, offset) != footer.bytes)
        return false;
    const uint8_t *at = log.data;
    const uint8_t *const end = log.data + footer.bytes;
    if (checksum(log.data, footer) != footer.checksum || !entries_are_sound(at, end, footer)) return false;
    const int new_count = static_cast<int>(footer.count);
    if (new_count > *count)
        std::memset(&records[*count], 0, static_cast<std::size_t>(new_count - *count) * sizeof(retain_msg));
    *count = new_count;
    entry_view entry;
    while (at != end && take_entry(&at, end, new_count, &entry)) {
        apply_entry(entry, &records[entry.head.slot]);
        changed[entry.head.slot] = true;
    }
    return true;
}

}  // namespace zeb
