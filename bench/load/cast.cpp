#include "cast.h"

#include <algorithm>
#include <cstdio>

#include "identities.h"

namespace zeb_load {

namespace {

constexpr int k_slow_receive_bytes = 2048;

// They lie beside the topics that are published, so that a matcher has to tell them apart.
std::string other_filter(const options &o, size_t number) {
    filter_form form = o.others_form();
    if (form == filter_form::mixed) form = static_cast<filter_form>(number % 3);
    const std::string last = "o" + std::to_string(number);
    if (form == filter_form::plus) return o.prefix + "/+/" + last;
    return o.prefix + "/" + last + (form == filter_form::hash ? "/#" : "/t");
}

// Groups of equal length: in some brokers a group whose name begins another one's takes part in that.
std::string subscriber_filter(const options &o, size_t number) {
    const std::string topic = topic_name(o, number % o.topics);
    if (o.shared == 0) return topic;
    char group[16];
    (void)snprintf(group, sizeof group, "g%03u", static_cast<unsigned>(number % o.shared));
    return "$share/" + std::string(group) + "/" + topic;
}

}  // namespace

std::string topic_name(const options &o, size_t topic) {
    return o.prefix + "/t/" + std::to_string(topic);
}

std::vector<client> make_cast(const options &o) {
    const size_t holders = std::min<size_t>(o.others, k_other_connections);
    const size_t counts[] = {o.publishers, o.subscribers, o.slow, holders};
    std::vector<client> all(counts[0] + counts[1] + counts[2] + counts[3]);
    const std::vector<std::string> ids = make_identities(o.prefix, all.size(), o.spread_ids);
    size_t at = 0;
    for (size_t kind = 0; kind < 4; ++kind) {
        for (size_t i = 0; i < counts[kind]; ++i, ++at) {
            client &c = all[at];
            c.kind = static_cast<role>(kind);
            c.index = static_cast<uint32_t>(i);
            c.id = ids[at];
            if (c.kind == role::subscriber) c.filters = {subscriber_filter(o, i)};
            if (c.kind == role::slow) {
                c.filters = {topic_name(o, i % o.topics)};
                c.receive_bytes = k_slow_receive_bytes;
            }
        }
    }
    for (size_t i = 0; i < o.others; ++i)
        all[all.size() - holders + i % holders].filters.push_back(other_filter(o, i));
    return all;
}

}  // namespace zeb_load
