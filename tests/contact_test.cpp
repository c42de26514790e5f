// Bodies in contact: resting and repeatability; one step of a contact against
// hand-computed numbers; material pairs.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "test_helpers.hpp"
#include "vorsim/Materials.hpp"
#include "vorsim/VorSimTinyXmlWrapper.hpp"
#include "vorsim/World.hpp"
#include "vorsim/contact/Single3DContactProblem.hpp"
#include "vorsim/object/Primitives.hpp"

using namespace vorsim;

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

// ------------------------------------------------------------------ rules --
// Each scene of one contact step is also mirrored so that the ball is once
// side A and once side B of the pair.

namespace {
constexpr double kG = 9.81, kDt = 0.001;

struct BallStep {
  Sphere* ball;
  const contact::Single3DContactProblem* problem;  // null unless the ball has one contact, on the side asked for
};

// One step of a ball (r 0.1 m, 1 kg, material "ball") at height z with
// velocity v on a floor (material "floor") whose top is z = 0: the ground plane
// (always the second geom of a pair), or a block moving at (floorX, floorY,
// floorZ), which the broad phase reports first if it reaches lower in y than
// the ball, second if it is narrower.
BallStep stepBall(World& world, bool ballIsA, BodyType floorType, double z, const Eigen::Vector3d& v,
                  const Eigen::Vector3d& floorVel = Eigen::Vector3d::Zero()) {
  world.setTimeStep(kDt);
  if (ballIsA && floorType == STATIC) {
    world.addGround(0.0, "floor");
  } else {
    Box* block = world.addBox(2.0, ballIsA ? 0.1 : 2.0, 0.2, 1.0, "floor");
    block->setPosition(0, 0, -0.1);
    block->setBodyType(floorType);
    block->setVelocity(floorVel.x(), floorVel.y(), floorVel.z(), 0, 0, 0);
  }
  Sphere* ball = world.addSphere(0.1, 1.0, "ball");
  ball->setPosition(0, 0, z);
  ball->setVelocity(v.x(), v.y(), v.z(), 0, 0, 0);
  world.integrate();
  const bool one = ball->getContacts().size() == 1 && ball->getContacts()[0].isObjectA == ballIsA;
  return {ball, one ? &world.getContactProblem()[0] : nullptr};
}

std::string side(bool a) { return a ? "ball is side A" : "ball is side B"; }
}  // namespace

TEST(ContactRules, ImpactTargetFromTheStartOfStepVelocity) {
  // A ball 2 mm deep in the floor, falling at V = 2 m/s. After one step its
  // normal velocity is the target
  //   max(0, ((vfree - 2 vimpact) - threshold) (restitution + erp2)) + erp * penetration
  // with vfree = -V - g dt (the contact-free velocity) and vimpact = -V (the
  // velocity at the start of the step); erp = 0.3 and erp2 = 0.002 by default.
  const double V = 2.0;
  for (const double restitution : {0.0, 0.5}) {
    for (const double threshold : {0.01, 3.0}) {
      for (const bool ballIsA : {true, false}) {
        SCOPED_TRACE(side(ballIsA) + ", restitution " + std::to_string(restitution) + ", threshold " +
                     std::to_string(threshold));
        World world;
        world.setMaterialPairProp("floor", "ball", 0.5, restitution, threshold);
        const auto [ball, P] = stepBall(world, ballIsA, STATIC, 0.098, {0, 0, -V});
        ASSERT_NE(P, nullptr);
        const double depth = -ball->getContacts()[0].depth;
        EXPECT_NEAR(depth, 0.002, 1e-12);
        const double target =
            std::max(0.0, ((-V - kG * kDt + 2.0 * V) - threshold) * (restitution + 0.002)) + 0.3 * depth;
        EXPECT_NEAR(P->impactVel, -V, 1e-15);
        EXPECT_EQ(ballIsA ? P->objectA : P->objectB, ball);
        EXPECT_EQ(ballIsA ? P->objectB : P->objectA, nullptr) << "a static partner is not an object of the problem";
        EXPECT_EQ(ball->getContacts()[0].impulse, &P->impulse);
        EXPECT_NEAR(ball->getLinearVelocity()[2], target, 1e-14);
        EXPECT_EQ(ball->getAngularVelocity().squaredNorm(), 0.0);
      }
    }
  }
  // Against a wall facing +y, with gravity off: the normal is along y.
  World world;
  world.setTimeStep(kDt);
  world.setGravity(Mat<3, 1>{0, 0, 0});
  world.addBox(1.0, 0.2, 1.0, 1.0)->setBodyType(STATIC);
  Sphere* ball = world.addSphere(0.1, 1.0);
  ball->setPosition(0.0, 0.198, 0.0);
  ball->setVelocity(0.3, -V, 0.1, 0, 0, 0);
  world.integrate();
  ASSERT_EQ(world.getContactProblem().size(), 1u);
  EXPECT_NEAR(world.getContactProblem()[0].impactVel, -V, 1e-15);
}

