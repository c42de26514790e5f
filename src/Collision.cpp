#include "vorsim/Collision.hpp"

#include <algorithm>
#include <cmath>
#include <limits>
#include <mutex>
#include <unordered_map>

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

void setCollisionBits(dGeomID geom, uint64_t collisionGroup, uint64_t collisionMask) {
  dGeomSetCategoryBits(geom, static_cast<unsigned long>(collisionGroup & 0xFFFFFFFFull));
  dGeomSetCollideBits(geom, static_cast<unsigned long>(collisionMask & 0xFFFFFFFFull));
}

uint32_t getCategoryBits(dGeomID geom) { return static_cast<uint32_t>(dGeomGetCategoryBits(geom)); }
uint32_t getCollideBits(dGeomID geom) { return static_cast<uint32_t>(dGeomGetCollideBits(geom)); }

void SweepAndPrune::collide(dSpaceID space, void* data, dNearCallback* callback) {
  const int count = dSpaceGetNumGeoms(space);
  bounded_.clear();
  unbounded_.clear();
  for (int i = 0; i < count; ++i) {
    dGeomID g = dSpaceGetGeom(space, i);
    if (!dGeomIsEnabled(g)) continue;
    dReal box[6];
    dGeomGetAABB(g, box);
    // Sweep along y first, then x and z.
    Entry e{{box[2], box[0], box[4]}, {box[3], box[1], box[5]}, getCategoryBits(g), getCollideBits(g), uint32_t(i), g};
    const bool unbounded = std::isinf(box[0]) || std::isinf(box[1]) || std::isinf(box[2]) || std::isinf(box[3]) ||
                           std::isinf(box[4]) || std::isinf(box[5]);
    (unbounded ? unbounded_ : bounded_).push_back(e);
  }
  std::sort(bounded_.begin(), bounded_.end(), [](const Entry& a, const Entry& b) {
    return a.lo[0] < b.lo[0] || (a.lo[0] == b.lo[0] && a.order < b.order);
  });

  auto passes = [](const Entry& a, const Entry& b) {
    return ((a.category & b.collide) | (b.category & a.collide)) != 0;
  };
  auto overlap = [](const Entry& a, const Entry& b) {
    return a.lo[0] <= b.hi[0] && b.lo[0] <= a.hi[0] && a.lo[1] <= b.hi[1] && b.lo[1] <= a.hi[1] && a.lo[2] <= b.hi[2] &&
           b.lo[2] <= a.hi[2];
  };

  const size_t n = bounded_.size();
  for (size_t i = 0; i < n; ++i) {
    const Entry& a = bounded_[i];
    for (size_t j = i + 1; j < n && bounded_[j].lo[0] <= a.hi[0]; ++j) {
      const Entry& b = bounded_[j];
      if (b.lo[1] > a.hi[1] || a.lo[1] > b.hi[1] || b.lo[2] > a.hi[2] || a.lo[2] > b.hi[2]) continue;
      if (passes(a, b)) callback(data, a.geom, b.geom);
    }
  }
  for (size_t u = 0; u < unbounded_.size(); ++u) {
    const Entry& a = unbounded_[u];
    for (const Entry& b : bounded_)
      if (passes(a, b) && overlap(a, b)) callback(data, b.geom, a.geom);
    for (size_t v = u + 1; v < unbounded_.size(); ++v)
      if (passes(a, unbounded_[v]) && overlap(a, unbounded_[v])) callback(data, a.geom, unbounded_[v].geom);
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
