// The identity of a constraint point from one step to the next, used to start
// a contact solve from the impulses of the previous step.
#ifndef VORSIM_CONTACT_WARMSTARTKEY_HPP
#define VORSIM_CONTACT_WARMSTARTKEY_HPP

#include <cstdint>

namespace vorsim {
namespace contact {

// Two problems of consecutive steps stand for the same constraint when their
// keys are equal (and, among several with one key, their points are nearest).
// A key is one of:
//  - a collision point: the two geoms in address order (the collision library
//    may report a pair either way round), filled by the warm-start cache from
//    the world's notes of the points or from the contact records;
//  - a problem that belongs to an owner and has no geoms (a stiff wire, a
//    robot's joint limit or pin): the owner, a kind, and the owner's own index.
// An empty key (first == nullptr) never matches: the problem starts from zero.
struct WarmStartKey {
  enum Kind : uint64_t { GEOMS = 0, WIRE = 1, JOINT_LIMIT = 2, PIN = 3, OTHER = 4 };

  const void* first = nullptr;
  const void* second = nullptr;
  uint64_t index = 0;  // kind in the top byte, the owner's index below

  static WarmStartKey geoms(const void* geom1, const void* geom2) { return {geom1, geom2, 0}; }
  // `index` below 2^56 (a body, pin or wire number of the owner).
  static WarmStartKey owned(const void* owner, Kind kind, uint64_t index) {
    return {owner, nullptr, (uint64_t(kind) << 56) | (index & ((uint64_t(1) << 56) - 1))};
  }

  bool empty() const { return first == nullptr; }
  bool operator==(const WarmStartKey& o) const { return first == o.first && second == o.second && index == o.index; }
  bool operator!=(const WarmStartKey& o) const { return !(*this == o); }
};

}  // namespace contact
}  // namespace vorsim

#endif  // VORSIM_CONTACT_WARMSTARTKEY_HPP
