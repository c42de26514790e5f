#include "vorsim/contact/WarmStartCache.hpp"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <functional>
#include <limits>

#include "vorsim/Object.hpp"

namespace vorsim {
namespace contact {

namespace {
constexpr uint32_t kNone = std::numeric_limits<uint32_t>::max();

// Bucket count: a power of two of at least twice the entries.
uint64_t tableSize(size_t entries) {
  uint64_t size = 16;
  while (size < 2 * uint64_t(entries)) size *= 2;
  return size;
}

// Clips a contact's impulse to pushing and to its friction cone (the cone the
// solver tests: tangential at most mu times normal).
void clipToCone(Single3DContactProblem& P) {
  Mat<3, 1>& p = P.impulse;
  if (!(p[2] > 0.0)) {
    p.setZero();
    return;
  }
  if (P.mu < 0.0001) {
    p[0] = p[1] = 0.0;
    return;
  }
  const double t2 = p[0] * p[0] + p[1] * p[1];
  const double limit = P.mu * p[2];
  if (t2 > limit * limit) {
    const double scale = limit / std::sqrt(t2);
    p[0] *= scale;
    p[1] *= scale;
  }
}
}  // namespace

uint64_t WarmStartCache::hash(const WarmStartKey& key) {
  uint64_t h = uint64_t(reinterpret_cast<uintptr_t>(key.first)) * 0x9E3779B97F4A7C15ull;
  h ^= uint64_t(reinterpret_cast<uintptr_t>(key.second)) * 0xC2B2AE3D27D4EB4Full + (h >> 29);
  h ^= key.index * 0x165667B19E3779F9ull + (h >> 32);
  return h ^ (h >> 31);
}

uint32_t WarmStartCache::findGroup(const WarmStartKey& key) const {
  const uint64_t mask = slots_.size() - 1;
  for (uint64_t s = hash(key) & mask;; s = (s + 1) & mask) {
    const uint32_t g = slots_[s];
    if (g == kNone || groups_[g].key == key) return g;
  }
}

void WarmStartCache::clear() {
  entries_.clear();
  used_.clear();
  groups_.clear();
  slots_.clear();
}

size_t WarmStartCache::seed(const std::vector<Object*>& objects, ProblemList& problems, int configuration,
                            double timeStep) {
  seedConfiguration_ = configuration;
  seedTimeStep_ = timeStep;
  // Problems the world noted take their frames and keys from the notes; the
  // others are found in the records that follow the noted problems' records
  // in each list.
  const size_t noted = notedPoints_ <= problems.size() ? notedPoints_ : 0;
  notedPoints_ = 0;
  frames_.resize(problems.size());
  for (size_t i = 0; i < noted; ++i) {
    // The collision library may report a pair in either order from step to
    // step (the broad phase sorts by position): the key takes the geoms in
    // address order, and the impulse is kept as the one on the side of the
    // first of them. Integer selects: the order of two addresses is no
    // pattern to predict.
    const PointNote& n = notes_[i];
    const uintptr_t a1 = reinterpret_cast<uintptr_t>(n.geom1), a2 = reinterpret_cast<uintptr_t>(n.geom2);
    const bool swapped = a2 < a1;
    const uintptr_t lo = swapped ? a2 : a1, hi = swapped ? a1 : a2;
    problems[i].warmStartKey = WarmStartKey::geoms(reinterpret_cast<const void*>(lo), reinterpret_cast<const void*>(hi));
    frames_[i] = ProblemFrame{n.frame, swapped, true};
  }
  std::fill(frames_.begin() + std::ptrdiff_t(noted), frames_.end(), ProblemFrame{nullptr, false, false});
  for (Object* object : objects) {
    const std::vector<Contact>& list = object->getContacts();
    size_t first = list.size();
    while (first > 0 && list[first - 1].contactProblemIndex >= noted) --first;
    for (size_t r = first; r < list.size(); ++r) {
      const Contact& c = list[r];
      if (c.contactProblemIndex >= problems.size()) continue;
      ProblemFrame& f = frames_[c.contactProblemIndex];
      f.frame = &c.frame;
      // Once a problem's key is set, a further record of its point changes
      // nothing: it is not looked at again.
      if (f.keyed || c.colObjectA == nullptr) continue;
      Single3DContactProblem& P = problems[c.contactProblemIndex];
      if (P.warmStartKey.empty()) {
        // The collision library may report a pair in either order from step
        // to step (the broad phase sorts by position): the key takes the geoms
        // in address order, and the impulse is kept as the one on the side of
        // the first of them.
        const bool swapped = std::less<const void*>()(c.colObjectB, c.colObjectA);
        P.warmStartKey =
            swapped ? WarmStartKey::geoms(c.colObjectB, c.colObjectA) : WarmStartKey::geoms(c.colObjectA, c.colObjectB);
        f.swapped = swapped;
      }
      f.keyed = !P.warmStartKey.empty();
    }
  }

  if (entries_.empty() || configuration != storedConfiguration_) return 0;
  std::fill(used_.begin(), used_.end(), uint8_t(0));
  const double scale = timeStep == storedTimeStep_ ? 1.0 : timeStep / storedTimeStep_;
  const double tolerance2 = tolerance_ * tolerance_;

  size_t matched = 0;
  // The points of one pair of geoms come one after another: the group of the
  // last key is kept.
  WarmStartKey lastKey;
  uint32_t group = kNone;
  for (size_t i = 0; i < problems.size(); ++i) {
    Single3DContactProblem& P = problems[i];
    if (P.warmStartKey.empty() || P.rank == 0) continue;
    if (P.warmStartKey != lastKey) {
      lastKey = P.warmStartKey;
      group = findGroup(lastKey);
    }
    if (group == kNone) continue;
    const bool inWorld = frames_[i].frame != nullptr;
    uint32_t best = kNone;
    double bestDistance2 = 0.0;
    for (uint32_t k = groups_[group].begin, end = groups_[group].end; k < end; ++k) {
      const Entry& e = entries_[k];
      if (used_[k] || e.inWorld != inWorld) continue;
      const double dx = e.position[0] - P.position[0], dy = e.position[1] - P.position[1],
                   dz = e.position[2] - P.position[2];
      const double d2 = dx * dx + dy * dy + dz * dz;
      if (d2 <= tolerance2 && (best == kNone || d2 < bestDistance2)) {
        best = k;
        bestDistance2 = d2;
      }
    }
    if (best == kNone) continue;
    const Entry& e = entries_[best];
    used_[best] = 1;
    if (inWorld) {
      // World vector into this step's contact frame (rows of the frame).
      matvecmul(*frames_[i].frame, e.impulse, P.impulse);
    } else {
      P.impulse = e.impulse;
    }
    const double factor = scale * (frames_[i].swapped ? -1.0 : 1.0);
    for (size_t k = 0; k < 3; ++k) P.impulse[k] *= factor;
    if (P.rank <= 3) {
      clipToCone(P);
    } else if (P.rank == 4) {
      P.impulse[0] = P.impulse[1] = 0.0;
      if (!(P.impulse[2] > 0.0)) P.impulse[2] = 0.0;
    }
    ++matched;
  }
  return matched;
}

void WarmStartCache::store(const ProblemList& problems) {
  entries_.clear();
  groups_.clear();
  groupOf_.clear();
  // At most one group per problem: the table is at most half full.
  slots_.assign(tableSize(problems.size()), kNone);
  const uint64_t mask = slots_.size() - 1;
  // Whether every key's points stand one after another in the list.
  bool consecutive = true;
  uint32_t group = kNone;
  for (size_t i = 0; i < problems.size(); ++i) {
    const Single3DContactProblem& P = problems[i];
    if (P.warmStartKey.empty()) continue;
    if (group == kNone || groups_[group].key != P.warmStartKey) {
      uint64_t s = hash(P.warmStartKey) & mask;
      while (slots_[s] != kNone && groups_[slots_[s]].key != P.warmStartKey) s = (s + 1) & mask;
      if (slots_[s] == kNone) {
        slots_[s] = uint32_t(groups_.size());
        // Filled field by field: a whole-record copy would read back the
        // halves of a record just written on the stack.
        Group& g = groups_.emplace_back();
        g.key = P.warmStartKey;
        g.begin = g.end = uint32_t(entries_.size());
      } else {
        consecutive = false;
      }
      group = slots_[s];
    }
    groupOf_.push_back(group);
    ++groups_[group].end;
    Entry& e = entries_.emplace_back();
    e.position = P.position;
    e.inWorld = i < frames_.size() && frames_[i].frame != nullptr;
    if (e.inWorld) {
      // Contact frame to world: the transpose of the frame.
      const Mat<3, 3>& F = *frames_[i].frame;
      const double sign = frames_[i].swapped ? -1.0 : 1.0;
      for (size_t r = 0; r < 3; ++r)
        e.impulse[r] = sign * (F(0, r) * P.impulse[0] + F(1, r) * P.impulse[1] + F(2, r) * P.impulse[2]);
    } else {
      e.impulse = P.impulse;
    }
  }
  storedConfiguration_ = seedConfiguration_;
  storedTimeStep_ = seedTimeStep_;
  used_.resize(entries_.size());
  if (consecutive) return;

  // A key came back after other keys: its group's end counted its points
  // from its begin. Lay the groups out one after another, each in list order.
  uint32_t begin = 0;
  for (Group& g : groups_) {
    const uint32_t count = g.end - g.begin;
    g.begin = g.end = begin;
    begin += count;
  }
  regrouped_.resize(entries_.size());
  for (size_t k = 0; k < entries_.size(); ++k) regrouped_[groups_[groupOf_[k]].end++] = entries_[k];
  entries_.swap(regrouped_);
}

}  // namespace contact
}  // namespace vorsim
