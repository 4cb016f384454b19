#include "identities.h"

#include <cstdint>

namespace zeb_load {

namespace {

size_t slot_of(const std::string &id) {
    uint32_t hash = 0;
    for (const char c : id) hash = hash * 31 + static_cast<uint32_t>(static_cast<signed char>(c));
    return hash % k_spread_slots;
}

std::string in_base_36(size_t value) {
    std::string out;
    do {
        out.insert(out.begin(), "0123456789abcdefghijklmnopqrstuvwxyz"[value % 36]);
        value /= 36;
    } while (value > 0);
    return out;
}

}  // namespace

std::vector<std::string> make_identities(std::string_view prefix, size_t count, bool spread) {
    std::vector<std::string> out;
    std::vector<bool> taken(k_spread_slots);
    out.reserve(count);
    // Numbers that differ give identifiers that differ, and among many in a row every slot comes up.
    for (size_t number = 0; out.size() < count; ++number) {
        std::string id = std::string(prefix) + in_base_36(number * (spread ? 7919 : 1));
        if (spread) {
            const size_t slot = slot_of(id);
            if (taken[slot]) continue;
            taken[slot] = true;
        }
        out.push_back(std::move(id));
    }
    return out;
}

}  // namespace zeb_load
