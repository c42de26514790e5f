// Ray casting: random rays against the collision library's own ray tests (every primitive, heightfields),
// the batch snapshot against single queries, degenerate rays, and simple scenes by hand.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <random>

#include "test_helpers.hpp"
#include "vorsim/Collision.hpp"
#include "vorsim/World.hpp"
#include "vorsim/object/HeightMap.hpp"
#include "vorsim/object/Mesh.hpp"
#include "vorsim/object/Primitives.hpp"

using namespace vorsim;

namespace {

// The collision library's nearest point of a ray against one geom: depth and
// position, or depth -1 when it reports nothing.
struct Reference {
  double depth = -1.0;
  Eigen::Vector3d pos, normal;
};

Reference referenceHit(dGeomID ray, dGeomID geom) {
  dContactGeom points[64];
  const int n = dCollide(ray, geom, 64, points, int(sizeof(dContactGeom)));
  Reference r;
  for (int k = 0; k < n; ++k)
    if (r.depth < 0.0 || points[k].depth < r.depth) {
      r.depth = points[k].depth;
      r.pos = Eigen::Vector3d(points[k].pos[0], points[k].pos[1], points[k].pos[2]);
      r.normal = Eigen::Vector3d(points[k].normal[0], points[k].normal[1], points[k].normal[2]);
    }
  return r;
}

Eigen::Vector3d randomUnit(std::mt19937& rng) {
  std::normal_distribution<double> n(0.0, 1.0);
  Eigen::Vector3d v(n(rng), n(rng), n(rng));
  return v.normalized();
}

// Casts `count` random rays around the geom's position (a third starting inside its bounding box) and
// compares our nearest hit, by dRayTest and by a RayScene, with the collision library's.
void compareWithReference(dGeomID geom, const Eigen::Vector3d& center, double spread, int count, uint32_t seed,
                          const char* what) {
  dSpaceID space = dSimpleSpaceCreate(nullptr);
  dSpaceAdd(space, geom);
  dGeomID ray = attachGeomData(dCreateRay(nullptr, 1.0));
  geomData(ray).objectIndex = 7;  // not the geom's owner
  RayScene scene;
  scene.build(space);
  EXPECT_EQ(scene.size(), 1u);
  std::mt19937 rng(seed);
  std::uniform_real_distribution<double> u(-1.0, 1.0);
  int hits = 0, inside = 0;
  for (int i = 0; i < count; ++i) {
    const double reach = i % 5 == 0 ? 0.5 : 6.0;  // some rays fall short
    const double scale = i % 3 == 0 ? 0.3 : 1.0;
    const Eigen::Vector3d start = center + scale * spread * Eigen::Vector3d(u(rng), u(rng), u(rng));
    const Eigen::Vector3d dir = randomUnit(rng);
    // The reference casts a long ray and applies the reach afterwards: the
    // library's capsule test loses the exit point of a ray that starts inside
    // when the ray ends before the capsule's far side.
    dGeomRaySetLength(ray, 100.0);
    dGeomRaySet(ray, start.x(), start.y(), start.z(), dir.x(), dir.y(), dir.z());
    Reference ref = referenceHit(ray, geom);
    if (ref.depth > reach) ref.depth = -1.0;
    dGeomRaySetLength(ray, reach);

    dContactGeom ours[8];
    const int n = dRayTest(space, ray, 8, ours, int(sizeof(dContactGeom)));
    RayQuery q;
    for (int k = 0; k < 3; ++k) {
      q.start[k] = start[k];
      q.dir[k] = dir[k];
    }
    q.length = reach;
    q.collideBits = 0xFFFFFFFFu;
    q.objectIndex = q.localIndex = size_t(-2);
    q.rayGeom = ray;
    dContactGeom fromScene;
    const bool sceneHit = scene.closest(q, fromScene);

    ASSERT_EQ(n > 0, ref.depth >= 0.0) << what << " ray " << i << " from " << start.transpose() << " along "
                                       << dir.transpose() << " reach " << reach;
    ASSERT_EQ(sceneHit, ref.depth >= 0.0) << what << " ray " << i;
    if (!sceneHit) continue;
    ++hits;
    double nearest = ours[0].depth;
    for (int k = 1; k < n; ++k) nearest = std::min(nearest, ours[k].depth);
    EXPECT_NEAR(nearest, ref.depth, 1e-9) << what << " ray " << i;
    EXPECT_NEAR(fromScene.depth, ref.depth, 1e-9) << what << " ray " << i;
    const Eigen::Vector3d p(fromScene.pos[0], fromScene.pos[1], fromScene.pos[2]);
    EXPECT_LT((p - ref.pos).norm(), 1e-9) << what << " ray " << i;
    EXPECT_EQ(fromScene.g1, geom);
    // The surface's normal there (whichever way the library turns it), facing the ray's start.
    const Eigen::Vector3d normal(fromScene.normal[0], fromScene.normal[1], fromScene.normal[2]);
    EXPECT_LE(normal.dot(dir), 1e-12);
    EXPECT_NEAR(std::abs(normal.dot(ref.normal)), 1.0, 1e-9) << what << " ray " << i;
    inside += fromScene.depth > 0.0 && (start - center).norm() < 0.3 * spread;
  }
  // The random rays are meant to hit often, from outside and from inside.
  EXPECT_GT(hits, count / 8) << what;
  EXPECT_GT(inside, 0) << what;
  destroyGeom(ray);
  dSpaceRemove(space, geom);
  dSpaceDestroy(space);
}

void place(dGeomID g, const Eigen::Vector3d& p, const Eigen::Matrix3d& R) {
  dGeomSetPosition(g, p.x(), p.y(), p.z());
  dMatrix3 m = {R(0, 0), R(0, 1), R(0, 2), 0, R(1, 0), R(1, 1), R(1, 2), 0, R(2, 0), R(2, 1), R(2, 2), 0};
  dGeomSetRotation(g, m);
}

struct Ray {
  Eigen::Vector3d start, dir;
  size_t mask = World::kAllBits, owner = size_t(-1);
};

// A body of the given kind (sphere, box, capsule, cylinder, mesh cube) of sizes
// a, b, c, placed at p and turned at random.
SingleBodyObject* addBody(World& world, int kind, double a, double b, double c, const Eigen::Vector3d& p,
                          std::mt19937& rng) {
  SingleBodyObject* body = nullptr;
  if (kind == 0) body = world.addSphere(a, 1.0);
  if (kind == 1) body = world.addBox(a, b, c, 1.0, "default", 2);
  if (kind == 2) body = world.addCapsule(a, b, 1.0);
  if (kind == 3) body = world.addCylinder(a, b, 1.0);
  if (kind == 4) body = world.addMesh(std::string(VORSIM_TEST_DATA_DIR) + "/meshes/cube.obj", 1.0, a);
  body->setPosition(p.x(), p.y(), p.z());
  body->setOrientation(Eigen::Matrix3d(Eigen::AngleAxisd(randomUnit(rng).x() * 6.0, randomUnit(rng))));
  return body;
}

}  // namespace