TEST(ContactRules, StaticFrictionBlendsByTheRelativeSlipAtTheStartOfTheStep) {
  // Dynamic friction 0.1, static 0.5, blend threshold 0.1 m/s: a slip s below
  // the threshold gives mu = 0.1 + (1 - s / 0.1) (0.5 - 0.1), while 1/mu keeps
  // the dynamic value. The slip is the relative tangential velocity of the two
  // sides (or of the ball and a kinematic floor, which also rises at 0.2 m/s:
  // the ball meets it at that speed), before any force of the step.
  const double slips[][2] = {{0.03, 0.04}, {0.0, -0.05}, {0.09, 0.12}};
  for (int k = 0; k < 4; ++k) {
    const double sx = slips[k % 3][0], sy = slips[k % 3][1];
    for (const bool ballIsA : {true, false}) {
      SCOPED_TRACE(side(ballIsA) + ", case " + std::to_string(k));
      World world;
      world.setMaterialPairProp("floor", "ball", 0.1, 0.0, 0.01, 0.5, 0.1);
      // The floor moves at (0.3, 0.4); the ball on it slips by (sx, sy) more.
      const auto [ball, P] = stepBall(world, ballIsA, k == 3 ? KINEMATIC : DYNAMIC, 0.0995, {0.3 + sx, 0.4 + sy, 0},
                                      {0.3, 0.4, k == 3 ? 0.2 : 0.0});
      ASSERT_NE(P, nullptr);
      EXPECT_NEAR(P->impactVel, k == 3 ? -0.2 : 0.0, 1e-15);
      EXPECT_EQ(ballIsA ? P->objectB : P->objectA, k == 3 ? nullptr : world.getObjList()[0]);
      const double slip = std::hypot(sx, sy);
      EXPECT_NEAR(P->mu, slip < 0.1 ? 0.1 + (1.0 - slip / 0.1) * 0.4 : 0.1, 1e-15);
      EXPECT_EQ(P->muInverse, 1.0 / 0.1);
    }
  }
}

// -------------------------------------------------------------- materials --

