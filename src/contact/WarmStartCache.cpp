#include "vorsim/contact/WarmStartCache.hpp"

#include <cmath>
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

void WarmStartCache::clear() {
  entries_.clear();
  heads_.clear();
  next_.clear();
}

size_t WarmStartCache::seed(const std::vector<Object*>& objects, ProblemList& problems, int configuration,
                            double timeStep) {
  seedConfiguration_ = configuration;
  seedTimeStep_ = timeStep;
  frames_.assign(problems.size(), ProblemFrame{nullptr, 1.0});
  for (Object* object : objects) {
    for (const Contact& c : object->getContacts()) {
      if (c.contactProblemIndex >= problems.size()) continue;
      Single3DContactProblem& P = problems[c.contactProblemIndex];
      ProblemFrame& f = frames_[c.contactProblemIndex];
      f.frame = &c.frame;
      if (P.warmStartKey.empty() && c.colObjectA != nullptr) {
        // The collision library may report a pair in either order from step
        // to step (the broad phase sorts by position): the key takes the geoms
        // in address order, and the impulse is kept as the one on the side of
        // the first of them.
        const bool swapped = std::less<const void*>()(c.colObjectB, c.colObjectA);
        P.warmStartKey =
            swapped ? WarmStartKey::geoms(c.colObjectB, c.colObjectA) : WarmStartKey::geoms(c.colObjectA, c.colObjectB);
        f.sign = swapped ? -1.0 : 1.0;
      }
    }
  }

  if (entries_.empty() || configuration != storedConfiguration_) return 0;
  for (Entry& e : entries_) e.used = false;
  const double scale = timeStep == storedTimeStep_ ? 1.0 : timeStep / storedTimeStep_;
  const double tolerance2 = tolerance_ * tolerance_;

  size_t matched = 0;
  for (size_t i = 0; i < problems.size(); ++i) {
    Single3DContactProblem& P = problems[i];
    if (P.warmStartKey.empty() || P.rank == 0) continue;
    const bool inWorld = frames_[i].frame != nullptr;
    uint32_t best = kNone;
    double bestDistance2 = 0.0;
    for (uint32_t k = heads_[hash(P.warmStartKey) & mask_]; k != kNone; k = next_[k]) {
      const Entry& e = entries_[k];
      if (e.used || e.key != P.warmStartKey || e.inWorld != inWorld) continue;
      const double dx = e.position[0] - P.position[0], dy = e.position[1] - P.position[1],
                   dz = e.position[2] - P.position[2];
      const double d2 = dx * dx + dy * dy + dz * dz;
      if (d2 <= tolerance2 && (best == kNone || d2 < bestDistance2)) {
        best = k;
        bestDistance2 = d2;
      }
    }
    if (best == kNone) continue;
    Entry& e = entries_[best];
    e.used = true;
    if (inWorld) {
      // World vector into this step's contact frame (rows of the frame).
      matvecmul(*frames_[i].frame, e.impulse, P.impulse);
    } else {
      P.impulse = e.impulse;
    }
    const double factor = scale * frames_[i].sign;
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
  for (size_t i = 0; i < problems.size(); ++i) {
    const Single3DContactProblem& P = problems[i];
    if (P.warmStartKey.empty()) continue;
    Entry& e = entries_.emplace_back();
    e.key = P.warmStartKey;
    e.position = P.position;
    e.used = false;
    e.inWorld = i < frames_.size() && frames_[i].frame != nullptr;
    if (e.inWorld) {
      // Contact frame to world: the transpose of the frame.
      const Mat<3, 3>& F = *frames_[i].frame;
      const double sign = frames_[i].sign;
      for (size_t r = 0; r < 3; ++r)
        e.impulse[r] = sign * (F(0, r) * P.impulse[0] + F(1, r) * P.impulse[1] + F(2, r) * P.impulse[2]);
    } else {
      e.impulse = P.impulse;
    }
  }
  storedConfiguration_ = seedConfiguration_;
  storedTimeStep_ = seedTimeStep_;

  const uint64_t size = tableSize(entries_.size());
  mask_ = size - 1;
  heads_.assign(size, kNone);
  next_.resize(entries_.size());
  // Entries are pushed to the front of their bucket from the last to the
  // first, so that a bucket lists them in list order.
  for (size_t k = entries_.size(); k-- > 0;) {
    const uint64_t b = hash(entries_[k].key) & mask_;
    next_[k] = heads_[b];
    heads_[b] = uint32_t(k);
  }
}

}  // namespace contact
}  // namespace vorsim
