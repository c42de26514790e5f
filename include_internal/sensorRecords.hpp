// Writers of the sensors' byte records: packed little-endian fields at a moving
// pointer, whatever the host's byte order and alignment.
#ifndef VORSIM_INTERNAL_SENSORRECORDS_HPP
#define VORSIM_INTERNAL_SENSORRECORDS_HPP

#include <cstdint>
#include <cstring>
#include <string>

namespace vorsim {
namespace record {

inline char* putU32(char* out, uint32_t value) {
  for (int k = 0; k < 4; ++k) out[k] = char((value >> (8 * k)) & 0xFFu);
  return out + 4;
}

inline char* putU64(char* out, uint64_t value) {
  for (int k = 0; k < 8; ++k) out[k] = char((value >> (8 * k)) & 0xFFu);
  return out + 8;
}

inline char* putDouble(char* out, double value) {
  uint64_t bits;
  std::memcpy(&bits, &value, sizeof(bits));
  return putU64(out, bits);
}

inline char* putFloat(char* out, float value) {
  uint32_t bits;
  std::memcpy(&bits, &value, sizeof(bits));
  return putU32(out, bits);
}

// uint32 length, then the bytes without a terminator.
inline char* putString(char* out, const std::string& text) {
  out = putU32(out, uint32_t(text.size()));
  if (!text.empty()) std::memcpy(out, text.data(), text.size());
  return out + text.size();
}

inline size_t stringSize(const std::string& text) { return 4 + text.size(); }

// The head every property record starts with.
inline char* putHead(char* out, uint32_t type, const std::string& name) { return putString(putU32(out, type), name); }
inline size_t headSize(const std::string& name) { return 4 + stringSize(name); }

// The property record of both cameras after the head.
template <typename CameraProperties>
char* putCamera(char* out, const CameraProperties& p) {
  out = putU32(out, uint32_t(p.width));
  out = putU32(out, uint32_t(p.height));
  out = putDouble(out, p.clipNear);
  out = putDouble(out, p.clipFar);
  out = putDouble(out, p.hFOV);
  out = putU32(out, uint32_t(p.noiseType));
  out = putDouble(out, p.mean);
  out = putDouble(out, p.std);
  return putString(out, p.format);
}

template <typename CameraProperties>
size_t cameraSize(const CameraProperties& p) {
  return 4 + 4 + 3 * 8 + 4 + 2 * 8 + stringSize(p.format);
}

}  // namespace record
}  // namespace vorsim

#endif  // VORSIM_INTERNAL_SENSORRECORDS_HPP
