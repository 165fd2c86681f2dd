// Hash combination for the firewall records: folds field hashes in order, so that records whose
// fields are equal in the same order hash equally. Stateless; usable from any thread.
#pragma once

#include <cstddef>
#include <functional>

inline void hashCombine(std::size_t& seed, std::size_t value) {
  seed ^= value + 0x9E3779B97F4A7C15ULL + (seed << 6) + (seed >> 2);
}

template <typename T>
void hashField(std::size_t& seed, const T& value) {
  hashCombine(seed, std::hash<T>{}(value));
}
