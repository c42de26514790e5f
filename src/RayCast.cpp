// Ray casting in the collision layer: closed-form intersections with the
// primitive shapes, a block-skipping walk over heightfield grids, dRayTest
// over a whole space, and RayScene, a snapshot of a space with a
// bounding-volume tree for sensors that cast many rays into a scene that holds
// still.
//
// Conventions, as the collision library's own ray tests have them: the
// direction is a unit vector and depth is the distance along it; a convex
// shape is hit where the ray enters it, or where it leaves it when the ray
// starts inside; a hit at exactly the reach counts. Normals face the ray's
// start.
#include <algorithm>
#include <cmath>
#include <limits>

#include "rayCast.hpp"
#include "vorsim/Collision.hpp"

namespace vorsim {

namespace {

constexpr double kInf = std::numeric_limits<double>::infinity();
// Slack of the heightfield's triangle and height-range tests, so that a ray
// through an edge or a vertex is not lost between two triangles.
constexpr double kEdgeSlack = 1e-12;
constexpr double kHeightSlack = 1e-9;

enum ShapeKind : int { SPHERE, BOX, CAPSULE, CYLINDER, PLANE, HEIGHTFIELD, OTHER };

inline double dot3(const double* a, const double* b) { return a[0] * b[0] + a[1] * b[1] + a[2] * b[2]; }

// A hit in the shape's own frame: distance and outward normal (not yet turned
// toward the ray).
struct LocalHit {
  double t;
  double normal[3];
};

// Picks the distance of a ray against a convex interval [t0, t1]: the entry,
// or the exit when the ray starts inside. False when the interval lies behind
// the start or beyond tMax.
inline bool pickConvex(double t0, double t1, double tMax, double& t, bool& atEntry) {
  if (t0 >= 0.0) {
    t = t0;
    atEntry = true;
  } else if (t1 >= 0.0) {
    t = t1;
    atEntry = false;
  } else {
    return false;
  }
  return t <= tMax;
}

inline bool sphereInterval(const double* s, const double* d, double r, double& t0, double& t1) {
  const double b = dot3(s, d), c = dot3(s, s) - r * r;
  const double disc = b * b - c;
  if (disc < 0.0) return false;
  const double k = std::sqrt(disc);
  t0 = -b - k;
  t1 = -b + k;
  return true;
}

bool raySphere(const double* s, const double* d, double r, double tMax, LocalHit& hit) {
  double t0, t1, t;
  bool entry;
  if (!sphereInterval(s, d, r, t0, t1) || !pickConvex(t0, t1, tMax, t, entry)) return false;
  hit.t = t;
  for (int k = 0; k < 3; ++k) hit.normal[k] = (s[k] + t * d[k]) / r;
  return true;
}

bool rayBox(const double* s, const double* d, const double* half, double tMax, LocalHit& hit) {
  double lo = -kInf, hi = kInf;
  int loAxis = 0, hiAxis = 0;
  for (int k = 0; k < 3; ++k) {
    if (d[k] == 0.0) {
      if (s[k] < -half[k] || s[k] > half[k]) return false;
      continue;
    }
    double a = (-half[k] - s[k]) / d[k], b = (half[k] - s[k]) / d[k];
    if (a > b) std::swap(a, b);
    if (a > lo) {
      lo = a;
      loAxis = k;
    }
    if (b < hi) {
      hi = b;
      hiAxis = k;
    }
  }
  if (lo > hi) return false;
  double t;
  bool entry;
  if (!pickConvex(lo, hi, tMax, t, entry)) return false;
  const int axis = entry ? loAxis : hiAxis;
  hit.t = t;
  hit.normal[0] = hit.normal[1] = hit.normal[2] = 0.0;
  // Entering, the face turns against the ray; leaving, with it.
  hit.normal[axis] = (d[axis] > 0.0) == entry ? -1.0 : 1.0;
  return true;
}

// The ray's interval inside the infinite cylinder x^2 + y^2 <= r^2.
inline bool tubeInterval(const double* s, const double* d, double r, double& t0, double& t1) {
  const double a = d[0] * d[0] + d[1] * d[1];
  const double c = s[0] * s[0] + s[1] * s[1] - r * r;
  if (a == 0.0) {
    if (c > 0.0) return false;
    t0 = -kInf;
    t1 = kInf;
    return true;
  }
  const double b = s[0] * d[0] + s[1] * d[1];
  const double disc = b * b - a * c;
  if (disc < 0.0) return false;
  const double k = std::sqrt(disc);
  t0 = (-b - k) / a;
  t1 = (-b + k) / a;
  return true;
}

// The ray's interval inside the slab -halfLength <= z <= halfLength.
inline bool slabInterval(const double* s, const double* d, double halfLength, double& t0, double& t1) {
  if (d[2] == 0.0) {
    if (s[2] < -halfLength || s[2] > halfLength) return false;
    t0 = -kInf;
    t1 = kInf;
    return true;
  }
  t0 = (-halfLength - s[2]) / d[2];
  t1 = (halfLength - s[2]) / d[2];
  if (t0 > t1) std::swap(t0, t1);
  return true;
}

bool rayCylinder(const double* s, const double* d, double r, double halfLength, double tMax, LocalHit& hit) {
  double r0, r1, z0, z1;
  if (!tubeInterval(s, d, r, r0, r1) || !slabInterval(s, d, halfLength, z0, z1)) return false;
  const double t0 = std::max(r0, z0), t1 = std::min(r1, z1);
  if (t0 > t1) return false;
  double t;
  bool entry;
  if (!pickConvex(t0, t1, tMax, t, entry)) return false;
  hit.t = t;
  const bool onCap = entry ? z0 >= r0 : z1 <= r1;
  const double p[3] = {s[0] + t * d[0], s[1] + t * d[1], s[2] + t * d[2]};
  if (onCap) {
    hit.normal[0] = hit.normal[1] = 0.0;
    hit.normal[2] = p[2] >= 0.0 ? 1.0 : -1.0;
  } else {
    const double n = std::sqrt(p[0] * p[0] + p[1] * p[1]);
    hit.normal[0] = n > 0.0 ? p[0] / n : 1.0;
    hit.normal[1] = n > 0.0 ? p[1] / n : 0.0;
    hit.normal[2] = 0.0;
  }
  return true;
}

// A capsule is the union of its tube between the caps and the two cap
// spheres; being convex, the ray's interval inside it runs from the earliest
// entry into a piece to the latest exit from one.
bool rayCapsule(const double* s, const double* d, double r, double halfLength, double tMax, LocalHit& hit) {
  double t0 = kInf, t1 = -kInf;
  double a, b, z0, z1;
  if (tubeInterval(s, d, r, a, b) && slabInterval(s, d, halfLength, z0, z1)) {
    a = std::max(a, z0);
    b = std::min(b, z1);
    if (a <= b) {
      t0 = std::min(t0, a);
      t1 = std::max(t1, b);
    }
  }
  for (double zc : {halfLength, -halfLength}) {
    const double sc[3] = {s[0], s[1], s[2] - zc};
    if (sphereInterval(sc, d, r, a, b)) {
      t0 = std::min(t0, a);
      t1 = std::max(t1, b);
    }
  }
  if (t0 > t1) return false;
  double t;
  bool entry;
  if (!pickConvex(t0, t1, tMax, t, entry)) return false;
  hit.t = t;
  const double p[3] = {s[0] + t * d[0], s[1] + t * d[1], s[2] + t * d[2]};
  const double axisZ = std::min(std::max(p[2], -halfLength), halfLength);
  const double n[3] = {p[0], p[1], p[2] - axisZ};
  const double len = std::sqrt(dot3(n, n));
  for (int k = 0; k < 3; ++k) hit.normal[k] = len > 0.0 ? n[k] / len : (k == 2 ? 1.0 : 0.0);
  return true;
}

// -------------------------------------------------------------- heightfield --

// Walks the cells of a regular 2D grid that a ray's ground track crosses, in
// the order the ray meets them, between t0 and t1. Cells are (ix, iz), of size
// (sizeX, sizeZ), limited to [loX, hiX) x [loZ, hiZ).
struct GridWalk {
  GridWalk(double x0_, double z0_, double dx_, double dz_, double sizeX_, double sizeZ_, long loX_, long hiX_,
           long loZ_, long hiZ_)
      : x0(x0_), z0(z0_), dx(dx_), dz(dz_), sizeX(sizeX_), sizeZ(sizeZ_), loX(loX_), hiX(hiX_), loZ(loZ_), hiZ(hiZ_) {}

