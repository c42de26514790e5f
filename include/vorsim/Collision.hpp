// The library's own layer over the installed collision library. Every geom
// carries a GeomData record, reached in constant time through the geom's user
// data pointer: the owning object's index in the world, the local body index,
// the material name, and the geoms it ignores. Category and collide bits stay in
// the geom itself, where the collision library's broad phase tests them.
#ifndef VORSIM_COLLISION_HPP
#define VORSIM_COLLISION_HPP

#include <ode/ode.h>

#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "vorsim/math.hpp"

namespace vorsim {

struct GeomData {
  std::string name;
  std::string material;
  size_t objectIndex = size_t(-1);
  size_t localIndex = 0;
  std::set<dxGeom*> ignoredGeoms;
  // Free for the owner's own data (a mesh keeps its triangle data here).
  void* userData = nullptr;
  // Kept by the world's broad phase: the geom's place in its list, the order
  // in which it joined, and whether some other geom of the world has bits
  // that let the two pair (false: the geom can touch nothing and needs no
  // pose while the world steps).
  size_t slot = size_t(-1);
  uint64_t joinOrder = 0;
  bool canPair = true;
};

// Gives a freshly created geom its record; returns the geom.
dGeomID attachGeomData(dGeomID geom);
// The record of a geom made through attachGeomData.
inline GeomData& geomData(dGeomID geom) { return *static_cast<GeomData*>(dGeomGetData(geom)); }
// Frees the record and destroys the geom.
void destroyGeom(dGeomID geom);

// Puts a placeable geom that has no collision-library body and no offset at
// position p with rotation R, marking it moved once: the rotation is written
// where dGeomGetRotation points (the geom's own matrix), and setting the
// position then refreshes the geom's state. The same as dGeomSetPosition and
// dGeomSetRotation, with one update instead of two.
inline void setGeomPose(dGeomID geom, const Mat<3, 1>& p, const Mat<3, 3>& R) {
  dReal* r = const_cast<dReal*>(dGeomGetRotation(geom));
  for (int i = 0; i < 3; ++i) {
    r[4 * i] = R(i, 0);
    r[4 * i + 1] = R(i, 1);
    r[4 * i + 2] = R(i, 2);
    r[4 * i + 3] = 0.0;
  }
  dGeomSetPosition(geom, p[0], p[1], p[2]);
}

// A triangle-mesh geom over caller-owned arrays (three floats per vertex, three
// indices per triangle) that must outlive it. The geom gets its record, whose
// userData holds the triangle data handle, also returned in `data`. Release
// the geom (destroyGeom) first, then the data (dGeomTriMeshDataDestroy).
dGeomID createTriMeshGeom(dSpaceID space, const std::vector<float>& vertices, const std::vector<uint32_t>& indices,
                          dTriMeshDataID& data);

// Group and mask, cut to their low 32 bits. A pair is tested when
// (g1.category & g2.collide) || (g2.category & g1.collide). Change the bits of
// a geom in a world through this function (not the collision library's
// setters): every call counts in collisionBitsGeneration, which tells the
// worlds to look at their geoms' bits again.
void setCollisionBits(dGeomID geom, uint64_t collisionGroup, uint64_t collisionMask);
uint32_t getCategoryBits(dGeomID geom);
uint32_t getCollideBits(dGeomID geom);
// The number of setCollisionBits calls so far, in any thread.
uint64_t collisionBitsGeneration();

// The broad phase of a world. It keeps its own list of the world's geoms, in
// the order the collision space lists them when nothing cleans it (a new geom
// goes last; a removed geom's place is taken by the last one), and reports
// every pair whose bounding boxes overlap and whose bits pass the category test
// ((g1.category & g2.collide) || (g2.category & g1.collide)). It sweeps along
// y, then x and z; ties in y go to the earlier geom of the list. Geoms with
// unbounded boxes (planes) are paired with every other geom.
//
// refresh() reads the bits and marks each geom that no other geom's bits let
// it pair with (GeomData::canPair false); such geoms are left out of the
// sweep, which changes no reported pair. The entries keep the order of the
// last step, so sorting a scene that moved a little costs one pass, and the
// buffers stay allocated: a steady scene allocates nothing.
class SweepAndPrune {
 public:
  void add(dGeomID geom);
  // Takes out every geom whose record has this object index, in the order
  // they joined (the order in which the objects take them out of the space).
  void removeObject(size_t objectIndex);
  // Whether geoms came or went, or some bits were set, since the last refresh.
  bool needsRefresh() const { return dirty_ || bitsGeneration_ != collisionBitsGeneration(); }
  void refresh();
  // Reports the pairs to the callback, in a deterministic order. The bits are
  // those read by the last refresh; enabled state and boxes are read here.
  void collide(void* data, dNearCallback* callback);

