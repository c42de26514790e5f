#include "vorsim/Collision.hpp"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <limits>
#include <mutex>
#include <unordered_map>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "rayCast.hpp"
#include "vorsim/VorSimMsg.hpp"

namespace vorsim {

dGeomID attachGeomData(dGeomID geom) {
  dGeomSetData(geom, new GeomData());
  return geom;
}

void destroyGeom(dGeomID geom) {
  if (geom == nullptr) return;
  delete static_cast<GeomData*>(dGeomGetData(geom));
  dGeomSetData(geom, nullptr);
  dGeomDestroy(geom);
}

dGeomID createTriMeshGeom(dSpaceID space, const std::vector<float>& vertices, const std::vector<uint32_t>& indices,
                          dTriMeshDataID& data) {
  data = dGeomTriMeshDataCreate();
  dGeomTriMeshDataBuildSingle(data, vertices.data(), 3 * sizeof(float), int(vertices.size() / 3), indices.data(),
                              int(indices.size()), 3 * sizeof(uint32_t));
  // Concave edges and face angles: flag bits 0 and 1.
  dGeomTriMeshDataPreprocess2(data, 3u, nullptr);
  dGeomID geom = attachGeomData(dCreateTriMesh(space, data, nullptr, nullptr, nullptr));
  geomData(geom).userData = data;
  return geom;
}

namespace {
std::atomic<uint64_t> bitsGeneration{1};
}  // namespace

void setCollisionBits(dGeomID geom, uint64_t collisionGroup, uint64_t collisionMask) {
  dGeomSetCategoryBits(geom, static_cast<unsigned long>(collisionGroup & 0xFFFFFFFFull));
  dGeomSetCollideBits(geom, static_cast<unsigned long>(collisionMask & 0xFFFFFFFFull));
  bitsGeneration.fetch_add(1, std::memory_order_relaxed);
}

uint32_t getCategoryBits(dGeomID geom) { return static_cast<uint32_t>(dGeomGetCategoryBits(geom)); }
uint32_t getCollideBits(dGeomID geom) { return static_cast<uint32_t>(dGeomGetCollideBits(geom)); }
uint64_t collisionBitsGeneration() { return bitsGeneration.load(std::memory_order_relaxed); }

// -------------------------------------------------------------- broad phase --

void SweepAndPrune::add(dGeomID geom) {
  GeomData& d = geomData(geom);
  d.slot = geoms_.size();
  d.joinOrder = nextJoinOrder_++;
  geoms_.push_back(geom);
  dirty_ = true;
}

void SweepAndPrune::removeObject(size_t objectIndex) {
  std::vector<dGeomID> leaving;
  for (dGeomID g : geoms_)
    if (geomData(g).objectIndex == objectIndex) leaving.push_back(g);
  std::sort(leaving.begin(), leaving.end(),
            [](dGeomID a, dGeomID b) { return geomData(a).joinOrder < geomData(b).joinOrder; });
  for (dGeomID g : leaving) {
    GeomData& d = geomData(g);
    dGeomID last = geoms_.back();
    geoms_[d.slot] = last;
    geomData(last).slot = d.slot;
    geoms_.pop_back();
    d.slot = size_t(-1);
    d.canPair = true;
  }
  dirty_ = true;
}

void SweepAndPrune::refresh() {
  bitsGeneration_ = collisionBitsGeneration();
  dirty_ = false;
  // Geoms are grouped by their (category, collide) pair; a scene has few
  // distinct pairs, so deciding who can pair costs about one pass.
  struct Kind {
    uint32_t category, collide;
    size_t count;
    bool canPair;
  };
  std::vector<Kind> kinds;
  std::vector<uint32_t> kindOf(geoms_.size());
  for (size_t i = 0; i < geoms_.size(); ++i) {
    const uint32_t category = getCategoryBits(geoms_[i]), collide = getCollideBits(geoms_[i]);
    size_t k = 0;
    while (k < kinds.size() && (kinds[k].category != category || kinds[k].collide != collide)) ++k;
    if (k == kinds.size()) kinds.push_back({category, collide, 0, false});
    ++kinds[k].count;
    kindOf[i] = uint32_t(k);
  }
  kinds_ = kinds.size();
  const bool keepTable = kinds_ <= kMaxFilteredKinds;
  kindsPass_.assign(keepTable ? kinds_ * kinds_ : 0, 0);
  for (size_t a = 0; a < kinds_; ++a)
    for (size_t b = 0; b < kinds_; ++b) {
      const Kind &ka = kinds[a], &kb = kinds[b];
      const bool pass = ((ka.category & kb.collide) | (kb.category & ka.collide)) != 0;
      if (keepTable) kindsPass_[a * kinds_ + b] = pass;
      if (pass && (a != b || ka.count > 1)) kinds[a].canPair = true;
    }
  boundedOfKind_.assign(keepTable ? kinds_ : 0, 0);
  kindHasPartner_.assign(keepTable ? kinds_ : 0, 1);

  entries_.clear();
  for (size_t i = 0; i < geoms_.size(); ++i) {
    const Kind& k = kinds[kindOf[i]];
    geomData(geoms_[i]).canPair = k.canPair;
    if (!k.canPair) continue;
    Entry e{};
    e.category = k.category;
    e.collide = k.collide;
    e.order = uint32_t(i);
    e.kind = kindOf[i];
    e.geom = geoms_[i];
    entries_.push_back(e);
  }
}

namespace {

template <typename Entry>
inline bool sweepsBefore(const Entry& a, const Entry& b) {
  return a.key < b.key || (a.key == b.key && a.order < b.order);
}

// Insertion sort, linear on the nearly sorted entries of a steady scene; when
// the order changed much (the first step, objects placed anew) it hands over
// to std::sort. The comparison is a total order (ties go by list place), so
// both give the same result.
template <typename Entry>
void sortEntries(std::vector<Entry>& entries) {
  const size_t n = entries.size();
  size_t budget = 8 * n + 64;
  for (size_t i = 1; i < n; ++i) {
    if (!sweepsBefore(entries[i], entries[i - 1])) continue;
    const Entry moving = entries[i];
    size_t j = i;
    do {
      entries[j] = entries[j - 1];
      --j;
    } while (j > 0 && sweepsBefore(moving, entries[j - 1]) && --budget > 0);
    entries[j] = moving;
    if (budget == 0) {
      std::sort(entries.begin(), entries.end(), sweepsBefore<Entry>);
      return;
    }
  }
}

}  // namespace

void SweepAndPrune::collide(void* data, dNearCallback* callback) {
  constexpr double inf = std::numeric_limits<double>::infinity();
  size_t bounded = 0;
  for (Entry& e : entries_) {
    e.enabled = dGeomIsEnabled(e.geom) != 0;
    e.unbounded = false;
    e.key = inf;
    if (!e.enabled) continue;
    dReal* box = e.box;
    dGeomGetAABB(e.geom, box);
    e.unbounded = std::isinf(box[0]) || std::isinf(box[1]) || std::isinf(box[2]) || std::isinf(box[3]) ||
                  std::isinf(box[4]) || std::isinf(box[5]);
    // A box with a NaN bound overlaps nothing in a well-defined way: it is
    // left out, as a disabled geom is.
    if (!e.unbounded && !std::isnan(box[2])) {
      e.key = box[2];
      ++bounded;
    }
  }
  sortEntries(entries_);

  const bool filterKinds = kinds_ <= kMaxFilteredKinds;
  if (filterKinds) {
    std::fill(boundedOfKind_.begin(), boundedOfKind_.end(), 0u);
    for (size_t i = 0; i < bounded; ++i) ++boundedOfKind_[entries_[i].kind];
    for (size_t a = 0; a < kinds_; ++a) {
      bool partner = false;
      for (size_t b = 0; b < kinds_ && !partner; ++b)
        partner = kindsPass_[a * kinds_ + b] && boundedOfKind_[b] > (a == b ? 1u : 0u);
      kindHasPartner_[a] = partner;
    }
  }

  auto passes = [](const Entry& a, const Entry& b) {
    return ((a.category & b.collide) | (b.category & a.collide)) != 0;
  };
  auto overlap = [](const Entry& a, const Entry& b) {
    return a.box[0] <= b.box[1] && b.box[0] <= a.box[1] && a.box[2] <= b.box[3] && b.box[2] <= a.box[3] &&
           a.box[4] <= b.box[5] && b.box[4] <= a.box[5];
  };

  // The bounded entries lead, sorted by their lower y bound; the others
  // follow in list order. Sweep along y, then test x and z.
  for (size_t i = 0; i < bounded; ++i) {
    const Entry& a = entries_[i];
    if (filterKinds && !kindHasPartner_[a.kind]) continue;
#if defined(__SSE2__)
    // The four tests b.x0 > a.x1, a.x0 > b.x1, b.z0 > a.z1, a.z0 > b.z1 in
    // two packed compares: the second lane compares negated values (exact,
    // and false with NaN as the plain compare), so that one predicate serves
    // both lanes. One branch then decides, where the four tests fail in no
    // pattern a branch predictor could learn.
    const __m128d flip = _mm_set_pd(-0.0, 0.0);
    const __m128d ax = _mm_xor_pd(_mm_set_pd(a.box[0], a.box[1]), flip);
    const __m128d az = _mm_xor_pd(_mm_set_pd(a.box[4], a.box[5]), flip);
#endif
    for (size_t j = i + 1; j < bounded && entries_[j].box[2] <= a.box[3]; ++j) {
      const Entry& b = entries_[j];
#if defined(__SSE2__)
      const __m128d bx = _mm_xor_pd(_mm_loadu_pd(b.box), flip);
      const __m128d bz = _mm_xor_pd(_mm_loadu_pd(b.box + 4), flip);
      if (_mm_movemask_pd(_mm_or_pd(_mm_cmpgt_pd(bx, ax), _mm_cmpgt_pd(bz, az))) != 0) continue;
#else
      if (b.box[0] > a.box[1] || a.box[0] > b.box[1] || b.box[4] > a.box[5] || a.box[4] > b.box[5]) continue;
#endif
      if (passes(a, b)) callback(data, a.geom, b.geom);
    }
  }
  const size_t n = entries_.size();
  for (size_t u = bounded; u < n; ++u) {
    const Entry& a = entries_[u];
    if (!a.unbounded) continue;
    for (size_t i = 0; i < bounded; ++i)
      if (passes(a, entries_[i]) && overlap(a, entries_[i])) callback(data, entries_[i].geom, a.geom);
    for (size_t v = u + 1; v < n; ++v)
      if (entries_[v].unbounded && passes(a, entries_[v]) && overlap(a, entries_[v]))
        callback(data, a.geom, entries_[v].geom);
  }
}

// ------------------------------------------------------------- heightfields --

namespace {

// Where a point falls on the grid: cell (column i, row j), offsets u and v in
// the cell, and whether the point was outside along x or z (and so clamped
// onto the border).
struct GridLocation {
  size_t i, j;
  double u, v;
  bool outsideX, outsideZ;
};

inline void locateAxis(double x, double size, size_t samples, size_t& cell, double& offset, bool& outside) {
  outside = !(x >= 0.0 && x <= size);
  const double clamped = std::min(std::max(x, 0.0), size);
  const double f = clamped * (double(samples - 1) / size);
  cell = std::min(size_t(f), samples - 2);
  offset = f - double(cell);
}

inline GridLocation locate(const HeightfieldGrid& g, double x, double z) {
  GridLocation at;
  locateAxis(x, g.xSize, g.xSamples, at.i, at.u, at.outsideX);
  locateAxis(z, g.zSize, g.zSamples, at.j, at.v, at.outsideZ);
  return at;
}

struct CellHeights {
  double h00, h10, h01, h11;  // (column, row) offsets
};

inline CellHeights cellHeights(const HeightfieldGrid& g, const GridLocation& at) {
  const double* row0 = g.heights + at.j * g.xSamples + at.i;
  const double* row1 = row0 + g.xSamples;
  return {row0[0], row0[1], row1[0], row1[1]};
}

struct HeightfieldRegistry {
  struct Entry {
    HeightfieldGrid grid;
    std::shared_ptr<const HeightfieldRayIndex> rayIndex;
  };
  std::mutex mutex;
  std::unordered_map<const dxHeightfieldData*, Entry> grids;
};

HeightfieldRegistry& registry() {
  static HeightfieldRegistry instance;
  return instance;
}

bool findGrid(dxHeightfieldData* data, HeightfieldGrid& grid) {
  HeightfieldRegistry& r = registry();
  std::lock_guard<std::mutex> lock(r.mutex);
  auto it = r.grids.find(data);
  if (it == r.grids.end()) return false;
  grid = it->second.grid;
  return true;
}

}  // namespace

double heightfieldHeight(const HeightfieldGrid& grid, double x, double z) {
  if (std::isnan(x) || std::isnan(z)) return std::numeric_limits<double>::quiet_NaN();
  const GridLocation at = locate(grid, x, z);
  const CellHeights c = cellHeights(grid, at);
  if (at.u + at.v <= 1.0) return c.h00 + (c.h10 - c.h00) * at.u + (c.h01 - c.h00) * at.v;
  return c.h11 + (c.h10 - c.h11) * (1.0 - at.v) + (c.h01 - c.h11) * (1.0 - at.u);
}

void heightfieldNormal(const HeightfieldGrid& grid, double x, double z, Mat<3, 1>& normal) {
  if (std::isnan(x) || std::isnan(z)) {
    const double nan = std::numeric_limits<double>::quiet_NaN();
    normal = {nan, nan, nan};
    return;
  }
  const GridLocation at = locate(grid, x, z);
  const CellHeights c = cellHeights(grid, at);
  // Slopes per cell offset on the triangle that holds the point.
  double du, dv;
  if (at.u + at.v <= 1.0) {
    du = c.h10 - c.h00;
    dv = c.h01 - c.h00;
  } else {
    du = c.h11 - c.h01;
    dv = c.h11 - c.h10;
  }
  const double gx = at.outsideX ? 0.0 : du * (double(grid.xSamples - 1) / grid.xSize);
  const double gz = at.outsideZ ? 0.0 : dv * (double(grid.zSamples - 1) / grid.zSize);
  const double n = std::sqrt(gx * gx + gz * gz + 1.0);
  normal = {-gx / n, -gz / n, 1.0 / n};
}

void registerHeightfieldGrid(dxHeightfieldData* data, const HeightfieldGrid& grid) {
  std::shared_ptr<const HeightfieldRayIndex> index = makeHeightfieldRayIndex(grid);
  HeightfieldRegistry& r = registry();
  std::lock_guard<std::mutex> lock(r.mutex);
  r.grids[data] = {grid, std::move(index)};
}

std::shared_ptr<const HeightfieldRayIndex> findHeightfieldRayIndex(dxHeightfieldData* data) {
  HeightfieldRegistry& r = registry();
  std::lock_guard<std::mutex> lock(r.mutex);
  auto it = r.grids.find(data);
  return it == r.grids.end() ? nullptr : it->second.rayIndex;
}

void unregisterHeightfieldGrid(dxHeightfieldData* data) {
  HeightfieldRegistry& r = registry();
  std::lock_guard<std::mutex> lock(r.mutex);
  r.grids.erase(data);
}

double dxgetHeightFromHeightField(dxHeightfieldData* data, double x, double z) {
  HeightfieldGrid grid;
  if (!findGrid(data, grid)) {
    MSG_FATAL("heightfield data that no height map registered");
    return std::numeric_limits<double>::quiet_NaN();
  }
  return heightfieldHeight(grid, x, z);
}

void dxgetNormalFromHeightField(dxHeightfieldData* data, double x, double z, Mat<3, 1>& normal) {
  HeightfieldGrid grid;
  if (!findGrid(data, grid)) {
    MSG_FATAL("heightfield data that no height map registered");
    const double nan = std::numeric_limits<double>::quiet_NaN();
    normal = {nan, nan, nan};
    return;
  }
  heightfieldNormal(grid, x, z, normal);
}

}  // namespace vorsim
