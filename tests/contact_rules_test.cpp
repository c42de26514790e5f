// One step of a contact against hand-computed numbers, each scene also
// mirrored so that the dynamic body is once side A and once side B of the
// pair: the impact target (restitution, its threshold, erp2, the penetration
// term), a kinematic partner's velocity, and the static-friction blend.
#include <gtest/gtest.h>

#include <cmath>
#include <string>

#include "vorsim/World.hpp"
#include "vorsim/contact/Single3DContactProblem.hpp"
#include "vorsim/object/Primitives.hpp"

using namespace vorsim;

namespace {
constexpr double kG = 9.81, kDt = 0.001;

// A floor under the origin whose top is z = 0: the ground plane (always the
// second geom of a pair, so a body on it is side A), or a wide block, which
// the broad phase reports first because it reaches lower in y (side B).
SingleBodyObject* addFloor(World& world, bool bodyIsSideA, double yWidth = 2.0, BodyType type = STATIC) {
  if (bodyIsSideA && type == STATIC) return world.addGround(0.0, "floor");
  Box* block = world.addBox(2.0, yWidth, 0.2, 1.0, "floor");
  block->setPosition(0, 0, -0.1);
  block->setBodyType(type);
  return block;
}

std::string side(bool a) { return a ? "body is side A" : "body is side B"; }
}  // namespace

TEST(ContactRules, ImpactTargetFromTheStartOfStepVelocity) {
  // A ball (r 0.1 m, 1 kg) 2 mm deep in the floor, falling at V = 2 m/s. After
  // one step its normal velocity is the target
  //   max(0, ((vfree - 2 vimpact) - threshold) (restitution + erp2)) + erp * penetration
  // with vfree = -V - g dt (the contact-free velocity) and vimpact = -V (the
  // velocity at the start of the step); erp = 0.3 and erp2 = 0.002 by default.
  const double V = 2.0, penetration = 0.002;
  struct Case {
    double restitution, threshold;
  };
  for (const Case c : {Case{0.0, 0.01}, Case{0.5, 0.01}, Case{0.5, 3.0}}) {
    for (const bool ballIsA : {true, false}) {
      SCOPED_TRACE(side(ballIsA) + ", restitution " + std::to_string(c.restitution) + ", threshold " +
                   std::to_string(c.threshold));
      World world;
      world.setTimeStep(kDt);
      world.setMaterialPairProp("floor", "ball", 0.5, c.restitution, c.threshold);
      addFloor(world, ballIsA);
      Sphere* ball = world.addSphere(0.1, 1.0, "ball");
      ball->setPosition(0, 0, 0.1 - penetration);
      ball->setVelocity(0, 0, -V, 0, 0, 0);
      world.integrate1();
      ASSERT_EQ(ball->getContacts().size(), 1u);
      ASSERT_EQ(ball->getContacts()[0].isObjectA, ballIsA);
      const double depth = -ball->getContacts()[0].depth;
      ASSERT_NEAR(depth, penetration, 1e-12);
      world.integrate2();

      const double vfree = -V - kG * kDt, vimpact = -V;
      const double target =
          std::max(0.0, ((vfree - 2.0 * vimpact) - c.threshold) * (c.restitution + 0.002)) + 0.3 * depth;
      const auto& P = world.getContactProblem()[0];
      EXPECT_NEAR(P.impactVel, vimpact, 1e-15);
      EXPECT_NEAR(P.targetNormalVel, target, 1e-14);
      EXPECT_NEAR(ball->getLinearVelocity()[2], target, 1e-14);
      EXPECT_EQ(ball->getLinearVelocity()[0], 0.0);
      EXPECT_EQ(ball->getAngularVelocity().squaredNorm(), 0.0);
    }
  }
}