TEST(RayCast, PrimitivesAgreeWithTheCollisionLibrary) {
  dInitODE();
  const Eigen::Vector3d c(0.4, -1.2, 0.7);
  const Eigen::Matrix3d R =
      (Eigen::AngleAxisd(0.7, Eigen::Vector3d(1, 2, 3).normalized()) * Eigen::AngleAxisd(0.3, Eigen::Vector3d::UnitX()))
          .toRotationMatrix();
  struct Case {
    dGeomID geom;
    double spread;
    const char* what;
  };
  const Case cases[] = {
      {dCreateSphere(nullptr, 0.7), 2.0, "sphere"},
      {dCreateBox(nullptr, 1.2, 0.6, 0.9), 2.0, "box"},
      {dCreateCapsule(nullptr, 0.3, 1.1), 2.0, "capsule"},
      {dCreateCylinder(nullptr, 0.4, 1.0), 2.0, "cylinder"},
  };
  uint32_t seed = 1;
  for (const Case& k : cases) {
    attachGeomData(k.geom);
    place(k.geom, c, R);
    compareWithReference(k.geom, c, k.spread, 3000, seed++, k.what);
    destroyGeom(k.geom);
  }
  // A plane is hit from either side; its position is the point on it nearest
  // to the origin.
  dGeomID plane = attachGeomData(dCreatePlane(nullptr, 0.3, -0.4, std::sqrt(0.75), 0.25));
  compareWithReference(plane, Eigen::Vector3d(0.3, -0.4, std::sqrt(0.75)) * 0.25, 3.0, 2000, 9, "plane");
  destroyGeom(plane);
}

