#pragma once

namespace zeb {

// Both rules on topic filters. Pure functions over NUL-terminated bytes: no lock, no allocation, any thread.

int mqtt_filter_is_valid(const char *filter);                     // 1 valid, 0 invalid
int topic_match_wildcard(const char *filter, const char *topic);  // 1 match, 0 no match

// The part of a filter that is held against topics: what follows "$share/<group>/", or the whole filter when
// it is not of that form. Points into `filter`, which must not be null.
const char *topic_filter_effective(const char *filter);

// Whether a filter begins with "$share/", complete or not.
bool topic_filter_is_shared(const char *filter);

}  // namespace zeb