TEST(ContactRules, KinematicPartnerEntersAsAConstantVelocity) {
  // A ball at rest, 1 mm deep in a kinematic block that moves at (U, 0, W).
  // The block gets no impulse. The ball sticks: its contact point takes the
  // block's tangential velocity U (close to 2U/7 at the centre of a solid ball);
  // its normal velocity is W plus the target of the relative motion,
  //   ((W - g dt) - threshold) * erp2 + erp * penetration.
  const double U = 0.01, W = 0.2, penetration = 0.001;
  for (const bool ballIsA : {true, false}) {
    SCOPED_TRACE(side(ballIsA));
    World world;
    world.setTimeStep(kDt);
    world.setDefaultMaterial(0.8, 0.0, 0.01);
    // A block narrower in y than the ball is reported second.
    SingleBodyObject* belt = addFloor(world, ballIsA, ballIsA ? 0.1 : 2.0, KINEMATIC);
    belt->setVelocity(U, 0, W, 0, 0, 0);
    Sphere* ball = world.addSphere(0.1, 1.0);
    ball->setPosition(0, 0, 0.1 - penetration);
    world.integrate1();
    ASSERT_EQ(ball->getContacts().size(), 1u);
    ASSERT_EQ(ball->getContacts()[0].isObjectA, ballIsA);
    ASSERT_EQ(belt->getContacts().size(), 1u);
    world.integrate2();

    const auto& P = world.getContactProblem()[0];
    EXPECT_EQ(ballIsA ? P.objectA : P.objectB, ball);
    EXPECT_EQ(ballIsA ? P.objectB : P.objectA, nullptr);
    EXPECT_NEAR(P.impactVel, -W, 1e-15);
    // The point lies on the block's face: an arm r = 0.099 m, so a tangential
    // impulse p moves the point by p (1/m + r^2/I) and the centre by p/m.
    const double r = 0.1 - penetration - ball->getContacts()[0].position[2];
    ASSERT_NEAR(r, 0.099, 1e-12);
    EXPECT_NEAR(ball->getLinearVelocity()[0], U / (1.0 + r * r / 0.004), 1e-15);
    EXPECT_NEAR(ball->getLinearVelocity()[0] - r * ball->getAngularVelocity()[1], U, 1e-15);
    EXPECT_NEAR(ball->getLinearVelocity()[2], W + ((W - kG * kDt) - 0.01) * 0.002 + 0.3 * penetration, 1e-14);
    EXPECT_EQ(belt->getLinearVelocity()[0], U);
    EXPECT_EQ(belt->getLinearVelocity()[2], W);
  }
}

TEST(ContactRules, StaticFrictionBlendsByTheRelativeSlipAtTheStartOfTheStep) {
  // Dynamic friction 0.1, static 0.5, blend threshold 0.1 m/s. A slip of
  // speed s below the threshold gives mu = 0.1 + (1 - s / 0.1) (0.5 - 0.1);
  // 1/mu keeps the dynamic value. The slip is the relative tangential
  // velocity of the two sides (or of the body and a kinematic partner), with
  // both of its components, before any force of the step.
  struct Case {
    double slipX, slipY;
    bool kinematicPartner;
  };
  const Case cases[] = {{0.03, 0.04, false}, {0.0, -0.05, false}, {0.09, 0.12, false}, {0.03, 0.04, true}};
  for (const Case c : cases) {
    for (const bool upperIsA : {true, false}) {
      SCOPED_TRACE(side(upperIsA) + ", slip " + std::to_string(c.slipX) + " " + std::to_string(c.slipY) +
                   (c.kinematicPartner ? ", kinematic partner" : ""));
      World world;
      world.setTimeStep(kDt);
      world.setGravity(Mat<3, 1>{0, 0, -kG});
      world.setMaterialPairProp("floor", "ball", 0.1, 0.0, 0.01, 0.5, 0.1);
      // The lower body moves at (0.3, 0.4); the ball on it slips by (slipX, slipY) more.
      SingleBodyObject* lower = addFloor(world, false, upperIsA ? 0.1 : 2.0, c.kinematicPartner ? KINEMATIC : DYNAMIC);
      lower->setVelocity(0.3, 0.4, 0, 0, 0, 0);
      Sphere* ball = world.addSphere(0.1, 1.0, "ball");
      ball->setPosition(0, 0, 0.0995);
      ball->setVelocity(0.3 + c.slipX, 0.4 + c.slipY, 0, 0, 0, 0);
      world.integrate();
      ASSERT_EQ(ball->getContacts().size(), 1u);
      ASSERT_EQ(ball->getContacts()[0].isObjectA, upperIsA);
      const auto& P = world.getContactProblem()[0];
      const double slip = std::hypot(c.slipX, c.slipY);
      const double mu = slip < 0.1 ? 0.1 + (1.0 - slip / 0.1) * 0.4 : 0.1;
      EXPECT_NEAR(P.mu, mu, 1e-15);
      EXPECT_EQ(P.muInverse, 1.0 / 0.1);
    }
  }
}
