// Bodies in contact: resting, sticking and sliding by friction; contact
// records and collision filters; repeatability. The rules of a single contact
// step (restitution, kinematic partners, static friction) are in
// contact_rules_test.cpp.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <vector>

#include "vorsim/World.hpp"
#include "vorsim/contact/Single3DContactProblem.hpp"
#include "vorsim/object/Primitives.hpp"

using namespace vorsim;

namespace {
constexpr double kG = 9.81;

// A box on flat ground under gravity tilted by theta about y: the same physics
// as a box on a slope of angle theta.
struct SlopeScene {
  World world;
  Box* box;
  SlopeScene(double theta, double mu, double staticMu, double dt = 0.001) {
    world.setTimeStep(dt);
    world.setGravity(Mat<3, 1>{kG * std::sin(theta), 0.0, -kG * std::cos(theta)});
    world.setMaterialPairProp("floor", "block", mu, 0.0, 0.01, staticMu, 0.01);
    world.addGround(0.0, "floor");
    box = world.addBox(0.2, 0.2, 0.1, 1.0, "block");
    box->setPosition(0, 0, 0.05);
  }
};
}  // namespace

TEST(Contact, SphereComesToRestAndStays) {
  World world;
  world.setTimeStep(0.002);
  world.addGround();
  auto* s = world.addSphere(0.1, 1.0);
  s->setPosition(0, 0, 0.5);
  double worstPenetration = 0.0, worstDrift = 0.0;
  for (int i = 0; i < 5000; ++i) {  // 10 s
    world.integrate();
    worstPenetration = std::max(worstPenetration, 0.1 - s->getPosition()[2]);
    if (world.getWorldTime() > 1.0) {
      worstDrift = std::max(worstDrift, std::hypot(s->getPosition()[0], s->getPosition()[1]));
      ASSERT_EQ(s->getContacts().size(), 1u);
    }
  }
  EXPECT_LT(worstPenetration, 0.01);  // the impact at 3 m/s, then recovery
  EXPECT_LT(0.1 - s->getPosition()[2], 1e-4);
  EXPECT_LT(s->getLinearVelocity().norm(), 1e-4);
  EXPECT_EQ(worstDrift, 0.0);
}

TEST(Contact, BoxOnSlopeSticksOrSlidesByCoulomb) {
  // tan(theta) = 0.4 < mu = 0.5: it holds, up to the solver's tolerance.
  SlopeScene sticking(std::atan(0.4), 0.5, 0.5);
  for (int i = 0; i < 2000; ++i) sticking.world.integrate();
  EXPECT_LT(std::abs(sticking.box->getPosition()[0]), 1e-4);
  EXPECT_LT(sticking.box->getLinearVelocity().norm(), 1e-3);
  // tan(theta) > mu: it slides with acceleration g (sin - mu cos).
  for (const double theta : {0.5, 0.7}) {
    SlopeScene scene(theta, 0.3, 0.3);
    for (int i = 0; i < 200; ++i) scene.world.integrate();
    const double v0 = scene.box->getLinearVelocity()[0];
    for (int i = 0; i < 1000; ++i) scene.world.integrate();
    const double expected = kG * (std::sin(theta) - 0.3 * std::cos(theta));
    EXPECT_NEAR(scene.box->getLinearVelocity()[0] - v0, expected, 0.02 * expected) << "theta " << theta;
    EXPECT_LT(std::abs(scene.box->getLinearVelocity()[1]), 1e-3 * scene.box->getLinearVelocity()[0]);
  }
}

