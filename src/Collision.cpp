#include "vorsim/Collision.hpp"

#include <algorithm>
#include <cmath>

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

namespace {
struct RayQuery {
  dGeomID ray;
  const GeomData* owner;
  int maxHits;
  int count;
  char* out;
  int stride;
};

void rayCallback(void* data, dGeomID o1, dGeomID o2) {
  auto& q = *static_cast<RayQuery*>(data);
  if (q.count >= q.maxHits) return;
  dGeomID other = (o1 == q.ray) ? o2 : o1;
  if (dGeomIsSpace(other)) return;
  // The ray's mask must select the geom's group; the broad phase also lets pairs
  // through on the reverse test, which a ray does not want.
  if ((dGeomGetCollideBits(q.ray) & dGeomGetCategoryBits(other) & 0xFFFFFFFFul) == 0) return;
  const auto* rec = static_cast<const GeomData*>(dGeomGetData(other));
  if (rec && q.owner && rec->objectIndex == q.owner->objectIndex && rec->localIndex == q.owner->localIndex) return;
  auto* first = reinterpret_cast<dContactGeom*>(q.out + size_t(q.count) * size_t(q.stride));
  const int n = dCollide(q.ray, other, q.maxHits - q.count, first, q.stride);
  for (int i = 0; i < n; ++i) {
    auto* c = reinterpret_cast<dContactGeom*>(q.out + size_t(q.count + i) * size_t(q.stride));
    c->g1 = other;
    c->g2 = q.ray;
  }
  q.count += n;
}
}  // namespace

int dRayTest(dSpaceID space, dGeomID ray, int maxHits, dContactGeom* contacts, int stride) {
  RayQuery q{ray,   static_cast<const GeomData*>(dGeomGetData(ray)), maxHits, 0, reinterpret_cast<char*>(contacts),
             stride};
  if (maxHits <= 0) return 0;
  dSpaceCollide2(ray, reinterpret_cast<dGeomID>(space), &q, rayCallback);
  return q.count;
}

}  // namespace vorsim
