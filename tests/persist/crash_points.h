#pragma once

#include <string>
#include <vector>

// The calls that change files are counted, and the process ends before a given one, or in the middle of it
// when it writes. crash_test.cpp puts itself in their place.

namespace zeb_test {

struct crash_plan {
    int at = 0;               // the call at which the process ends, counted from 1; 0: never
    int written_percent = 0;  // how much of that call's bytes arrive first
    int calls = 0;
    bool full = false;        // the disk is full at that call, and the process lives on
    int interruptions = 0;    // so many calls that can be interrupted are, before any succeeds
    int failing_renames = 0;  // so many fail
    std::vector<std::string> *trace = nullptr;  // what was called, with the file's name
};

extern crash_plan g_crash;

inline constexpr int k_crashed = 77;  // the exit code of a process that ended there

}  // namespace zeb_test
