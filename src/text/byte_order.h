// Byte-order helpers for the index engines, which store integers and doubles
// most-significant byte first inside their keys so that the keys order byte
// by byte.
#pragma once

#include <cstdint>

namespace kestrel {

// The 16-bit value with its two bytes exchanged.
constexpr uint16_t SwapBytes16(uint16_t value) {
  return static_cast<uint16_t>((value >> 8) | (value << 8));
}

// The 32-bit value with its byte order reversed.
constexpr uint32_t SwapBytes32(uint32_t value) {
  return (value >> 24) | ((value >> 8) & 0x0000FF00u) | ((value << 8) & 0x00FF0000u) |
         (value << 24);
}

// Copies 4 bytes from source to destination in reverse order (a native
// little-endian 32-bit integer becomes most-significant byte first).
inline void ReverseCopy4(void* destination, const void* source) {
  auto* d = static_cast<uint8_t*>(destination);
  const auto* s = static_cast<const uint8_t*>(source);
  const uint8_t b0 = s[0], b1 = s[1], b2 = s[2], b3 = s[3];  // source may alias destination
  d[0] = b3;
  d[1] = b2;
  d[2] = b1;
  d[3] = b0;
}

// Copies 8 bytes in reverse order (an IEEE double, most-significant byte first).
inline void ReverseCopy8(void* destination, const void* source) {
  auto* d = static_cast<uint8_t*>(destination);
  const auto* s = static_cast<const uint8_t*>(source);
  uint8_t tmp[8];
  for (int i = 0; i < 8; ++i) tmp[i] = s[i];
  for (int i = 0; i < 8; ++i) d[i] = tmp[7 - i];
}

}  // namespace kestrel
