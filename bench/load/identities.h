// Client identifiers: at most 23 bytes of [0-9a-z].
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace zeb_load {

constexpr size_t k_spread_slots = 11000;

// `count` different identifiers that begin with `prefix`. With `spread` no two of them share a slot of a
// table of k_spread_slots entries, which takes count up to k_spread_slots.
std::vector<std::string> make_identities(std::string_view prefix, size_t count, bool spread);

}  // namespace zeb_load