  double x0, z0, dx, dz, sizeX, sizeZ;
  long loX, hiX, loZ, hiZ;
  long ix = 0, iz = 0;
  int stepX = 0, stepZ = 0;
  double t = 0.0, tEnd = 0.0;

  void start(double tStart, double tStop) {
    t = tStart;
    tEnd = tStop;
    const double x = x0 + t * dx, z = z0 + t * dz;
    ix = std::min(std::max(long(std::floor(x / sizeX)), loX), hiX - 1);
    iz = std::min(std::max(long(std::floor(z / sizeZ)), loZ), hiZ - 1);
    stepX = dx > 0.0 ? 1 : (dx < 0.0 ? -1 : 0);
    stepZ = dz > 0.0 ? 1 : (dz < 0.0 ? -1 : 0);
  }
  // Where the ray leaves the current cell.
  double cellExit() const {
    double tx = kInf, tz = kInf;
    if (stepX != 0) tx = (double(ix + (stepX > 0)) * sizeX - x0) / dx;
    if (stepZ != 0) tz = (double(iz + (stepZ > 0)) * sizeZ - z0) / dz;
    return std::min(std::min(tx, tz), tEnd);
  }
  // Moves to the next cell; false when the walk is over.
  bool advance(double exit) {
    if (exit >= tEnd) return false;
    double tx = kInf, tz = kInf;
    if (stepX != 0) tx = (double(ix + (stepX > 0)) * sizeX - x0) / dx;
    if (stepZ != 0) tz = (double(iz + (stepZ > 0)) * sizeZ - z0) / dz;
    if (tx <= tz)
      ix += stepX;
    else
      iz += stepZ;
    t = exit;
    return ix >= loX && ix < hiX && iz >= loZ && iz < hiZ;
  }
};

// The crossings of a ray with the two triangles of one cell, in the grid's
// corner frame (x across the columns, z across the rows, y up). Up to two, in
// order of distance.
int cellCrossings(const HeightfieldRayIndex& hf, long i, long j, const double* s, const double* d, double tMax,
                  LocalHit* out) {
  const double* row0 = hf.grid.heights + size_t(j) * hf.grid.xSamples + size_t(i);
  const double* row1 = row0 + hf.grid.xSamples;
  const double h00 = row0[0], h10 = row0[1], h01 = row1[0], h11 = row1[1];
  // Cell coordinates u, v in [0, 1] along x and z.
  const double u0 = (s[0] - double(i) * hf.cellX) / hf.cellX, du = d[0] / hf.cellX;
  const double v0 = (s[2] - double(j) * hf.cellZ) / hf.cellZ, dv = d[2] / hf.cellZ;
  int n = 0;
  // The triangle u + v <= 1: h = h00 + (h10 - h00) u + (h01 - h00) v.
  {
    const double gu = h10 - h00, gv = h01 - h00;
    const double f0 = s[1] - h00 - gu * u0 - gv * v0, f1 = d[1] - gu * du - gv * dv;
    if (f1 != 0.0) {
      const double t = -f0 / f1;
      const double u = u0 + t * du, v = v0 + t * dv;
      if (t >= 0.0 && t <= tMax && u >= -kEdgeSlack && v >= -kEdgeSlack && u + v <= 1.0 + kEdgeSlack) {
        LocalHit& h = out[n++];
        h.t = t;
        h.normal[0] = -gu / hf.cellX;
        h.normal[1] = 1.0;
        h.normal[2] = -gv / hf.cellZ;
      }
    }
  }
  // The triangle u + v >= 1: h = h11 + (h10 - h11)(1 - v) + (h01 - h11)(1 - u).
  {
    const double gu = h11 - h01, gv = h11 - h10;  // slopes along u and v
    const double f0 = s[1] - h11 + gv * (1.0 - v0) + gu * (1.0 - u0), f1 = d[1] - gu * du - gv * dv;
    if (f1 != 0.0) {
      const double t = -f0 / f1;
      const double u = u0 + t * du, v = v0 + t * dv;
      if (t >= 0.0 && t <= tMax && u <= 1.0 + kEdgeSlack && v <= 1.0 + kEdgeSlack && u + v >= 1.0 - kEdgeSlack) {
        LocalHit& h = out[n++];
        h.t = t;
        h.normal[0] = -gu / hf.cellX;
        h.normal[1] = 1.0;
        h.normal[2] = -gv / hf.cellZ;
      }
    }
  }
  if (n == 2 && out[1].t < out[0].t) std::swap(out[0], out[1]);
  for (int k = 0; k < n; ++k) {
    const double len = std::sqrt(dot3(out[k].normal, out[k].normal));
    for (double& c : out[k].normal) c /= len;
  }
  return n;
}

// True when the ray's height over [t0, t1] stays clear of [lo, hi].
inline bool passesClear(const double* s, const double* d, double t0, double t1, double lo, double hi) {
  const double y0 = s[1] + t0 * d[1], y1 = s[1] + t1 * d[1];
  return std::min(y0, y1) > hi + kHeightSlack || std::max(y0, y1) < lo - kHeightSlack;
}

// Calls onHit(const LocalHit&) for every crossing of the ray with the surface,
// in order of distance, until it returns false. The ray is in the
// heightfield's own frame, centred on the grid (as the collision library
// places it).
// The walk also ends once it has passed stopAt, which onHit may lower.
template <typename OnHit>
void heightfieldCrossings(const HeightfieldRayIndex& hf, const double* sCentred, const double* d, double tMax,
                          double& stopAt, OnHit&& onHit) {
  if (hf.cellsX == 0 || hf.cellsZ == 0) return;
  const double s[3] = {sCentred[0] + 0.5 * hf.grid.xSize, sCentred[1], sCentred[2] + 0.5 * hf.grid.zSize};
  // Clip to the grid's footprint and to its height range.
  double t0 = 0.0, t1 = tMax;
  const double lo[3] = {0.0, hf.minHeight - kHeightSlack, 0.0};
  const double hi[3] = {hf.grid.xSize, hf.maxHeight + kHeightSlack, hf.grid.zSize};
  for (int k = 0; k < 3; ++k) {
    if (d[k] == 0.0) {
      if (s[k] < lo[k] || s[k] > hi[k]) return;
      continue;
    }
    double a = (lo[k] - s[k]) / d[k], b = (hi[k] - s[k]) / d[k];
    if (a > b) std::swap(a, b);
    t0 = std::max(t0, a);
    t1 = std::min(t1, b);
  }
  if (!(t0 <= t1)) return;

  constexpr long B = long(HeightfieldRayIndex::kBlock);
  GridWalk blocks(s[0], s[2], d[0], d[2], hf.cellX * B, hf.cellZ * B, 0, long(hf.blocksX), 0, long(hf.blocksZ));
  blocks.start(t0, t1);
  LocalHit found[2];
  for (;;) {
    const double blockExit = blocks.cellExit();
    const size_t b = size_t(blocks.iz) * hf.blocksX + size_t(blocks.ix);
    if (!passesClear(s, d, blocks.t, blockExit, hf.blockMin[b], hf.blockMax[b])) {
      GridWalk cells(s[0], s[2], d[0], d[2], hf.cellX, hf.cellZ, blocks.ix * B,
                     std::min(blocks.ix * B + B, long(hf.cellsX)), blocks.iz * B,
                     std::min(blocks.iz * B + B, long(hf.cellsZ)));
      cells.start(blocks.t, blockExit);
      for (;;) {
        const double cellExit = cells.cellExit();
        const double* row0 = hf.grid.heights + size_t(cells.iz) * hf.grid.xSamples + size_t(cells.ix);
        const double* row1 = row0 + hf.grid.xSamples;
        const double cellLo = std::min(std::min(row0[0], row0[1]), std::min(row1[0], row1[1]));
        const double cellHi = std::max(std::max(row0[0], row0[1]), std::max(row1[0], row1[1]));
        if (!passesClear(s, d, cells.t, cellExit, cellLo, cellHi)) {
          const int n = cellCrossings(hf, cells.ix, cells.iz, s, d, tMax, found);
          for (int k = 0; k < n; ++k)
            if (!onHit(found[k])) return;
        }
        if (!cells.advance(cellExit) || cells.t > stopAt) break;
      }
    }
    if (!blocks.advance(blockExit) || blocks.t > stopAt) break;
  }
}

}  // namespace

// ------------------------------------------------------------ heightfield index

std::shared_ptr<const HeightfieldRayIndex> makeHeightfieldRayIndex(const HeightfieldGrid& grid) {
  auto index = std::make_shared<HeightfieldRayIndex>();
  index->grid = grid;
  if (grid.heights == nullptr || grid.xSamples < 2 || grid.zSamples < 2) return index;
  index->cellsX = grid.xSamples - 1;
  index->cellsZ = grid.zSamples - 1;
  index->cellX = grid.xSize / double(index->cellsX);
  index->cellZ = grid.zSize / double(index->cellsZ);
  const size_t B = HeightfieldRayIndex::kBlock;
  index->blocksX = (index->cellsX + B - 1) / B;
  index->blocksZ = (index->cellsZ + B - 1) / B;
  index->blockMin.assign(index->blocksX * index->blocksZ, kInf);
  index->blockMax.assign(index->blocksX * index->blocksZ, -kInf);
  index->minHeight = kInf;
  index->maxHeight = -kInf;
  for (size_t k = 0; k < grid.xSamples * grid.zSamples; ++k) {
    index->minHeight = std::min(index->minHeight, grid.heights[k]);
    index->maxHeight = std::max(index->maxHeight, grid.heights[k]);
  }
  // A block's range covers the samples on its border, which it shares with
  // its neighbours.
  for (size_t bj = 0; bj < index->blocksZ; ++bj)
    for (size_t bi = 0; bi < index->blocksX; ++bi) {
      double lo = kInf, hi = -kInf;
      const size_t i1 = std::min((bi + 1) * B, index->cellsX), j1 = std::min((bj + 1) * B, index->cellsZ);
      for (size_t j = bj * B; j <= j1; ++j)
        for (size_t i = bi * B; i <= i1; ++i) {
          const double h = grid.heights[j * grid.xSamples + i];
          lo = std::min(lo, h);
          hi = std::max(hi, h);
        }
      index->blockMin[bj * index->blocksX + bi] = lo;
      index->blockMax[bj * index->blocksX + bi] = hi;
    }
  return index;
}

// ------------------------------------------------------------------- shapes --

struct RayScene::Shape {
  int kind = OTHER;
  double rot[9];     // local to world, row-major
  double pos[3];     // origin in the world
  double size[3];    // sphere: radius; box: half sides; capsule, cylinder: radius, half length
  double plane[4];   // n . x = d, world
  double bounds[6];  // bounding box: lowest x, y, z, then highest
  uint32_t category = 0;
  size_t objectIndex = size_t(-1), localIndex = size_t(-1);
  dGeomID geom = nullptr;
  std::shared_ptr<const HeightfieldRayIndex> heightfield;
};

struct RayScene::Node {
  double bounds[6];  // lowest x, y, z, then highest
  uint32_t first;    // leaf: first entry of bounded_; inner: index of the left child (the right one follows)
  uint32_t count;    // shapes in a leaf; 0 for an inner node
};

// Four children side by side, their boxes axis by axis, so that one ray tests
// them in one pass. A slot is a leaf (count shapes from bounded_[first]), an
// inner node (count 0, first its index) or empty (an inverted box).
struct RayScene::WideNode {
  double lo[3][4], hi[3][4];
  uint32_t first[4];
  uint32_t count[4];
};

namespace {

using Shape = RayScene::Shape;

// Reads what casting needs from a geom. False for geoms that are not cast
// (spaces, disabled geoms).
bool describeGeom(dGeomID g, Shape& shape) {
  if (dGeomIsSpace(g) || !dGeomIsEnabled(g)) return false;
  shape.geom = g;
  shape.category = getCategoryBits(g);
  const auto* record = static_cast<const GeomData*>(dGeomGetData(g));
  shape.objectIndex = record ? record->objectIndex : size_t(-1);
  shape.localIndex = record ? record->localIndex : size_t(-1);
  shape.heightfield.reset();
  dReal box[6];
  dGeomGetAABB(g, box);
  // The tree's boxes are widened a little: a ray that runs exactly along a
  // box's face (a level ray at a height map's highest point) has a zero
  // direction component there, and the slab test would lose it.
  for (int k = 0; k < 3; ++k) {
    shape.bounds[k] = box[2 * k] - 1e-9 * (1.0 + std::abs(box[2 * k]));
    shape.bounds[3 + k] = box[2 * k + 1] + 1e-9 * (1.0 + std::abs(box[2 * k + 1]));
  }
  const int cls = dGeomGetClass(g);
  if (cls == dPlaneClass) {
    dVector4 p;
    dGeomPlaneGetParams(g, p);
    for (int k = 0; k < 4; ++k) shape.plane[k] = p[k];
    shape.kind = PLANE;
    return true;
  }
  const dReal* R = dGeomGetRotation(g);
  const dReal* P = dGeomGetPosition(g);
  for (int i = 0; i < 3; ++i) {
    shape.pos[i] = P[i];
    for (int j = 0; j < 3; ++j) shape.rot[3 * i + j] = R[4 * i + j];
  }
  switch (cls) {
    case dSphereClass:
      shape.kind = SPHERE;
      shape.size[0] = dGeomSphereGetRadius(g);
      break;
    case dBoxClass: {
      dVector3 sides;
      dGeomBoxGetLengths(g, sides);
      shape.kind = BOX;
      for (int k = 0; k < 3; ++k) shape.size[k] = 0.5 * sides[k];
      break;
    }
    case dCapsuleClass:
    case dCylinderClass: {
      dReal radius, length;
      if (cls == dCapsuleClass)
        dGeomCapsuleGetParams(g, &radius, &length);
      else
        dGeomCylinderGetParams(g, &radius, &length);
      shape.kind = cls == dCapsuleClass ? CAPSULE : CYLINDER;
      shape.size[0] = radius;
      shape.size[1] = 0.5 * length;
      break;
    }
    case dHeightfieldClass:
      shape.heightfield = findHeightfieldRayIndex(dGeomHeightfieldGetHeightfieldData(g));
      shape.kind = shape.heightfield ? HEIGHTFIELD : OTHER;
      break;
    default:
      shape.kind = OTHER;
      break;
  }
  return true;
}

inline bool passesFilter(const Shape& shape, const RayQuery& q) {
  if ((q.collideBits & shape.category) == 0) return false;
  return !(shape.objectIndex == q.objectIndex && shape.localIndex == q.localIndex);
}

void setRayGeom(const RayQuery& q) {
  if (q.rayGeomSet) return;
  dGeomRaySetLength(q.rayGeom, q.length);
  dGeomRaySet(q.rayGeom, q.start[0], q.start[1], q.start[2], q.dir[0], q.dir[1], q.dir[2]);
  q.rayGeomSet = true;
}

void writeHit(const RayQuery& q, const Shape& shape, double t, const double* normalWorld, dContactGeom& out) {
  for (int k = 0; k < 3; ++k) out.pos[k] = q.start[k] + t * q.dir[k];
  const double facing = dot3(normalWorld, q.dir) > 0.0 ? -1.0 : 1.0;
  for (int k = 0; k < 3; ++k) out.normal[k] = facing * normalWorld[k];
  out.pos[3] = 0.0;
  out.normal[3] = 0.0;
  out.depth = t;
  out.g1 = shape.geom;
  out.g2 = q.rayGeom;
  out.side1 = -1;
  out.side2 = -1;
}

// The ray in the shape's frame.
inline void toLocal(const Shape& shape, const RayQuery& q, double* s, double* d) {
  const double r[3] = {q.start[0] - shape.pos[0], q.start[1] - shape.pos[1], q.start[2] - shape.pos[2]};
  for (int j = 0; j < 3; ++j) {
    s[j] = shape.rot[j] * r[0] + shape.rot[3 + j] * r[1] + shape.rot[6 + j] * r[2];
    d[j] = shape.rot[j] * q.dir[0] + shape.rot[3 + j] * q.dir[1] + shape.rot[6 + j] * q.dir[2];
  }
}

inline void normalToWorld(const Shape& shape, const double* n, double* w) {
  for (int i = 0; i < 3; ++i)
    w[i] = shape.rot[3 * i] * n[0] + shape.rot[3 * i + 1] * n[1] + shape.rot[3 * i + 2] * n[2];
}

// Writes up to maxHits points of the ray against one shape, nearest first
// within the shape when it gives several; tMax limits the distance. With
// nearestOnly, one point at most.
int castShape(const Shape& shape, const RayQuery& q, double tMax, bool nearestOnly, char* out, int maxHits,
              int stride) {
  if (maxHits <= 0) return 0;
  auto at = [&](int n) -> dContactGeom& { return *reinterpret_cast<dContactGeom*>(out + size_t(n) * size_t(stride)); };
  double s[3], d[3], n[3];
  LocalHit hit;
  switch (shape.kind) {
    case PLANE: {
      const double denom = dot3(shape.plane, q.dir);
      if (denom == 0.0) return 0;
      const double t = (shape.plane[3] - dot3(shape.plane, q.start)) / denom;
      if (!(t >= 0.0 && t <= tMax)) return 0;
      writeHit(q, shape, t, shape.plane, at(0));
      return 1;
    }
    case SPHERE:
    case BOX:
    case CAPSULE:
    case CYLINDER: {
      toLocal(shape, q, s, d);
      bool ok = false;
      if (shape.kind == SPHERE)
        ok = raySphere(s, d, shape.size[0], tMax, hit);
      else if (shape.kind == BOX)
        ok = rayBox(s, d, shape.size, tMax, hit);
      else if (shape.kind == CAPSULE)
        ok = rayCapsule(s, d, shape.size[0], shape.size[1], tMax, hit);
      else
        ok = rayCylinder(s, d, shape.size[0], shape.size[1], tMax, hit);
      if (!ok) return 0;
      normalToWorld(shape, hit.normal, n);
      writeHit(q, shape, hit.t, n, at(0));
      return 1;
    }
    case HEIGHTFIELD: {
      toLocal(shape, q, s, d);
      int count = 0;
      double stopAt = kInf;
      heightfieldCrossings(*shape.heightfield, s, d, tMax, stopAt, [&](const LocalHit& h) {
        if (!nearestOnly) {
          normalToWorld(shape, h.normal, n);
          writeHit(q, shape, h.t, n, at(count++));
          return count < maxHits;
        }
        // A ray through an edge crosses both cells beside it at nearly the
        // same distance, the later cell's sometimes a rounding nearer: the
        // nearest of those is kept, as a search over all crossings would.
        if (count == 0 || h.t < at(0).depth) {
          normalToWorld(shape, h.normal, n);
          writeHit(q, shape, h.t, n, at(0));
          count = 1;
          stopAt = h.t + 1e-9 * (1.0 + h.t);
        }
        return true;
      });
      return count;
    }
    default: {
      // The collision library's own test; it may give several points (one
      // per triangle of a mesh), in no particular order.
      setRayGeom(q);
      if (!nearestOnly) {
        const int found = dCollide(q.rayGeom, shape.geom, maxHits, &at(0), stride);
        int kept = 0;
        for (int k = 0; k < found; ++k) {
          dContactGeom c = at(k);
          if (c.depth > tMax) continue;
          c.g1 = shape.geom;
          c.g2 = q.rayGeom;
          at(kept++) = c;
        }
        return kept;
      }
      dContactGeom points[64];
      const int found = dCollide(q.rayGeom, shape.geom, 64, points, int(sizeof(dContactGeom)));
      int nearest = -1;
      for (int k = 0; k < found; ++k)
        if (points[k].depth <= tMax && (nearest < 0 || points[k].depth < points[nearest].depth)) nearest = k;
      if (nearest < 0) return 0;
      at(0) = points[nearest];
      at(0).g1 = shape.geom;
      at(0).g2 = q.rayGeom;
      return 1;
    }
  }
}

// A ray prepared for box tests: per axis the inverse direction and which
// side of a box (offset 0: lowest, 3: highest) it meets first.
struct Slabs {
  double start[3], inv[3];
  int nearSide[3], farSide[3];

