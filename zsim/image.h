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
// The part only reconfigurations touch, around them; more of it (before
// the first save): table slots no ring of the topology can take.
void image_add_cold(const void *p, size_t len);
bool image_cold_same(const std::vector<uint8_t> &saved); // a check for tests
void image_save_cold(std::vector<uint8_t> &to);
void image_load_cold(const std::vector<uint8_t> &from);
} // namespace zsim
