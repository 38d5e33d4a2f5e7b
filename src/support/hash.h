// FNV-1a over bytes, 64 bits: the content fingerprints of the audit file and of the generations,
// and the checksum of a position slot. Not for anything an attacker chooses to collide.
#pragma once

#include <cstdint>
#include <string_view>

namespace adcdf {

constexpr uint64_t fnv1a(std::string_view bytes) {
  uint64_t hash = 14695981039346656037ULL;
  for (char c : bytes) hash = (hash ^ static_cast<unsigned char>(c)) * 1099511628211ULL;
  return hash;
}

}  // namespace adcdf
