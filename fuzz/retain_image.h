#pragma once

#include <cstdint>
#include <vector>

#include "fuzz/fuzz_input.h"

namespace zeb_fuzz {

// The content of a file of retained messages: records of the input's making behind a count, sometimes with
// the log of an interrupted save, whose checksum is right, and some bytes of it changed in the end.
std::vector<uint8_t> build_retain_file(fuzz_input *in);

}  // namespace zeb_fuzz