TEST(RayCast, HeightfieldsAgreeWithTheCollisionLibrary) {
  // A rough 13 x 9 grid, off centre, and a larger generated one; rays from
  // above, from below and along the surface.
  World world;
  std::mt19937 rng(5);
  std::uniform_real_distribution<double> h(-0.4, 1.1);
  std::vector<double> heights(13 * 9);
  for (double& v : heights) v = h(rng);
  HeightMap* rough = world.addHeightMap(13, 9, 6.0, 4.0, 1.5, -0.5, heights);
  HeightMap* terrain =
      world.addHeightMap(20.0, 0.0, TerrainProperties(0.3, 12.0, 12.0, 1.5, 50, 50, 4, 2.0, 0.5, 0, 0, 3));
  struct Case {
    HeightMap* map;
    Eigen::Vector3d center;
    double spread;
  };
  for (const Case& c : {Case{rough, {1.5, -0.5, 0.4}, 3.5}, Case{terrain, {20.0, 0.0, 0.5}, 6.0}}) {
    dGeomID geom = c.map->getCollisionObject();
    dGeomID ray = attachGeomData(dCreateRay(nullptr, 1.0));
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    int hits = 0, fromBelow = 0;
    for (int i = 0; i < 1500; ++i) {
      const Eigen::Vector3d start = c.center + c.spread * Eigen::Vector3d(u(rng), u(rng), 0.5 * u(rng));
      Eigen::Vector3d dir = randomUnit(rng);
      if (i % 4 == 0) dir.z() *= 0.1;  // grazing rays cross many cells
      dir.normalize();
      const double reach = 2.0 * c.spread;
      dGeomRaySetLength(ray, reach);
      dGeomRaySet(ray, start.x(), start.y(), start.z(), dir.x(), dir.y(), dir.z());
      const Reference ref = referenceHit(ray, geom);
      const auto& single = world.rayTest(start, dir, reach, true);
      if (start.z() < c.map->getHeight(start.x(), start.y())) {
        // Below the surface the library treats the ground as a slab and
        // reports points inside it; ours are crossings of the surface, up.
        if (single.size) {
          const Eigen::Vector3d p = single[0].position.e();
          EXPECT_NEAR(p.z(), c.map->getHeight(p.x(), p.y()), 1e-9) << "ray " << i;
          fromBelow += 1;
        }
        continue;
      }
      const Eigen::Vector3d singlePos = single.size ? Eigen::Vector3d(single[0].position.e()) : Eigen::Vector3d::Zero();
      World::RayBatch batch(world);
      const auto& batched = world.rayTest(start, dir, reach, true);
      ASSERT_EQ(batched.size, ref.depth >= 0.0 ? 1u : 0u) << "ray " << i << " from " << start.transpose() << " along "
                                                          << dir.transpose() << ": reference at " << ref.depth;
      if (ref.depth < 0.0) continue;
      ++hits;
      const Eigen::Vector3d p = batched[0].position.e();
      EXPECT_LT((p - ref.pos).norm(), 1e-9) << "ray " << i;
      EXPECT_EQ(batched[0].object, c.map);
      // Every query route gives the same point, which lies on the surface, and
      // the surface's normal there.
      EXPECT_EQ(p, singlePos);
      EXPECT_NEAR(p.z(), c.map->getHeight(p.x(), p.y()), 1e-9);
      Mat<3, 1> n;
      c.map->getNormal(p.x(), p.y(), n);
      const dReal* rn = batched[0].rayContact.normal;
      EXPECT_NEAR(std::abs(n[0] * rn[0] + n[1] * rn[1] + n[2] * rn[2]), 1.0, 1e-9) << "ray " << i;
    }
    EXPECT_GT(hits, 100);
    EXPECT_GT(fromBelow, 10);
    destroyGeom(ray);
  }
  // setPosition moves the geom; the height queries keep answering for the old place.
  const double before = rough->getHeight(2.0, 0.0);
  rough->setPosition(30.0, 30.0, 0.0);
  EXPECT_EQ(rough->getHeight(2.0, 0.0), before);
  EXPECT_EQ(world.rayTest({2.0, 0.0, 5.0}, {0, 0, -1}, 20.0, true).size, 0u);
  const auto& moved = world.rayTest({30.5, 30.5, 5.0}, {0, 0, -1}, 20.0, true);
  ASSERT_EQ(moved.size, 1u);
  EXPECT_NEAR(moved[0].position[2], before, 1e-9);
}

