#include "report.h"

#include <cmath>
#include <cstdio>

namespace zeb_load {

namespace {

std::string quoted(std::string_view text) {
    std::string out = "\"";
    for (const char c : text) {
        if (c == '"' || c == '\\') out += '\\';
        if (static_cast<unsigned char>(c) >= 0x20) {
            out += c;
        } else {
            char escape[8];
            (void)snprintf(escape, sizeof escape, "\\u%04x", static_cast<unsigned>(c));
            out += escape;
        }
    }
    return out + "\"";
}

}  // namespace

void report::add_raw(std::string_view key, std::string_view value) {
    if (!fields_.empty()) fields_ += ", ";
    fields_ += quoted(key);
    fields_ += ": ";
    fields_ += value;
}

void report::add(std::string_view key, std::string_view text) {
    add_raw(key, quoted(text));
}

void report::add(std::string_view key, uint64_t number) {
    add_raw(key, std::to_string(number));
}

void report::add(std::string_view key, double number) {
    if (!std::isfinite(number)) return add_null(key);
    char text[64];
    (void)snprintf(text, sizeof text, "%.3f", number);
    add_raw(key, text);
}

void report::add_null(std::string_view key) {
    add_raw(key, "null");
}

}  // namespace zeb_load
