#include "vorsim/Collision.hpp"

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

void setCollisionBits(dGeomID geom, uint64_t collisionGroup, uint64_t collisionMask) {
  dGeomSetCategoryBits(geom, static_cast<unsigned long>(collisionGroup & 0xFFFFFFFFull));
  dGeomSetCollideBits(geom, static_cast<unsigned long>(collisionMask & 0xFFFFFFFFull));
}

uint32_t getCategoryBits(dGeomID geom) { return static_cast<uint32_t>(dGeomGetCategoryBits(geom)); }
uint32_t getCollideBits(dGeomID geom) { return static_cast<uint32_t>(dGeomGetCollideBits(geom)); }

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
  if (rec && q.owner && rec->objectIndex == q.owner->objectIndex && rec->localIndex == q.owner->localIndex)
    return;
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
  RayQuery q{ray, static_cast<const GeomData*>(dGeomGetData(ray)), maxHits, 0,
             reinterpret_cast<char*>(contacts), stride};
  if (maxHits <= 0) return 0;
  dSpaceCollide2(ray, reinterpret_cast<dGeomID>(space), &q, rayCallback);
  return q.count;
}

}  // namespace vorsim