TEST(RayCast, BatchSnapshotMatchesSingleQueriesAndHoldsStill) {
  World world;
  world.addGround(-0.2);
  world.addHeightMap(0.0, 0.0, TerrainProperties(0.2, 16.0, 16.0, 1.0, 40, 40, 3, 2.0, 0.5, 0, 0, 11));
  std::mt19937 rng(3);
  std::uniform_real_distribution<double> u(-6.0, 6.0);
  std::vector<SingleBodyObject*> bodies;
  const double sizes[5][3] = {{0.4, 0, 0}, {0.6, 0.3, 0.8}, {0.2, 0.7, 0}, {0.3, 0.5, 0}, {0.6, 0, 0}};
  for (int i = 0; i < 60; ++i) {
    const double* a = sizes[i % 5];
    bodies.push_back(addBody(world, i % 5, a[0], a[1], a[2], {u(rng), u(rng), 1.0 + 0.2 * u(rng)}, rng));
  }
  bodies[0]->setPosition(9.0, 9.0, 1.0);  // with nothing above it
  std::vector<Ray> rays;
  for (int i = 0; i < 3000; ++i)
    rays.push_back({Eigen::Vector3d(u(rng), u(rng), 2.5 + 0.3 * u(rng)), randomUnit(rng),
                    i % 7 == 0 ? size_t(2) : World::kAllBits,
                    i % 11 == 0 ? bodies[size_t(i) % 60]->getIndexInWorld() : size_t(-1)});
  // Every ray cast alone and then again within one batch: the closest hits
  // agree in object and, to the bit, in position.
  std::vector<std::pair<Object*, Eigen::Vector3d>> single;
  for (const Ray& r : rays) {
    const auto& list = world.rayTest(r.start, r.dir, 15.0, true, r.owner, 0, r.mask);
    single.emplace_back(list.size ? list[0].object : nullptr,
                        list.size ? Eigen::Vector3d(list[0].position.e()) : Eigen::Vector3d::Zero());
  }
  {
    World::RayBatch batch(world);
    for (size_t i = 0; i < rays.size(); ++i) {
      const auto& list = world.rayTest(rays[i].start, rays[i].dir, 15.0, true, rays[i].owner, 0, rays[i].mask);
      EXPECT_EQ(list.size ? list[0].object : nullptr, single[i].first) << "ray " << i;
      if (list.size && list[0].object == single[i].first) {
        EXPECT_EQ(Eigen::Vector3d(list[0].position.e()), single[i].second) << "ray " << i;
      }
    }
  }
  EXPECT_GT(std::count_if(single.begin(), single.end(), [](const auto& h) { return h.first != nullptr; }), 1000);
  // Mask 2 sees the boxes alone.
  for (size_t i = 0; i < rays.size(); i += 7)
    if (single[i].first) {
      EXPECT_TRUE(dynamic_cast<Box*>(single[i].first)) << i;
    }
  {
    World::RayBatch batch(world);
    // Within the batch the scene holds still: a body moved now is seen where
    // it was, also by a nested batch.
    const auto& down =
        world.rayTest({bodies[0]->getPosition()[0], bodies[0]->getPosition()[1], 5.0}, {0, 0, -1}, 20.0, true);
    ASSERT_EQ(down.size, 1u);
    EXPECT_EQ(down[0].object, bodies[0]);
    const Mat<3, 1> was = bodies[0]->getPosition();
    bodies[0]->setPosition(40.0, 40.0, 1.0);
    World::RayBatch nested(world);
    EXPECT_EQ(world.rayTest({was[0], was[1], 5.0}, {0, 0, -1}, 20.0, true)[0].object, bodies[0]);
  }
  // A new batch sees it at its new place.
  World::RayBatch batch(world);
  EXPECT_EQ(world.rayTest({40.0, 40.0, 5.0}, {0, 0, -1}, 20.0, true)[0].object, bodies[0]);
}

