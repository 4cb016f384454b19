#pragma once

#include <cctype>
#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

namespace zeb_test {

using bytes = std::vector<uint8_t>;

// "30 07 00 03" -> four bytes. A text in single quotes stands for its characters: "00 03 'a/b'".
inline bytes hex(std::string_view text) {
    bytes out;
    for (size_t i = 0; i < text.size();) {
        if (std::isspace(static_cast<unsigned char>(text[i]))) {
            ++i;
        } else if (text[i] == '\'') {
            const size_t end = text.find('\'', i + 1);
            out.insert(out.end(), text.begin() + static_cast<long>(i) + 1,
                       text.begin() + static_cast<long>(end));
            i = end + 1;
        } else {
            out.push_back(static_cast<uint8_t>(std::stoul(std::string(text.substr(i, 2)), nullptr, 16)));
            i += 2;
        }
    }
    return out;
}

// The way back, for messages of failing tests.
inline std::string dump(const uint8_t *data, size_t len) {
    std::string out;
    char byte[4];
    for (size_t i = 0; i < len; ++i) {
        snprintf(byte, sizeof byte, "%s%02X", i == 0 ? "" : " ", data[i]);
        out += byte;
    }
    return out;
}

inline std::string dump(const bytes &data) {
    return dump(data.data(), data.size());
}

}  // namespace zeb_test
