#include "fuzz/topic_reference.h"

#include <algorithm>
#include <cstddef>
#include <vector>

namespace zeb_fuzz {

namespace {

using levels = std::vector<std::string>;

levels split(const std::string &text) {
    levels out(1);
    for (const char c : text) {
        if (c == '/')
            out.emplace_back();
        else
            out.back().push_back(c);
    }
    return out;
}

bool has(const std::string &text, char c) {
    return text.find(c) != std::string::npos;
}

// A filter with "+" and thus without "#".
bool matches_levels(const levels &filter, levels topic) {
    // A last "+" swallows a "/" at the topic's end.
    if (filter.back() == "+" && topic.size() == filter.size() + 1 && topic.back().empty())
        topic.pop_back();
    else if (filter.back() == "+" && topic.back().empty())
        return false;  // but it does not stand for an empty level at the topic's end
    if (filter.size() != topic.size()) return false;
    for (std::size_t i = 0; i < filter.size(); ++i)
        if (filter[i] != "+" && filter[i] != topic[i]) return false;
    return true;
}

}  // namespace

bool reference_is_valid(const std::string &filter) {
    if (filter.empty()) return false;
    const levels parts = split(filter);
    bool hash = false;
    bool plus = false;
    for (std::size_t i = 0; i < parts.size(); ++i) {
        if (has(parts[i], '#')) {
            if (parts[i] != "#" || i + 1 != parts.size()) return false;
            hash = true;
        }
        if (has(parts[i], '+')) {
            if (parts[i] != "+") return false;
            plus = true;
        }
    }
    return !(hash && plus);
}

std::string reference_effective(const std::string &filter) {
    const std::string prefix = "$share/";
    if (filter.compare(0, prefix.size(), prefix) != 0) return filter;
    const std::size_t slash = filter.find('/', prefix.size());
    return slash == std::string::npos ? filter : filter.substr(slash + 1);
}

bool reference_matches(const std::string &filter, const std::string &topic) {
    const std::string effective = reference_effective(filter);
    if (!reference_is_valid(effective)) return false;
    if (effective == "#") return true;
    if (effective == "+" && topic.empty()) return true;
    if (effective.back() == '#') {
        const std::string parent = effective.substr(0, effective.size() - 2);
        return topic == parent || topic.compare(0, parent.size() + 1, parent + "/") == 0;
    }
    if (has(effective, '+')) return matches_levels(split(effective), split(topic));
    return effective == topic;
}

}  // namespace zeb_fuzz
