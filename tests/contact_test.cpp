// Bodies in contact: resting, sticking and sliding by friction, bouncing,
// pushing; contact records and collision filters; repeatability.
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

TEST(Contact, StaticFrictionLetsASphereRollWithoutSlipping) {
  // On a 45 degree slope a sphere rolls without slipping if the contact can
  // carry a friction ratio of 2/7. The dynamic coefficient (0.2) cannot; the
  // static one (0.4) can, and it applies while the contact point is at rest.
  auto acceleration = [](double mu, double staticMu) {
    World world;
    world.setTimeStep(0.001);
    world.setGravity(Mat<3, 1>{kG * std::sqrt(0.5), 0.0, -kG * std::sqrt(0.5)});
    world.setMaterialPairProp("floor", "ball", mu, 0.0, 0.01, staticMu, 0.01);
    world.addGround(0.0, "floor");
    auto* s = world.addSphere(0.1, 1.0, "ball");
    s->setPosition(0, 0, 0.0999);
    for (int i = 0; i < 1000; ++i) world.integrate();
    // Rolling without slipping: the contact point does not move.
    const double slip = s->getLinearVelocity()[0] - 0.1 * s->getAngularVelocity()[1];
    return std::make_pair(s->getLinearVelocity()[0] / world.getWorldTime(), slip);
  };
  const double g45 = kG * std::sin(M_PI / 4);
  const auto rolling = acceleration(0.2, 0.4);
  EXPECT_NEAR(rolling.first, 5.0 / 7.0 * g45, 0.01 * g45);
  EXPECT_LT(std::abs(rolling.second), 1e-3);
  const auto slipping = acceleration(0.2, 0.2);
  EXPECT_NEAR(slipping.first, g45 * (1.0 - 0.2), 0.01 * g45);
  EXPECT_GT(slipping.second, 1.0);
}

TEST(Contact, SlidingBoxStopsAtTheCoulombDistance) {
  for (const double mu : {0.3, 0.8}) {
    SlopeScene scene(0.0, mu, mu);
    const double v0 = 3.0;
    scene.box->setVelocity(v0, 0, 0, 0, 0, 0);
    for (int i = 0; i < 3000 && (i < 10 || scene.box->getLinearVelocity().norm() > 1e-6); ++i) scene.world.integrate();
    const double expected = v0 * v0 / (2 * mu * kG);
    EXPECT_NEAR(scene.box->getPosition()[0], expected, 0.02 * expected) << "mu " << mu;
    EXPECT_LT(std::abs(scene.box->getPosition()[1]), 0.01 * expected);
  }
}

TEST(Contact, RestitutionAndItsThreshold) {
  auto dropHeight = [](double restitution, double threshold, double h0) {
    World world;
    world.setTimeStep(0.0005);
    world.setMaterialPairProp("floor", "ball", 0.5, restitution, threshold);
    world.addGround(0.0, "floor");
    auto* s = world.addSphere(0.05, 0.2, "ball");
    s->setPosition(0, 0, 0.05 + h0);
    bool bounced = false;
    double apex = 0.0;
    for (int i = 0; i < 20000 && !(apex > 0 && s->getLinearVelocity()[2] < 0 && s->getContacts().empty()); ++i) {
      world.integrate();
      bounced = bounced || !s->getContacts().empty();
      if (bounced && s->getLinearVelocity()[2] > 0) apex = std::max(apex, s->getPosition()[2] - 0.05);
    }
    return apex;
  };
  EXPECT_NEAR(dropHeight(0.8, 0.01, 1.0), 0.64, 0.03 * 0.64);
  // An impact slower than the threshold does not bounce back noticeably.
  EXPECT_LT(dropHeight(0.8, 5.0, 0.2), 2e-3);
}

TEST(Contact, KinematicBoxPushesDynamicBox) {
  World world;
  world.setTimeStep(0.001);
  world.setDefaultMaterial(0.5, 0.0, 0.01);
  world.addGround();
  auto* pusher = world.addBox(0.2, 1.0, 0.4, 1.0);
  pusher->setPosition(-0.3, 0, 0.2);
  pusher->setBodyType(KINEMATIC);
  pusher->setVelocity(0.5, 0, 0, 0, 0, 0);
  auto* block = world.addBox(0.2, 0.2, 0.2, 1.0);
  block->setPosition(0.0, 0, 0.1);
  for (int i = 0; i < 2000; ++i) world.integrate();
  // The pusher keeps its velocity; the block is carried in front of it.
  EXPECT_DOUBLE_EQ(pusher->getLinearVelocity()[0], 0.5);
  EXPECT_NEAR(pusher->getPosition()[0], 0.7, 1e-9);
  EXPECT_NEAR(block->getPosition()[0] - pusher->getPosition()[0], 0.2, 0.005);
  EXPECT_NEAR(block->getLinearVelocity()[0], 0.5, 0.05);
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
  auto contactsBetween = [](size_t g1, size_t m1, size_t g2, size_t m2) {
    World world;
    world.setGravity(Mat<3, 1>{0, 0, 0});
    auto* a = world.addSphere(0.1, 1.0, "default", g1, m1);
    auto* b = world.addSphere(0.1, 1.0, "default", g2, m2);
    a->setPosition(0, 0, 0);
    b->setPosition(0.15, 0, 0);
    world.integrate();
    return a->getContacts().size();
  };
  EXPECT_EQ(contactsBetween(1, 1, 1, 1), 1u);
  EXPECT_EQ(contactsBetween(1, 2, 2, 4), 1u);  // one direction suffices
  EXPECT_EQ(contactsBetween(1, 4, 2, 4), 0u);
  EXPECT_EQ(contactsBetween(0, size_t(-1), 0, size_t(-1)), 0u);  // group 0 matches nothing
  // Only the low 32 bits count.
  EXPECT_EQ(contactsBetween(size_t(1) << 40, size_t(1) << 40, 1, size_t(-1)), 0u);
  EXPECT_EQ(contactsBetween((size_t(1) << 40) | 1, 1, 1, 1), 1u);
}

TEST(Contact, RepeatedRunsAreBitIdentical) {
  auto run = [] {
    World world;
    world.setTimeStep(0.002);
    world.setMaterialPairProp("a", "b", 0.6, 0.3, 0.1);
    world.addGround(0.0, "a");
    std::vector<SingleBodyObject*> bodies;
    for (int i = 0; i < 27; ++i) {
      SingleBodyObject* b = nullptr;
      switch (i % 4) {
        case 0:
          b = world.addSphere(0.1, 1.0, "b");
          break;
        case 1:
          b = world.addBox(0.2, 0.15, 0.1, 1.0, "a");
          break;
        case 2:
          b = world.addCapsule(0.05, 0.2, 1.0, "b");
          break;
        default:
          b = world.addCylinder(0.08, 0.15, 1.0, "a");
          break;
      }
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
  const auto first = run();
  const auto second = run();
  ASSERT_EQ(first.size(), second.size());
  EXPECT_EQ(std::memcmp(first.data(), second.data(), first.size() * sizeof(double)), 0);
  for (double x : first) ASSERT_TRUE(std::isfinite(x));
}
