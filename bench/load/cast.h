// Who takes part in a run, and what they subscribe.
#pragma once

#include <string>
#include <vector>

#include "clients.h"
#include "options.h"

namespace zeb_load {

constexpr size_t k_other_connections = 100;  // at most, which hold other subscriptions

std::string topic_name(const options &o, size_t topic);

// Publishers, subscribers, slow subscribers and the holders of other subscriptions, in this order.
std::vector<client> make_cast(const options &o);

}  // namespace zeb_load
