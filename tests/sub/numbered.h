#pragma once

#include <string>

namespace zeb_test {

// "c" and 7 make "c7".
inline std::string numbered(std::string prefix, int number) {
    prefix.append(std::to_string(number));
    return prefix;
}

// Two texts with one text_hash, also when the same text is appended to both.
inline constexpr const char *k_twins[] = {"glbvs", "yacxa"};

}  // namespace zeb_test
