#pragma once

namespace zeb {

int mqtt_filter_is_valid(const char *filter);                     // 1 valid, 0 invalid
int topic_match_wildcard(const char *filter, const char *topic);  // 1 match, 0 no match

}  // namespace zeb