TEST(Contact, RecordsAndProblemsPerBodyType) {
  World world;
  world.addGround();
  auto* s = world.addSphere(0.1, 1.0);
  s->setPosition(0, 0, 0.09);
  // Two static bodies that overlap make nothing.
  auto* a = world.addBox(1, 1, 1, 1);
  a->setPosition(5, 0, 0.4);
  a->setBodyType(STATIC);
  // A kinematic body pressing on a dynamic one.
  auto* k = world.addBox(0.2, 0.2, 0.2, 1);
  k->setPosition(-5, 0, 0.29);
  k->setBodyType(KINEMATIC);
  auto* d = world.addBox(0.2, 0.2, 0.2, 1);
  d->setPosition(-5, 0, 0.1);
  world.integrate1();

  ASSERT_EQ(s->getContacts().size(), 1u);
  const Contact& c = s->getContacts()[0];
  EXPECT_EQ(c.pairObjectBodyType, STATIC);
  EXPECT_NEAR(c.depth, -0.01, 1e-12);
  EXPECT_NEAR(std::abs(c.normal[2]), 1.0, 1e-12);
  EXPECT_TRUE(a->getContacts().empty());
  ASSERT_FALSE(k->getContacts().empty());
  // Twin records point at each other.
  for (const Contact& kc : k->getContacts()) {
    const Contact& twin = d->getContacts()[kc.pairContactIndex];
    EXPECT_EQ(twin.pairContactIndex, kc.localContactIndex);
    EXPECT_EQ(twin.contactProblemIndex, kc.contactProblemIndex);
    EXPECT_NE(twin.isObjectA, kc.isObjectA);
  }
  world.integrate2();
  const auto& problems = world.getContactProblem();
  ASSERT_EQ(problems.size(), 1 + d->getContacts().size());
  // Each problem names exactly one object: static and kinematic partners are not objects of it.
  for (const auto& p : problems) EXPECT_NE(p.objectA == nullptr, p.objectB == nullptr);
  // The sphere's problem names it on the side it came from.
  const auto& sp = problems[c.contactProblemIndex];
  EXPECT_EQ(c.isObjectA ? sp.objectA : sp.objectB, s);
  EXPECT_EQ(c.impulse, &sp.impulse);
  EXPECT_GT(sp.impulse[2], 0.0);
}

TEST(Contact, GroupsAndMasksFilterPairs) {
  // One direction suffices; group 0 matches nothing; only the low 32 bits count.
  const size_t all = size_t(-1), high = size_t(1) << 40;
  const struct {
    size_t g1, m1, g2, m2, contacts;
  } cases[] = {{1, 1, 1, 1, 1},     {1, 2, 2, 4, 1},         {1, 4, 2, 4, 0},
               {0, all, 0, all, 0}, {high, high, 1, all, 0}, {high | 1, 1, 1, 1, 1}};
  for (const auto& c : cases) {
    World world;
    world.setGravity(Mat<3, 1>{0, 0, 0});
    auto* a = world.addSphere(0.1, 1.0, "default", c.g1, c.m1);
    world.addSphere(0.1, 1.0, "default", c.g2, c.m2)->setPosition(0.15, 0, 0);
    world.integrate();
    EXPECT_EQ(a->getContacts().size(), c.contacts) << c.g1 << " " << c.m1 << " " << c.g2 << " " << c.m2;
  }
}

TEST(Contact, RepeatedRunsAreBitIdentical) {
  auto run = [] {
    World world;
    world.setTimeStep(0.002);
    world.setMaterialPairProp("a", "b", 0.6, 0.3, 0.1);
    world.addGround(0.0, "a");
    std::vector<SingleBodyObject*> bodies;
    for (int i = 0; i < 27; ++i) {
      SingleBodyObject* b = i % 4 == 0   ? world.addSphere(0.1, 1.0, "b")
                            : i % 4 == 1 ? static_cast<SingleBodyObject*>(world.addBox(0.2, 0.15, 0.1, 1.0, "a"))
                            : i % 4 == 2 ? static_cast<SingleBodyObject*>(world.addCapsule(0.05, 0.2, 1.0, "b"))
                                         : world.addCylinder(0.08, 0.15, 1.0, "a");
      b->setPosition(0.05 * (i % 3), 0.07 * ((i / 3) % 3), 0.2 + 0.25 * i);
      b->setOrientation(Eigen::Quaterniond(Eigen::AngleAxisd(0.1 * i, Eigen::Vector3d(1, 1, 0).normalized())));
      bodies.push_back(b);
    }
    for (int i = 0; i < 1500; ++i) world.integrate();
    std::vector<double> state;
    for (auto* b : bodies) {
      state.insert(state.end(), b->getPosition().v, b->getPosition().v + 3);
      state.insert(state.end(), b->getQuaternion().v, b->getQuaternion().v + 4);
      state.insert(state.end(), b->getLinearVelocity().v, b->getLinearVelocity().v + 3);
    }
    return state;
  };
  const auto first = run(), second = run();
  ASSERT_EQ(first.size(), second.size());
  EXPECT_EQ(std::memcmp(first.data(), second.data(), first.size() * sizeof(double)), 0);
  for (double x : first) ASSERT_TRUE(std::isfinite(x));
}
