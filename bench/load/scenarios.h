// What the program can be asked to do. Each fills a report and returns the exit status.
#pragma once

#include <string>

#include "connection.h"
#include "histogram.h"
#include "options.h"
#include "report.h"

namespace zeb_load {

int run_connect(const options &o, const endpoint &to, report &out);
int run_idle(const options &o, const endpoint &to, report &out);
int run_publish(const options &o, const endpoint &to, report &out);
int run_search(const options &o, const endpoint &to, report &out);

// One outcome of publishing, in its keys.
struct outcome;
void add_outcome(const options &o, const outcome &got, const char *scenario, report &out);
void add_latencies(const histogram &latencies_ns, report &out);
// A number that only --pid gives.
void add_known(const char *key, bool known, uint64_t number, report &out);
int fail(const std::string &error, report &out);

}  // namespace zeb_load
