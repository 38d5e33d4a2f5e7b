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

// A file's identity by its content: the hash of its first bytes, at most kFingerprintBytes of
// them, so that a copy (a rotated audit file, a file restored from a backup) is recognised.
inline constexpr uint32_t kFingerprintBytes = 4096;

struct Fingerprint {
  uint32_t length = 0;  // how many bytes are covered
  uint64_t hash = 0;
  bool operator==(const Fingerprint&) const = default;
};

// The fingerprint of the first min(size, kFingerprintBytes) bytes of `bytes`.
constexpr Fingerprint fingerprint_of(std::string_view bytes) {
  bytes = bytes.substr(0, kFingerprintBytes);
  return Fingerprint{static_cast<uint32_t>(bytes.size()), fnv1a(bytes)};
}

}  // namespace adcdf