 private:
  struct Entry {
    double box[6];  // as the collision library gives it: x low, x high, y low, y high, z low, z high
    double key;     // y low for a bounded enabled geom, +infinity for the rest
    uint32_t category, collide;
    uint32_t order;  // place in the list: breaks ties without pointer order
    uint32_t kind;   // index of its (category, collide) pair
    bool unbounded, enabled;
    dGeomID geom;
  };
  std::vector<dGeomID> geoms_;
  std::vector<Entry> entries_;  // the geoms that can pair, sorted by the last step
  // The distinct (category, collide) pairs: which of them pass the category
  // test together (kinds x kinds), and per step how many bounded entries each
  // has and whether it has a bounded partner. Entries of a kind without one
  // (a robot's links that skip each other, over a ground plane) need no sweep.
  static constexpr size_t kMaxFilteredKinds = 32;
  size_t kinds_ = 0;
  std::vector<uint8_t> kindsPass_;
  std::vector<uint32_t> boundedOfKind_;
  std::vector<uint8_t> kindHasPartner_;
  uint64_t nextJoinOrder_ = 0;
  uint64_t bitsGeneration_ = 0;
  bool dirty_ = true;
};

// Collides a ray geom (not a member of the space) with every geom of the space
// whose category bits share a bit with the ray's collide bits, writing up to
// maxHits points with the given stride. In each point g1 is the geom hit and g2
// the ray; depth is the distance along the ray and the normal is the surface's,
// turned to face the ray's start. Geoms whose record has the ray's object index
// and local index are left out, so a sensor mounted inside its own body does not
// see that body.
//
// Spheres, boxes, capsules, cylinders, planes and registered heightfields are
// intersected here in closed form; other geoms (triangle meshes) go to the
// collision library. A convex shape gives one point: where the ray enters it,
// or, for a ray that starts inside, where it leaves. A plane is hit from either
// side. A heightfield gives one point per crossing of its surface, from above
// or below, and nothing off its grid.
int dRayTest(dSpaceID space, dGeomID ray, int maxHits, dContactGeom* contacts, int stride);

// One ray, as the casting routines take it: start, unit direction, reach, and
// the filter of dRayTest (the ray's collide bits and its owner).
struct RayQuery {
  double start[3];
  double dir[3];
  double length;
  uint32_t collideBits;
  size_t objectIndex, localIndex;
  // The collision library's ray geom, for the geoms it intersects itself; set
  // to this query only when such a geom is met.
  dGeomID rayGeom = nullptr;
  mutable bool rayGeomSet = false;
};

// dRayTest with the ray given as a query (start, unit direction, reach,
// filter); query.rayGeom must hold the same ray, for the geoms that the
// collision library intersects itself and for its broad phase.
int rayTestSpace(dSpaceID space, const RayQuery& query, int maxHits, dContactGeom* contacts, int stride);

struct HeightfieldRayIndex;

// A snapshot of a space for many closest-hit rays: every enabled geom's pose,
// size and filter fields, read at build time, with a bounding-volume tree over
// the bounded ones. Queries give the hit that dRayTest would find nearest, but
// touch only the geoms near the ray; they read the snapshot, so geoms moved
// after build are seen where they were. The buffers keep their capacity: a
// rebuild over an unchanged number of geoms allocates nothing.
class RayScene {
 public:
  RayScene();
  ~RayScene();
  RayScene(const RayScene&) = delete;
  RayScene& operator=(const RayScene&) = delete;

  void build(dSpaceID space);
  // The nearest hit within the query's reach, written as dRayTest writes a
  // point; false when nothing is hit.
  bool closest(const RayQuery& query, dContactGeom& hit) const;
  // Geoms in the snapshot.
  size_t size() const;

  struct Shape;
  struct Node;
  struct WideNode;

 private:
  void buildBinaryTree();
  void collapseToWideTree();

  std::vector<Shape> shapes_;
  std::vector<uint32_t> bounded_;    // shapes in the tree, in leaf order
  std::vector<double> leafBounds_;   // their boxes, in the same order
  std::vector<uint32_t> unbounded_;  // shapes tested by every ray (planes)
  std::vector<Node> nodes_;          // binary tree, built first
  std::vector<WideNode> wide_;       // the same tree with four children a node
};

// ---- heightfields ----
// A regular grid of heights as the collision library's heightfield reads it, in
// place: row-major, `heights[row * xSamples + column]`, columns along the
// heightfield's x and rows along its z, spaced xSize/(xSamples-1) and
// zSize/(zSamples-1). Coordinates below are measured from the grid's corner
// (column 0, row 0), with the height along the heightfield's own up axis.
struct HeightfieldGrid {
  const double* heights = nullptr;
  size_t xSamples = 0;
  size_t zSamples = 0;
  double xSize = 0.0;
  double zSize = 0.0;
};

// Height of the surface that collision sees: each cell is cut into two
// triangles along the diagonal from (column+1, row) to (column, row+1), and the
// height is linear on each. Outside the grid the border continues level, so a
// point outside gets the height of the nearest border point. NaN in, NaN out.
double heightfieldHeight(const HeightfieldGrid& grid, double x, double z);
// Unit upward normal of that surface, written as (x, z, up); outside the grid,
// the normal of the level continuation of the border. On a triangle edge the
// triangle that heightfieldHeight uses decides.
void heightfieldNormal(const HeightfieldGrid& grid, double x, double z, Mat<3, 1>& normal);

// The collision library keeps its heightfield data opaque; a grid registered
// here under the data that was built from it can be queried through the data.
// Registration and lookup are guarded, so height maps may be made and queried
// from several threads.
// Registering again after the heights changed in place refreshes the ray
// casting's index of the grid.
void registerHeightfieldGrid(dxHeightfieldData* data, const HeightfieldGrid& grid);
void unregisterHeightfieldGrid(dxHeightfieldData* data);
// heightfieldHeight and heightfieldNormal on the grid registered for `data`.
// Unregistered data is a fatal message (and NaN under a callback that returns).
double dxgetHeightFromHeightField(dxHeightfieldData* data, double x, double z);
void dxgetNormalFromHeightField(dxHeightfieldData* data, double x, double z, Mat<3, 1>& normal);

}  // namespace vorsim

#endif  // VORSIM_COLLISION_HPP
