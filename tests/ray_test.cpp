// Rays against every primitive, with masks, owners and the closest-hit rule.
#include <gtest/gtest.h>

#include "vorsim/World.hpp"
#include "vorsim/object/Primitives.hpp"

using namespace vorsim;

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
      {{-5, 0, 0}, {1, 0, 0}, sphere, {-0.5, 0, 0}},
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

  // Closest only: the near face of the first box, whatever the order of hits.
  const auto& closest = world.rayTest({0, 0, 10}, kDown, 100.0, true);
  ASSERT_EQ(closest.size, 1u);
  EXPECT_EQ(closest[0].object, near);
  EXPECT_NEAR(closest[0].position[2], 2.5, 1e-12);

  // All hits: one per geom on the way, unsorted.
  const auto& all = world.rayTest({0, 0, 10}, kDown, 100.0, false);
  ASSERT_EQ(all.size, 3u);
  double zs[3];
  for (size_t i = 0; i < 3; ++i) {
    zs[i] = all[i].position[2];
    EXPECT_EQ(all[i].position[2], all[i].rayContact.pos[2]);
  }
  std::sort(zs, zs + 3);
  EXPECT_NEAR(zs[0], -5.0, 1e-12);
  EXPECT_NEAR(zs[1], -1.5, 1e-12);
  EXPECT_NEAR(zs[2], 2.5, 1e-12);

  // The mask selects groups; a mask of 0 sees nothing.
  EXPECT_EQ(world.rayTest({0, 0, 10}, kDown, 100.0, false, size_t(-1), size_t(-1), 0).size, 0u);
  const auto& onlySphere = world.rayTest({0, 0, 10}, kDown, 100.0, true, size_t(-1), size_t(-1), 0x2);
  ASSERT_EQ(onlySphere.size, 1u);
  EXPECT_EQ(onlySphere[0].object, far);
  const auto& groundOnly = world.rayTest({0, 0, 10}, kDown, 100.0, true, size_t(-1), size_t(-1), 0x80000000);
  ASSERT_EQ(groundOnly.size, 1u);
  EXPECT_EQ(groundOnly[0].object, ground);

  // A ray cast from inside its owner does not see the owner.
  const auto& fromInside = world.rayTest({0, 0, 2}, kDown, 100.0, true, near->getIndexInWorld(), 0);
  ASSERT_EQ(fromInside.size, 1u);
  EXPECT_EQ(fromInside[0].object, far);
  EXPECT_NEAR(fromInside[0].position[2], -1.5, 1e-12);
  // Without an owner it sees the inside of the box first.
  EXPECT_EQ(world.rayTest({0, 0, 2}, kDown, 100.0, true)[0].object, near);
}

TEST(Ray, ClosestHitFromAnOffAxisStart) {
  // Along y from y = -5: the sphere at y = -3 is hit at y = -3.5, 1.5 m away;
  // the one at y = 1 at y = 0.5, 5.5 m away, though nearer the axis y = 0.
  World world;
  auto* near = world.addSphere(0.5, 1.0);
  near->setPosition(0, -3, 0);
  auto* far = world.addSphere(0.5, 1.0);
  far->setPosition(0, 1, 0);
  const auto& hit = world.rayTest({0, -5, 0}, {0, 1, 0}, 20.0, true);
  ASSERT_EQ(hit.size, 1u);
  EXPECT_EQ(hit[0].object, near);
  EXPECT_NEAR(hit[0].position[1], -3.5, 1e-12);
  const auto& all = world.rayTest({0, -5, 0}, {0, 1, 0}, 20.0, false);
  ASSERT_EQ(all.size, 2u);
  for (size_t i = 0; i < 2; ++i) EXPECT_EQ(all[i].object, all[i].position[1] < -1.0 ? near : far);
}
