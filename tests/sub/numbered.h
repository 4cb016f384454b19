#pragma once

#include <string>

namespace zeb_test {

// "c" and 7 make "c7".
inline std::string numbered(std::string prefix, int number) {
    prefix.append(std::to_string(number));
    return prefix;
}

}  // namespace zeb_test