  explicit Slabs(const RayQuery& q) {
    for (int k = 0; k < 3; ++k) {
      start[k] = q.start[k];
      // A zero component becomes a tiny one of the same sign: the test then
      // needs no special case and stays free of 0 * inf.
      const double c = std::abs(q.dir[k]) < 1e-300 ? std::copysign(1e-300, q.dir[k]) : q.dir[k];
      inv[k] = 1.0 / c;
      nearSide[k] = inv[k] < 0.0 ? 3 : 0;
      farSide[k] = 3 - nearSide[k];
    }
  }

  // Entry distance into a box, or infinity when the ray misses it within tMax.
  double entry(const double* bounds, double tMax) const {
    const double n0 = (bounds[nearSide[0]] - start[0]) * inv[0], f0 = (bounds[farSide[0] + 0] - start[0]) * inv[0];
    const double n1 = (bounds[nearSide[1] + 1] - start[1]) * inv[1], f1 = (bounds[farSide[1] + 1] - start[1]) * inv[1];
    const double n2 = (bounds[nearSide[2] + 2] - start[2]) * inv[2], f2 = (bounds[farSide[2] + 2] - start[2]) * inv[2];
    const double t0 = std::max(std::max(n0, n1), std::max(n2, 0.0));
    const double t1 = std::min(std::min(f0, f1), std::min(f2, tMax));
    return t0 <= t1 ? t0 : kInf;
  }
};

}  // namespace

// ------------------------------------------------------------------ dRayTest --

namespace {

struct SpaceCast {
  RayQuery query;
  char* out;
  int stride, maxHits, count;
  Shape shape;
};

// The collision library's broad phase hands over the geoms whose bounding
// boxes meet the ray's.
void castCallback(void* data, dGeomID o1, dGeomID o2) {
  auto& c = *static_cast<SpaceCast*>(data);
  if (c.count >= c.maxHits) return;
  dGeomID g = o1 == c.query.rayGeom ? o2 : o1;
  // The broad phase also lets pairs through on the reverse bit test, which a
  // ray does not want.
  if (dGeomIsSpace(g) || (c.query.collideBits & getCategoryBits(g)) == 0) return;
  const auto* record = static_cast<const GeomData*>(dGeomGetData(g));
  if (record && record->objectIndex == c.query.objectIndex && record->localIndex == c.query.localIndex) return;
  if (!describeGeom(g, c.shape)) return;
  c.count += castShape(c.shape, c.query, c.query.length, false, c.out + size_t(c.count) * size_t(c.stride),
                       c.maxHits - c.count, c.stride);
}

}  // namespace

int rayTestSpace(dSpaceID space, const RayQuery& query, int maxHits, dContactGeom* contacts, int stride) {
  if (maxHits <= 0) return 0;
  SpaceCast c;
  c.query = query;
  c.query.rayGeomSet = true;
  c.out = reinterpret_cast<char*>(contacts);
  c.stride = stride;
  c.maxHits = maxHits;
  c.count = 0;
  dSpaceCollide2(query.rayGeom, reinterpret_cast<dGeomID>(space), &c, castCallback);
  return c.count;
}

int dRayTest(dSpaceID space, dGeomID ray, int maxHits, dContactGeom* contacts, int stride) {
  RayQuery q;
  dVector3 start, dir;
  dGeomRayGet(ray, start, dir);
  for (int k = 0; k < 3; ++k) {
    q.start[k] = start[k];
    q.dir[k] = dir[k];
  }
  q.length = dGeomRayGetLength(ray);
  q.collideBits = getCollideBits(ray);
  const auto* owner = static_cast<const GeomData*>(dGeomGetData(ray));
  q.objectIndex = owner ? owner->objectIndex : size_t(-2);
  q.localIndex = owner ? owner->localIndex : size_t(-2);
  q.rayGeom = ray;
  return rayTestSpace(space, q, maxHits, contacts, stride);
}

// ----------------------------------------------------------------- RayScene --

RayScene::RayScene() = default;
RayScene::~RayScene() = default;
size_t RayScene::size() const { return shapes_.size(); }

void RayScene::build(dSpaceID space) {
  const int geoms = dSpaceGetNumGeoms(space);
  shapes_.resize(size_t(std::max(geoms, 0)));
  size_t used = 0;
  bounded_.clear();
  unbounded_.clear();
  for (int i = 0; i < geoms; ++i) {
    Shape& shape = shapes_[used];
    if (!describeGeom(dSpaceGetGeom(space, i), shape)) continue;
    bool finite = shape.kind != PLANE;
    for (double b : shape.bounds) finite = finite && std::isfinite(b);
    (finite ? bounded_ : unbounded_).push_back(uint32_t(used));
    ++used;
  }
  shapes_.resize(used);
  buildBinaryTree();
  collapseToWideTree();
  leafBounds_.resize(6 * bounded_.size());
  for (size_t e = 0; e < bounded_.size(); ++e)
    std::copy_n(shapes_[bounded_[e]].bounds, 6, leafBounds_.begin() + std::ptrdiff_t(6 * e));
}

void RayScene::buildBinaryTree() {
  // Top down, each range split where the surface-area estimate of the cost of
  // a ray's visit is least (over 16 bins of the centres along each axis); a
  // range becomes a leaf when no split beats testing its shapes one by one.
  nodes_.clear();
  nodes_.reserve(2 * bounded_.size() + 1);
  if (bounded_.empty()) return;
  struct Range {
    uint32_t node, begin, end;
  };
  struct Bin {
    double lo[3], hi[3];
    uint32_t count;
  };
  auto area = [](const double* lo, const double* hi) {
    const double x = hi[0] - lo[0], y = hi[1] - lo[1], z = hi[2] - lo[2];
    return x * y + y * z + z * x;
  };
  auto grow = [](double* lo, double* hi, const double* otherLo, const double* otherHi) {
    for (int k = 0; k < 3; ++k) {
      lo[k] = std::min(lo[k], otherLo[k]);
      hi[k] = std::max(hi[k], otherHi[k]);
    }
  };
  constexpr int kBins = 16;
  Range stack[64];
  int top = 0;
  nodes_.push_back(Node{});
  stack[top++] = {0, 0, uint32_t(bounded_.size())};
  while (top > 0) {
    const Range r = stack[--top];
    Node node;
    double cLo[3] = {kInf, kInf, kInf}, cHi[3] = {-kInf, -kInf, -kInf};
    for (int k = 0; k < 3; ++k) {
      node.bounds[k] = kInf;
      node.bounds[3 + k] = -kInf;
    }
    for (uint32_t e = r.begin; e < r.end; ++e) {
      const Shape& s = shapes_[bounded_[e]];
      grow(node.bounds, node.bounds + 3, s.bounds, s.bounds + 3);
      for (int k = 0; k < 3; ++k) {
        const double c = 0.5 * (s.bounds[k] + s.bounds[3 + k]);
        cLo[k] = std::min(cLo[k], c);
        cHi[k] = std::max(cHi[k], c);
      }
    }
    const uint32_t n = r.end - r.begin;
    int bestAxis = -1, bestSplit = 0;
    double bestCost = kInf;
    if (n > 2 && top + 2 <= 64) {
      for (int axis = 0; axis < 3; ++axis) {
        const double extent = cHi[axis] - cLo[axis];
        if (!(extent > 0.0)) continue;
        Bin bins[kBins];
        for (Bin& b : bins) {
          b.count = 0;
          for (int k = 0; k < 3; ++k) {
            b.lo[k] = kInf;
            b.hi[k] = -kInf;
          }
        }
        for (uint32_t e = r.begin; e < r.end; ++e) {
          const Shape& s = shapes_[bounded_[e]];
          const double c = 0.5 * (s.bounds[axis] + s.bounds[3 + axis]);
          Bin& b = bins[std::min(kBins - 1, int((c - cLo[axis]) / extent * kBins))];
          ++b.count;
          grow(b.lo, b.hi, s.bounds, s.bounds + 3);
        }
        // Costs of the splits after bin 0 .. kBins - 2, from both sides.
        double rightArea[kBins];
        uint32_t rightCount[kBins];
        double lo[3] = {kInf, kInf, kInf}, hi[3] = {-kInf, -kInf, -kInf};
        uint32_t count = 0;
        for (int b = kBins - 1; b > 0; --b) {
          count += bins[b].count;
          if (bins[b].count) grow(lo, hi, bins[b].lo, bins[b].hi);
          rightCount[b] = count;
          rightArea[b] = count ? area(lo, hi) : 0.0;
        }
        for (int k = 0; k < 3; ++k) {
          lo[k] = kInf;
          hi[k] = -kInf;
        }
        count = 0;
        for (int b = 0; b < kBins - 1; ++b) {
          count += bins[b].count;
          if (bins[b].count) grow(lo, hi, bins[b].lo, bins[b].hi);
          if (count == 0 || rightCount[b + 1] == 0) continue;
          const double cost = area(lo, hi) * count + rightArea[b + 1] * rightCount[b + 1];
          if (cost < bestCost) {
            bestCost = cost;
            bestAxis = axis;
            bestSplit = b;
          }
        }
      }
    }
    // A split costs one box test per child plus the shapes inside in
    // proportion to their boxes' areas; a leaf tests its shapes.
    const double nodeArea = area(node.bounds, node.bounds + 3);
    const bool split = bestAxis >= 0 && (n > 8 || 1.0 + bestCost / nodeArea < double(n));
    if (!split) {
      node.first = r.begin;
      node.count = n;
      nodes_[r.node] = node;
      continue;
    }
    const double extent = cHi[bestAxis] - cLo[bestAxis], base = cLo[bestAxis];
    const auto middle = std::partition(bounded_.begin() + r.begin, bounded_.begin() + r.end, [&](uint32_t index) {
      const Shape& s = shapes_[index];
      const double c = 0.5 * (s.bounds[bestAxis] + s.bounds[3 + bestAxis]);
      return std::min(kBins - 1, int((c - base) / extent * kBins)) <= bestSplit;
    });
    const uint32_t mid = uint32_t(middle - bounded_.begin());
    node.first = uint32_t(nodes_.size());
    node.count = 0;
    nodes_[r.node] = node;
    nodes_.push_back(Node{});
    nodes_.push_back(Node{});
    stack[top++] = {node.first, r.begin, mid};
    stack[top++] = {node.first + 1, mid, r.end};
  }
}

void RayScene::collapseToWideTree() {
  // Each wide node takes the binary node's children, then keeps opening the
  // inner child with the largest box until it holds four.
  wide_.clear();
  wide_.reserve(nodes_.size() / 2 + 1);
  if (nodes_.empty()) return;
  auto area = [](const double* b) {
    const double x = b[3] - b[0], y = b[4] - b[1], z = b[5] - b[2];
    return x * y + y * z + z * x;
  };
  struct Job {
    uint32_t wide, binary;
  };
  Job stack[256];
  int top = 0;
  wide_.push_back(WideNode{});
  stack[top++] = {0, 0};
  while (top > 0) {
    const Job job = stack[--top];
    uint32_t slots[4];
    int n = 0;
    const Node& root = nodes_[job.binary];
    if (root.count > 0) {
      slots[n++] = job.binary;  // a tree that is one leaf
    } else {
      slots[n++] = root.first;
      slots[n++] = root.first + 1;
    }
    while (n < 4) {
      int widest = -1;
      for (int k = 0; k < n; ++k)
        if (nodes_[slots[k]].count == 0 &&
            (widest < 0 || area(nodes_[slots[k]].bounds) > area(nodes_[slots[widest]].bounds)))
          widest = k;
      if (widest < 0) break;
      const uint32_t opened = slots[widest];
      slots[widest] = nodes_[opened].first;
      slots[n++] = nodes_[opened].first + 1;
    }
    WideNode node;
    for (int k = 0; k < 4; ++k) {
      for (int a = 0; a < 3; ++a) {
        node.lo[a][k] = k < n ? nodes_[slots[k]].bounds[a] : kInf;
        node.hi[a][k] = k < n ? nodes_[slots[k]].bounds[3 + a] : -kInf;
      }
      node.first[k] = 0;
      node.count[k] = 0;
      if (k >= n) continue;
      const Node& child = nodes_[slots[k]];
      if (child.count > 0) {
        node.first[k] = child.first;
        node.count[k] = child.count;
      } else {
        node.first[k] = uint32_t(wide_.size());
        wide_.push_back(WideNode{});
        stack[top++] = {node.first[k], slots[k]};
      }
    }
    wide_[job.wide] = node;
  }
}

bool RayScene::closest(const RayQuery& q, dContactGeom& hit) const {
  double best = q.length;
  bool found = false;
  dContactGeom candidate;
  char* slot = reinterpret_cast<char*>(&candidate);
  auto consider = [&](const Shape& shape) {
    if (!passesFilter(shape, q)) return;
    if (castShape(shape, q, best, true, slot, 1, int(sizeof(dContactGeom))) == 0) return;
    if (found && candidate.depth >= hit.depth) return;
    hit = candidate;
    best = candidate.depth;
    found = true;
  };
  for (uint32_t index : unbounded_) consider(shapes_[index]);

  if (wide_.empty()) return found;

  const Slabs slabs(q);
  // Per axis, the boxes' side that the ray meets first and the one it leaves by.
  const int nearLo[3] = {slabs.nearSide[0] == 0, slabs.nearSide[1] == 0, slabs.nearSide[2] == 0};
  struct Pending {
    uint32_t first, count;  // a wide node (count 0) or a leaf's shapes
    double entry;
  };
  Pending stack[256];
  int top = 0;
  stack[top++] = {0, 0, 0.0};
  while (top > 0) {
    const Pending p = stack[--top];
    if (p.entry > best) continue;
    if (p.count > 0) {
      for (uint32_t e = p.first; e < p.first + p.count; ++e) {
        if (slabs.entry(&leafBounds_[6 * size_t(e)], best) == kInf) continue;
        consider(shapes_[bounded_[e]]);
      }
      continue;
    }
    const WideNode& node = wide_[p.first];
    double t[4];
    for (int k = 0; k < 4; ++k) {
      double t0 = 0.0, t1 = best;
      for (int a = 0; a < 3; ++a) {
        const double nearPlane = nearLo[a] ? node.lo[a][k] : node.hi[a][k];
        const double farPlane = nearLo[a] ? node.hi[a][k] : node.lo[a][k];
        t0 = std::max(t0, (nearPlane - slabs.start[a]) * slabs.inv[a]);
        t1 = std::min(t1, (farPlane - slabs.start[a]) * slabs.inv[a]);
      }
      t[k] = t0 <= t1 ? t0 : kInf;
    }
    // Hit children go on the stack farthest first, so the nearest comes next.
    int order[4], hits = 0;
    for (int k = 0; k < 4; ++k) {
      if (t[k] == kInf) continue;
      int at = hits++;
      while (at > 0 && t[order[at - 1]] < t[k]) {
        order[at] = order[at - 1];
        --at;
      }
      order[at] = k;
    }
    for (int h = 0; h < hits; ++h) {
      const int k = order[h];
      stack[top++] = {node.first[k], node.count[k], t[k]};
    }
  }
  return found;
}

}  // namespace vorsim
