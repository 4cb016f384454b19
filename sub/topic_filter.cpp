#include "sub/topic_filter.h"

#include <cstring>

#include "log/agent_log.h"

namespace zeb {

namespace {

constexpr char k_share_prefix[] = "$share/";
constexpr size_t k_share_prefix_len = sizeof k_share_prefix - 1;

// "#" ends the filter and has a level of its own.
bool hash_is_placed_well(const char *filter, size_t len, size_t pos) {
    if (pos != len - 1) {
        ZEB_LOG(AGENT_LOG_ERROR, "[DEBUG] mqtt_filter_is_valid：#必须是最后一个字符（filter=%s, #位置=%d）",
                filter, static_cast<int>(pos));
        return false;
    }
    if (len > 1 && filter[pos - 1] != '/') {
        ZEB_LOG(AGENT_LOG_ERROR, "[DEBUG] mqtt_filter_is_valid：#前必须是/（filter=%s, #位置=%d）", filter,
                static_cast<int>(len - 1));
        return false;
    }
    return true;
}

bool plus_is_placed_well(const char *filter, size_t pos) {
    const bool starts_level = pos == 0 || filter[pos - 1] == '/';
    const bool ends_level = filter[pos + 1] == '\0' || filter[pos + 1] == '/';
    if (starts_level && ends_level) return true;
    ZEB_LOG(AGENT_LOG_ERROR, "[DEBUG] mqtt_filter_is_valid：+必须单独占一个层级（filter=%s, +位置=%d）",
            filter, static_cast<int>(pos));
    return false;
}

// The filter stands at "/" and the topic is used up: only "/#" still matches, so that "a/#" takes "a".
int match_tail(const char *filter_rest) {
    if (std::strcmp(filter_rest, "/#") != 0) return 0;
    ZEB_LOG(AGENT_LOG_DEBUG, "[TRACE] topic_match_wildcard：filter剩余/#且topic结束，判定匹配");
    return 1;
}

// The topic is used up while the filter is not. A "+" needs at least one character or a "/" to stand on,
// except that the filter "+" as a whole takes the empty topic.
int match_exhausted(const char *effective, const char *f) {
    if (*f == '#') return 1;
    if (*f == '/') return match_tail(f);
    return f == effective && std::strcmp(f, "+") == 0 ? 1 : 0;
}

int match_end(const char *f, const char *t) {
    if (*t == '\0') return 1;
    ZEB_LOG(AGENT_LOG_DEBUG, "[DEBUG] topic_match_wildcard：未完全匹配（filter剩余=%s, topic剩余=%s）", f, t);
    return 0;
}

// Walks a valid filter along the topic. Validity promises that "#" is the last character and that "+" is
// followed by "/" or the end.
int match_walk(const char *effective, const char *topic) {
    const char *f = effective;
    const char *t = topic;
    while (*f != '\0') {
        if (*t == '\0') return match_exhausted(effective, f);
        if (*f == '#') return 1;
        if (*f != '+') {
            if (*f++ != *t++) return 0;
            continue;
        }
        while (*t != '\0' && *t != '/') ++t;
        ++f;
        if (*f == '\0') {
            if (*t == '/') ++t;  // kept: "a/+" takes "a/b/" too
        } else if (*t == '/') {
            ++f;
            ++t;
        } else {
            return match_tail(f);
        }
    }
    return match_end(f, t);
}

}  // namespace

int mqtt_filter_is_valid(const char *filter) {
    if (filter == nullptr || *filter == '\0') {
        ZEB_LOG(AGENT_LOG_ERROR, "[DEBUG] mqtt_filter_is_valid：空过滤器非法");
        return 0;
    }
    const char *hash = std::strchr(filter, '#');
    if (hash != nullptr &&
        !hash_is_placed_well(filter, std::strlen(filter), static_cast<size_t>(hash - filter)))
        return 0;

    const char *first_plus = std::strchr(filter, '+');
    for (const char *plus = first_plus; plus != nullptr; plus = std::strchr(plus + 1, '+'))
        if (!plus_is_placed_well(filter, static_cast<size_t>(plus - filter))) return 0;

    // Stricter than MQTT on purpose: "a/+/#" is refused.
    if (hash != nullptr && first_plus != nullptr) {
        ZEB_LOG(AGENT_LOG_ERROR, "[DEBUG] mqtt_filter_is_valid：#前不能有+（filter=%s）", filter);
        return 0;
    }
    return 1;
}

const char *topic_filter_effective(const char *filter) {
    if (!topic_filter_is_shared(filter)) return filter;
    const char *slash = std::strchr(filter + k_share_prefix_len, '/');
    return slash != nullptr ? slash + 1 : filter;
}

bool topic_filter_is_shared(const char *filter) {
    return std::strncmp(filter, k_share_prefix, k_share_prefix_len) == 0;
}

int topic_match_wildcard(const char *filter, const char *topic) {
    if (filter == nullptr || topic == nullptr) return 0;
    const char *effective = topic_filter_effective(filter);
    const int match = mqtt_filter_is_valid(effective) != 0 ? match_walk(effective, topic) : 0;
    ZEB_LOG(AGENT_LOG_DEBUG, "[DEBUG] topic_match_wildcard：匹配结果（filter=%s, topic=%s, match=%d）",
            effective, topic, match);
    return match;
}

}  // namespace zeb