TEST(RayCast, DegenerateDirectionsHitNothing) {
  World world;
  world.addGround();
  const double nan = std::numeric_limits<double>::quiet_NaN(), inf = std::numeric_limits<double>::infinity();
  for (bool batch : {false, true}) {
    std::unique_ptr<World::RayBatch> scope(batch ? new World::RayBatch(world) : nullptr);
    for (const Eigen::Vector3d& dir :
         {Eigen::Vector3d(0, 0, 0), Eigen::Vector3d(nan, 0, -1), Eigen::Vector3d(0, inf, -1)})
      for (bool closest : {true, false}) EXPECT_EQ(world.rayTest({0, 0, 1}, dir, 10.0, closest).size, 0u);
    // A direction that is not a unit vector is taken as one.
    const auto& hit = world.rayTest({0, 0, 1}, {0, 0, -5}, 1.5, true);
    ASSERT_EQ(hit.size, 1u);
    EXPECT_NEAR(hit[0].position[2], 0.0, 1e-15);
  }
}

TEST(RayCast, AGrazingRayTouchesTheHighestVertex) {
  // A flat 4 m x 4 m grid with one peak of 1 m at its centre. A level ray at
  // exactly the peak's height along a grid line touches the surface only at
  // the peak; the walk must not skip the blocks and cells whose highest point
  // the ray only touches. The same from below at the bottom of a pit.
  for (double peak : {1.0, -1.0}) {
    World world;
    std::vector<double> heights(25, 0.0);
    heights[12] = peak;
    world.addHeightMap(5, 5, 4.0, 4.0, 0.0, 0.0, heights);
    for (const Eigen::Vector3d& dir : {Eigen::Vector3d(1, 0, 0), Eigen::Vector3d(0, -1, 0)})
      for (bool batched : {false, true}) {
        std::unique_ptr<World::RayBatch> scope(batched ? new World::RayBatch(world) : nullptr);
        const auto& hit = world.rayTest(Eigen::Vector3d(0, 0, peak) - 3.0 * dir, dir, 10.0, true);
        ASSERT_EQ(hit.size, 1u) << peak << " " << dir.transpose() << (batched ? " batched" : "");
        EXPECT_LT((Eigen::Vector3d(hit[0].position.e()) - Eigen::Vector3d(0, 0, peak)).norm(), 1e-9);
      }
  }
}

// ----------------------------------------------- simple scenes, by hand --

namespace {
const Eigen::Vector3d kDown(0, 0, -1);
}

TEST(Ray, HitsEveryPrimitiveAtItsSurface) {
  World world;
  world.addGround(-1.0);
  auto* sphere = world.addSphere(0.5, 1.0);
  sphere->setPosition(0, 0, 0);
  auto* box = world.addBox(1.0, 2.0, 0.4, 1.0);
  box->setPosition(3, 0, 0);
  box->setOrientation(Eigen::Quaterniond(Eigen::AngleAxisd(M_PI / 2, Eigen::Vector3d::UnitZ())));
  auto* capsule = world.addCapsule(0.25, 1.0, 1.0);
  capsule->setPosition(6, 0, 0);  // upright: top at z = 0.75
  auto* cylinder = world.addCylinder(0.3, 0.8, 1.0);
  cylinder->setPosition(9, 0, 0);
  cylinder->setOrientation(Eigen::Quaterniond(Eigen::AngleAxisd(M_PI / 2, Eigen::Vector3d::UnitX())));
  struct Case {
    Eigen::Vector3d start, dir;
    Object* object;
    Eigen::Vector3d hit;
  };
  const double s = std::sqrt(0.5);
  const Case cases[] = {
      {{0, 0, 5}, kDown, sphere, {0, 0, 0.5}},
      {{-3 * s, -3 * s, 0}, {s, s, 0}, sphere, {-0.5 * s, -0.5 * s, 0}},
      {{3, 0, 5}, kDown, box, {3, 0, 0.2}},
      {{1, 0, 0}, {1, 0, 0}, box, {2.0, 0, 0}},  // rotated: 2 m along x now
      {{6, 0, 5}, kDown, capsule, {6, 0, 0.75}},
      {{6, -3, 0.2}, {0, 1, 0}, capsule, {6, -0.25, 0.2}},
      {{9, 0, 5}, kDown, cylinder, {9, 0, 0.3}},  // lying along y
      {{9, -3, 0}, {0, 1, 0}, cylinder, {9, -0.4, 0}},
      {{20, 0, 5}, kDown, world.getObjList()[0], {20, 0, -1}},
  };
  for (const Case& c : cases) {
    const auto& hits = world.rayTest(c.start, c.dir, 50.0, true);
    ASSERT_EQ(hits.size, 1u);
    EXPECT_EQ(hits[0].object, c.object);
    EXPECT_LT((hits[0].position.e() - c.hit).norm(), 1e-9) << hits[0].position.e().transpose();
  }
  // Out of reach, nothing.
  EXPECT_EQ(world.rayTest({0, 0, 5}, kDown, 4.0, true).size, 0u);
  EXPECT_EQ(world.rayTest({0, 0, 5}, {0, 0, 1}, 50.0, false).size, 0u);
}

