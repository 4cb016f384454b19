#pragma once

#include <string>

// A slow matcher that shares nothing with the library's: it cuts filter and topic into levels and compares
// those, where the library walks both texts once.

namespace zeb_fuzz {

bool reference_is_valid(const std::string &filter);
// What of a filter is matched: without "$share/<name>/".
std::string reference_effective(const std::string &filter);
bool reference_matches(const std::string &filter, const std::string &topic);

}  // namespace zeb_fuzz
