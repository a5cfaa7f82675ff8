// The daemon's globals, saved and put back per simulated switch.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace zsim {
size_t image_size();   // the whole block
size_t image_copied(); // what a save or load copies
void image_save(std::vector<uint8_t> &to);
void image_load(const std::vector<uint8_t> &from);
} // namespace zsim
