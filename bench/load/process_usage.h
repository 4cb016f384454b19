// What a process has used so far, from /proc.
#pragma once

#include <sys/types.h>

#include <cstdint>

namespace zeb_load {

struct process_usage {
    double cpu_s = 0;  // user and system, all threads
    uint64_t resident_kib = 0;
};

// False when there is no such process.
bool read_usage(pid_t pid, process_usage &out);

double own_cpu_s();

}  // namespace zeb_load