TEST(Materials, XmlTableSettersSymmetryAndDefaultFallback) {
  using V = std::vector<double>;
  const MaterialManager m(VorSimTinyXmlWrapper(std::string(VORSIM_TEST_DATA_DIR) + "/materials.xml", "material"));
  const auto& d = m.getDefaultMaterialProperties();
  // Only the first "default" is read, and it leaves the static-friction fields alone.
  EXPECT_EQ((V{d.c_f, d.c_r, d.r_th, d.c_static_f, d.v_static, d.v_static_inv}), (V{0.6, 0.2, 0.05, 0.8, 1, 1}));
  const auto& sr = m.getMaterialPairProp("steel", "rubber");
  EXPECT_EQ(&sr, &m.getMaterialPairProp("rubber", "steel"));
  EXPECT_EQ((V{sr.c_f, sr.c_r, sr.r_th, sr.c_static_f, sr.v_static, sr.v_static_inv}),
            (V{0.9, 0.3, 0.02, 1.1, 0.25, 4}));
  EXPECT_EQ(m.getMaterialPairProp("ice", "ice").c_f, 0.01);
  // Known names never paired together, unknown names and the empty name fall back.
  for (const auto& [a, b] : {std::pair<const char*, const char*>{"steel", "ice"}, {"wood", "steel"}, {"", ""}})
    EXPECT_EQ(&m.getMaterialPairProp(a, b), &d) << a << "/" << b;

  // The world's setters take the static friction from the friction, and 1 mm/s;
  // only pairs take its reciprocal. A reversed pair overwrites the entry.
  World world;
  world.setDefaultMaterial(0.5, 0.1, 0.2);
  world.setMaterialPairProp("x", "y", 0.6, 0.1, 0.2);
  const auto& wd = world.getMaterialManager().getDefaultMaterialProperties();
  const auto& p = world.getMaterialManager().getMaterialPairProp("y", "x");
  EXPECT_EQ((V{wd.c_static_f, wd.v_static, wd.v_static_inv, p.c_static_f, p.v_static}), (V{0.5, 0.001, 1, 0.6, 0.001}));
  EXPECT_DOUBLE_EQ(p.v_static_inv, 1000.0);
  MaterialManager pairs;
  pairs.setMaterialPairProp("b", "c", 0.6, 0.0, 0.01, 0.6, 1.0);
  pairs.setMaterialPairProp("c", "b", 0.7, 0.0, 0.01, 0.7, 0.1);
  EXPECT_DOUBLE_EQ(pairs.getMaterialPairProp("b", "c").v_static_inv, 10.0);

  ThrowOnFatal guard;
  const VorSimTinyXmlWrapper noFriction(
      "<material>\n <default restitution=\"0\" restitution_threshold=\"0\"/></material>", "material");
  StdoutCapture out;
  EXPECT_THROW(MaterialManager{noFriction}, vorsim_test::FatalError);
  EXPECT_NE(
      out.text().find("] \x1b[1;31min 'URDF from a string' at row:2 col:2, the node 'default' does not contain an "
                      "attribute called 'friction'\x1b[0m\n"),
      std::string::npos);
}

TEST(Materials, EveryContactTakesItsOwnPair) {
  // Two floors of different materials, each under a row of boxes of alternating
  // materials, opposite on the two rows: from one point to the next the floor,
  // the box or both change material, and each problem carries its own pair.
  World world;
  world.setMaterialPairProp("floor", "ice", 0.1, 0.0, 0.01);
  world.setMaterialPairProp("floor", "rubber", 0.9, 0.2, 0.01);
  world.setMaterialPairProp("steel", "ice", 0.3, 0.1, 0.01);
  world.setMaterialPairProp("steel", "rubber", 0.6, 0.3, 0.01);
  const std::string floors[] = {"floor", "steel"}, boxes[] = {"ice", "rubber"};
  for (int f = 0; f < 2; ++f) {
    auto* floor = world.addBox(4.0, 1.0, 0.2, 1.0, floors[f]);
    floor->setPosition(1.0, f == 0 ? -0.6 : 0.6, -0.1);
    floor->setBodyType(STATIC);
    for (int i = 0; i < 4; ++i)
      world.addBox(0.2, 0.2, 0.2, 1.0, boxes[(i + f) % 2])->setPosition(0.5 * i, f == 0 ? -0.6 : 0.6, 0.099);
  }
  world.integrate1();
  ASSERT_EQ(world.getContactProblem().size(), 32u);
  for (const auto& P : world.getContactProblem()) {  // the four pairs have four frictions
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(&P) % 32, 0u) << "every record starts on 32 bytes";
    const int f = P.getPosition()[1] > 0.0 ? 1 : 0, i = int(std::lround(P.getPosition()[0] / 0.5));
    EXPECT_EQ(P.mu, world.getMaterialManager().getMaterialPairProp(floors[f], boxes[(i + f) % 2]).c_f) << f << " " << i;
  }
}
