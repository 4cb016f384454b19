#pragma once

#include <string>

namespace zeb_fuzz {

// A directory of this process alone, in memory where the system has such a place. run.sh names one that it
// removes in the end ($ZEB_FUZZ_DIRECTORY), because a fuzzer that crashes cannot.
const std::string &fuzz_directory();

// Removes everything in it, and leaves it there.
void empty_fuzz_directory();

}  // namespace zeb_fuzz