TEST(Ray, ClosestHitAllHitsMasksAndOwner) {
  World world;
  auto* near = world.addBox(1, 1, 1, 1.0, "default", 0x1);
  near->setPosition(0, 0, 2);
  auto* far = world.addSphere(0.5, 1.0, "default", 0x2);
  far->setPosition(0, 0, -2);
  auto* ground = world.addGround(-5.0);
  auto* side = world.addSphere(0.5, 1.0, "default", 0x4);  // off the vertical ray
  side->setPosition(0, -3, 2);

  // Closest only: the near face of the first box, whatever the order of hits.
  const auto& closest = world.rayTest({0, 0, 10}, kDown, 100.0, true);
  ASSERT_EQ(closest.size, 1u);
  EXPECT_EQ(closest[0].object, near);
  EXPECT_NEAR(closest[0].position[2], 2.5, 1e-12);
  // All hits: one per geom on the way, unsorted.
  const auto& all = world.rayTest({0, 0, 10}, kDown, 100.0, false);
  ASSERT_EQ(all.size, 3u);
  std::vector<double> zs;
  for (size_t i = 0; i < 3; ++i) zs.push_back(all[i].position[2]);
  std::sort(zs.begin(), zs.end());
  EXPECT_LT((Eigen::Vector3d(zs[0], zs[1], zs[2]) - Eigen::Vector3d(-5.0, -1.5, 2.5)).norm(), 1e-12);

  // The mask selects groups; a mask of 0 sees nothing.
  EXPECT_EQ(world.rayTest({0, 0, 10}, kDown, 100.0, false, size_t(-1), size_t(-1), 0).size, 0u);
  EXPECT_EQ(world.rayTest({0, 0, 10}, kDown, 100.0, true, size_t(-1), size_t(-1), 0x2)[0].object, far);
  EXPECT_EQ(world.rayTest({0, 0, 10}, kDown, 100.0, true, size_t(-1), size_t(-1), 0x80000000)[0].object, ground);
  // A ray cast from inside its owner does not see the owner; without an owner
  // it sees the inside of the box first.
  const auto& fromInside = world.rayTest({0, 0, 2}, kDown, 100.0, true, near->getIndexInWorld(), 0);
  ASSERT_EQ(fromInside.size, 1u);
  EXPECT_EQ(fromInside[0].object, far);
  EXPECT_NEAR(fromInside[0].position[2], -1.5, 1e-12);
  EXPECT_EQ(world.rayTest({0, 0, 2}, kDown, 100.0, true)[0].object, near);
  // Along y at z = 2: the side sphere is hit at y = -3.5, 1.5 m from the start;
  // the box at y = -0.5, 4.5 m away, though nearer the origin.
  const auto& along = world.rayTest({0, -5, 2}, {0, 1, 0}, 20.0, true);
  ASSERT_EQ(along.size, 1u);
  EXPECT_EQ(along[0].object, side);
  EXPECT_NEAR(along[0].position[1], -3.5, 1e-12);
}
