// Joint limits and pins of robots: stops, speed caps, cone limits, closed
// loops, and the warm start of limit problems.
#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <string>
#include <vector>

#include "robot_compare.hpp"
#include "vorsim/World.hpp"
#include "vorsim/contact/BisectionContactSolver.hpp"
#include "vorsim/contact/Single3DContactProblem.hpp"
#include "vorsim/object/LengthConstraint.hpp"
#include "vorsim/object/Primitives.hpp"

using namespace vorsim;
using vorsim_test::link;

namespace {

// A fixed base at height 2 with one joint of the given type about x, its
// mass 0.5 m below the joint.
Child pendulum(Joint::Type type = Joint::REVOLUTE, const Mat<2, 1>& limit = {0, 0}, double velocityLimit = 100.0) {
  Child base = link("base", Joint::FIXED, 1.0, {0, 0, 0});
  base.pos = {0, 0, 2};
  base.child.push_back(link("arm", type, 1.0, {0, 0, -0.5}));
  base.child[0].axis = {1, 0, 0};
  base.child[0].limit = limit;
  base.child[0].velocityLimit = velocityLimit;
  return base;
}

}  // namespace

TEST(JointLimits, PendulumStopsAtItsLimitAndLeavesIt) {
  for (bool warm : {false, true}) {
    SCOPED_TRACE(warm ? "warm start" : "cold start");
    World world;
    world.setTimeStep(0.001);
    world.setWarmStart(warm);
    ArticulatedSystem* s = world.addArticulatedSystem(pendulum(Joint::REVOLUTE, {-1.0, 0.2}), "", 1, 0);
    // Swings up into the upper stop at about 0.5 rad/s; the stop is
    // inelastic, so gravity then takes it back down and up again to rest
    // against the stop at the top of each swing.
    s->setGeneralizedVelocity({1.0});
    double highest = 0.0, lowest = 0.0;
    for (int i = 0; i < 3000; ++i) {
      world.integrate();
      highest = std::max(highest, s->gc[0]);
      lowest = std::min(lowest, s->gc[0]);
    }
    EXPECT_GT(highest, 0.2);  // it got there
    EXPECT_LT(highest - 0.2, 1e-3);
    EXPECT_LT(lowest, -0.15);  // and did not stick

    // Held against the stop by a torque well above gravity's, then pushed
    // away: the stop holds and never pulls.
    s->setGeneralizedCoordinate({0.2});
    s->setGeneralizedVelocity({0.0});
    for (int i = 0; i < 500; ++i) {
      s->setGeneralizedForce({20.0});
      world.integrate();
      highest = std::max(highest, s->gc[0]);
    }
    EXPECT_LT(highest - 0.2, 1e-3);
    EXPECT_LT(std::abs(s->gv[0]), 1e-9);
    // Started from the last step's impulse, the held stop is solved at once.
    EXPECT_EQ(world.getContactSolver().getLoopCounter() == 1, warm);
    for (int i = 0; i < 100; ++i) {
      s->setGeneralizedForce({-20.0});
      world.integrate();
    }
    EXPECT_LT(s->gc[0], 0.0);
    EXPECT_LT(s->gv[0], -1.0);
  }
}

TEST(JointLimits, VelocityLimitCapsTheSpeedOfALimitedJointOnly) {
  // Without a position limit there is no speed limit either. With the warm
  // start, the speed follows the same path: the cap holds while the force
  // pushes, and lets go at once when it pulls back.
  std::vector<double> cold;
  for (int run = 0; run < 3; ++run) {
    const bool limited = run < 2, warm = run == 1;
    World world;
    world.setGravity(Mat<3, 1>{0, 0, 0});
    world.setWarmStart(warm);
    const double range = limited ? 100.0 : 0.0;
    ArticulatedSystem* s = world.addArticulatedSystem(pendulum(Joint::REVOLUTE, {-range, range}, 2.0), "", 1, 0);
    double fastest = 0.0;
    for (int i = 0; i < 2600; ++i) {
      s->setGeneralizedForce({i < 2000 || i >= 2300 ? 5.0 : -1.0});
      world.integrate();
      fastest = std::max(fastest, std::abs(s->gv[0]));
      if (run == 0) cold.push_back(s->gv[0]);
      if (warm) {
        ASSERT_NEAR(s->gv[0], cold[size_t(i)], 1e-9) << "step " << i;
      }
    }
    if (limited) {
      EXPECT_NEAR(fastest, 2.0, 1e-9);
      EXPECT_NEAR(s->gv[0], 2.0, 1e-9);
      EXPECT_LT(cold[2299], 1.9);
    } else {
      EXPECT_GT(s->gv[0], 5.0);
    }
  }
}

TEST(JointLimits, ConeLimitHoldsASphericalJoint) {
  World world;
  world.setTimeStep(0.001);
  world.setGravity(Mat<3, 1>{0, 0, 0});
  ArticulatedSystem* s = world.addArticulatedSystem(pendulum(Joint::SPHERICAL, {0.4, 0.0}), "", 1, 0);
  // A torque about an oblique axis drives the joint into the cone's wall.
  double widest = 0.0;
  for (int i = 0; i < 2000; ++i) {
    s->setGeneralizedForce({0.12, 0.16, 0.0});
    world.integrate();
    widest = std::max(widest, 2.0 * std::acos(std::min(1.0, std::abs(s->gc[0]))));
  }
  EXPECT_GT(widest, 0.4);
  EXPECT_LT(widest - 0.4, 1.5e-3);
  // The rotation is about the pushed axis, and at rest.
  const double norm = std::hypot(s->gc[1], s->gc[2]);
  EXPECT_NEAR(s->gc[1] / norm, 0.6, 1e-3);
  EXPECT_NEAR(s->gc[2] / norm, 0.8, 1e-3);
  EXPECT_LT(std::sqrt(s->gv[0] * s->gv[0] + s->gv[1] * s->gv[1] + s->gv[2] * s->gv[2]), 1e-2);
}

TEST(Pins, FourBarLinkageStaysClosed) {
  // Ground A = (0, 0, 0) and D = (0, 1, 0); crank 1 down from A, the coupler
  // from its end along y, crank 2 down from D. The pin joins the coupler's
  // end to crank 2's end: a parallelogram with one degree of freedom.
  Child base = pendulum();
  Child coupler = link("coupler", Joint::REVOLUTE, 1.0, {0, 0.5, 0});
  coupler.axis = {1, 0, 0};
  coupler.pos = {0, 0, -1};
  base.child[0].child.push_back(coupler);
  base.child.push_back(link("crank2", Joint::REVOLUTE, 1.0, {0, 0, -0.5}));
  base.child[1].axis = {1, 0, 0};
  base.child[1].pos = {0, 1, 0};

  World world;
  world.setTimeStep(0.001);
  ArticulatedSystem* s = world.addArticulatedSystem(base, "", 1, 0);
  // Swung out by 0.6 rad: the coupler turns back to stay level.
  VecDyn gc = s->gc;
  gc[0] = 0.6, gc[1] = -0.6, gc[2] = 0.6;
  s->addConstraints({PinConstraintDefinition{"coupler", "crank2", Mat<3, 1>{0, 1, 0}}}, gc);
  s->initializeConstraints();
  ASSERT_EQ(s->getPins().size(), 1u);
  EXPECT_EQ(s->getPins()[0].pinBody1, 2u);  // the first body named
  EXPECT_EQ(s->getPins()[0].pinBody2, 3u);

  double worst = 0.0, lowest = 0.0;
  for (int i = 0; i < 10000; ++i) {
    world.integrate();
    const PinConstraint& pin = s->getPins()[0];
    Mat<3, 1> p1, p2;
    s->getPosition(pin.pinBody1, pin.pinPos1, p1);
    s->getPosition(pin.pinBody2, pin.pinPos2, p2);
    worst = std::max(worst, (p1.e() - p2.e()).norm());
    lowest = std::min(lowest, s->gc[0]);
  }
  EXPECT_LT(worst, 1e-4);
  EXPECT_LT(lowest, -0.5);  // it swings through to the other side
  // The loop moves as a parallelogram.
  EXPECT_NEAR(s->gc[2], s->gc[0], 1e-3);
  EXPECT_NEAR(s->gc[1], -s->gc[0], 1e-3);
}

namespace {

// A robot that is one free body of mass 2 at `at`, without geoms.
ArticulatedSystem* addFreeBody(World& world, const Mat<3, 1>& at) {
  Child root = link("block", Joint::FLOATING, 2.0, {0, 0, 0});
  ArticulatedSystem* s = world.addArticulatedSystem(root, "", 1, 0);
  s->setBasePos(at);
  return s;
}

SingleBodyObject* addAnchor(World& world, const Mat<3, 1>& at) {
  auto* anchor = world.addSphere(0.05, 1.0, "default", 1, 0);
  anchor->setBodyType(STATIC);
  anchor->setPosition(at);
  return anchor;
}

}  // namespace

TEST(RobotWires, StiffWireHoldsARobotPendulumLikeABody) {
  // The same pendulum as a ball and as a robot stepped like a body
  // (semi-implicit Euler) drifts from its length exactly as much; at a
  // correction rate of 100 /s a robot (trapezoid) stays within 1e-4 m.
  const Mat<3, 1> top{0, 0, 3};
  double worst[3] = {0.0, 0.0, 0.0};
  for (int run = 0; run < 3; ++run) {
    World world;
    world.setTimeStep(0.001);
    if (run == 2) world.setERP(100.0, 0.002);
    auto* anchor = addAnchor(world, top);
    Object* end;
    std::function<Eigen::Vector3d()> position;
    if (run > 0) {
      ArticulatedSystem* s = addFreeBody(world, {0.6, 0, 2.2});
      if (run == 1) s->setIntegrationScheme(ArticulatedSystem::SEMI_IMPLICIT_EULER);
      end = s;
      position = [s] { return Eigen::Vector3d(s->gc[0], s->gc[1], s->gc[2]); };
    } else {
      auto* ball = world.addSphere(0.05, 2.0, "default", 1, 0);
      ball->setPosition(0.6, 0, 2.2);
      end = ball;
      position = [ball] { return Eigen::Vector3d(ball->getPosition().e()); };
    }
    world.addStiffWire(anchor, 0, {0, 0, 0}, end, 0, {0, 0, 0}, 1.0);
    double leftmost = 1.0;
    for (int i = 0; i < 10000; ++i) {
      world.integrate();
      worst[run] = std::max(worst[run], std::abs((position() - top.e()).norm() - 1.0));
      leftmost = std::min(leftmost, position()[0]);
    }
    EXPECT_LT(leftmost, -0.55) << run;
  }
  EXPECT_LT(worst[1], 5e-3);
  EXPECT_NEAR(worst[1], worst[0], 1e-3 * worst[0]);
  EXPECT_LT(worst[2], 1e-4);
}

TEST(RobotWires, CompliantWireStretchesByWeightOverStiffnessAndCustomTensionActsExactly) {
  const Mat<3, 1> top{0, 0, 3};
  World world;
  world.setTimeStep(0.001);
  ArticulatedSystem* s = addFreeBody(world, {0, 0, 2});
  VecDyn damping(6);
  for (size_t i = 0; i < 6; ++i) damping[i] = i < 3 ? 20.0 : 0.0;
  s->setJointDamping(damping);
  world.addCompliantWire(addAnchor(world, top), 0, {0, 0, 0}, s, 0, {0, 0, 0}, 1.0, 1000.0);
  for (int i = 0; i < 5000; ++i) world.integrate();
  EXPECT_NEAR((s->gc.e().head<3>() - top.e()).norm() - 1.0, 2.0 * 9.81 / 1000.0, 1e-6);

  // 5 N toward the anchor for one step on 2 kg, without gravity.
  World free;
  free.setGravity(Mat<3, 1>{0, 0, 0});
  ArticulatedSystem* t = addFreeBody(free, {0, 0.6, 2.2});
  free.addCustomWire(addAnchor(free, top), 0, {0, 0, 0}, t, 0, {0, 0, 0}, 1.0)->setTension(5.0);
  free.integrate();
  const double dv = 5.0 * free.getTimeStep() / 2.0;
  EXPECT_NEAR(t->gv[1], -0.6 * dv, 1e-15);
  EXPECT_NEAR(t->gv[2], 0.8 * dv, 1e-15);
}

TEST(JointLimits, LimitResponsesAreColumnsOfTheInverseMass) {
  // Every joint of a floating tree past its limit: each response is M^-1 (with
  // the implicit PD diagonal) times the unit impulse on its joint.
  auto limited = [](const std::string& name, Joint::Type type, double mass, const Mat<3, 1>& com, const Mat<3, 1>& axis,
                    const Mat<3, 1>& pos, const Mat<2, 1>& limit) {
    Child c = link(name, type, mass, com);
    c.axis = axis, c.pos = pos, c.limit = limit;
    return c;
  };
  Child root = link("root", Joint::FLOATING, 3.0, {0.1, 0, 0});
  Child slider = limited("slider", Joint::PRISMATIC, 1.0, {0, 0.1, -0.2}, {0, 0, 1}, {0.2, 0, 0}, {0.1, 0.3});
  Child hinge = limited("hinge", Joint::REVOLUTE, 0.7, {0, 0, -0.3}, {0, 1, 0}, {0, 0, -0.2}, {-0.5, -0.2});
  Child ball = limited("ball", Joint::SPHERICAL, 0.4, {0.05, 0, -0.2}, {0, 0, 1}, {0, 0, -0.4}, {0.2, 0});
  ball.child.push_back(limited("wrist", Joint::REVOLUTE, 0.2, {0, 0.05, -0.1}, {1, 0, 0}, {0, 0, -0.3}, {-0.5, 0.5}));
  hinge.child.push_back(ball);
  slider.child.push_back(hinge);
  root.child = {slider, limited("side", Joint::REVOLUTE, 0.5, {0, 0.2, 0}, {1, 0, 0}, {-0.2, 0, 0}, {0.3, 0.4})};
  World world;
  ArticulatedSystem* s = world.addArticulatedSystem(root, "", 1, 0);
  // The ball turned 0.5 rad about (0.6, 0, 0.8); the others out of range.
  const double c = std::cos(0.25), sn = std::sin(0.25);
  VecDyn gc = s->gc;
  auto at = [&](const std::string& name) { return s->gcIdx[s->getBodyIdx(name)]; };
  gc[at("slider")] = 0.0, gc[at("hinge")] = 0.1, gc[at("wrist")] = -0.6, gc[at("side")] = 0.0;
  for (size_t k = 0; k < 4; ++k) gc[at("ball") + k] = std::vector<double>{c, 0.6 * sn, 0.0, 0.8 * sn}[k];
  s->setGeneralizedCoordinate(gc);
  vorsim_test::setPd(*s, 40.0, 2.0, gc);
  world.integrate1();
  ContactProblemList problems;
  s->preContactSolverUpdate2(world.getGravity(), world.getTimeStep(), problems);
  ASSERT_EQ(problems.size(), 5u);
  Eigen::MatrixXd M = s->getMassMatrix().e();
  for (size_t i = 0; i < s->dof; ++i) M(Eigen::Index(i), Eigen::Index(i)) += s->dampedDiag[i];
  const Eigen::MatrixXd Minv = M.inverse();
  for (const auto& P : problems) {
    const size_t b = P.localIndexA, g = s->gvIdx[b];
    SCOPED_TRACE(s->getBodyNames()[b]);
    Eigen::VectorXd e = Eigen::VectorXd::Zero(Eigen::Index(s->dof));
    if (s->jointType[b] == Joint::SPHERICAL) {
      for (size_t k = 0; k < 3; ++k) e(Eigen::Index(g + k)) = P.basis[0][k];
      EXPECT_NEAR(P.basis[0][2], 0.8, 1e-12);
      EXPECT_NEAR(P.depth, 0.2 - 0.5, 1e-12);
    } else {
      e(Eigen::Index(g)) = 1.0;
    }
    const Eigen::VectorXd expected = Minv * e;
    EXPECT_LT((s->limitResponse[b].e() - expected).norm(), 1e-9 * expected.norm());
    EXPECT_NEAR(P.rankOneDelassus, e.dot(expected), 1e-9 * e.dot(expected));
    EXPECT_NEAR(P.delassusInverse(0, 0) * P.rankOneDelassus, 1.0, 1e-12);
    EXPECT_EQ(P.rank, 5);
  }
  EXPECT_EQ(problems[0].mu, 1.0);   // the slider, below its range
  EXPECT_EQ(problems[1].mu, -1.0);  // the hinge, above its range
  EXPECT_NEAR(problems[0].depth, 0.1, 1e-12);
  EXPECT_NEAR(problems[1].depth, 0.3, 1e-12);
}

TEST(Pins, APinOnTheFixedBaseHoldsALink) {
  // A pendulum pinned at its tip to a point of the fixed base, named first:
  // the moving body owns the pin, and the pendulum stays where it was put.
  World world;
  world.setTimeStep(0.001);
  ArticulatedSystem* s = world.addArticulatedSystem(pendulum(), "", 1, 0);
  VecDyn gc = s->gc;
  gc[0] = 0.8;
  s->addConstraints({PinConstraintDefinition{"base", "arm", Mat<3, 1>{0, std::sin(0.8), -std::cos(0.8)}}}, gc);
  s->initializeConstraints();
  ASSERT_EQ(s->getPins().size(), 1u);
  EXPECT_EQ(s->getPins()[0].pinBody1, 1u);
  EXPECT_EQ(s->getPins()[0].pinBody2, 0u);
  for (int i = 0; i < 2000; ++i) world.integrate();
  EXPECT_NEAR(s->gc[0], 0.8, 1e-3);  // gravity alone would swing it down
  EXPECT_EQ(s->getContacts().size(), 1u);
}

TEST(JointLimits, WarmStartedSpeedLimitsOfAChainBrakeOnlyAtTheCap) {
  // Three joints in a chain, each capped at 1.5 rad/s and swung by gravity and
  // changing torques: the caps act together and take several sweeps per step.
  // Started from the last step's impulses, the solve may take back what the
  // start added in excess, so every cap that ends up braking holds its joint
  // exactly at the cap (solved to the last digit here).
  World world;
  world.setTimeStep(0.001);
  world.setWarmStart(true);
  world.setContactSolverParam(1.0, 1.0, 1.0, 1000, 1e-26);
  Child base = link("base", Joint::FIXED, 1.0, {0, 0, 0});
  base.pos = {0, 0, 3};
  Child* parent = &base;
  for (int k = 0; k < 3; ++k) {
    parent->child.push_back(link("arm" + std::to_string(k), Joint::REVOLUTE, 1.0, {0, 0, -0.4}));
    Child& arm = parent->child.back();
    arm.pos = k == 0 ? Mat<3, 1>{0, 0, 0} : Mat<3, 1>{0, 0, -0.8};
    arm.axis = {1, 0, 0};
    arm.limit = {-100.0, 100.0};
    arm.velocityLimit = 1.5;
    parent = &arm;
  }
  ArticulatedSystem* s = world.addArticulatedSystem(base, "", 1, 0);
  s->setGeneralizedCoordinate({1.2, -0.6, 0.9});
  int braking = 0, multiSweep = 0;
  for (int i = 0; i < 3000; ++i) {
    const double t = 0.001 * i;
    s->setGeneralizedForce({8.0 * std::sin(3.0 * t), -6.0 * std::cos(5.0 * t), 4.0 * std::sin(7.0 * t)});
    world.integrate();
    multiSweep += world.getContactSolver().getLoopCounter() > 2;
    for (const auto& P : world.getContactProblem()) {
      const double v = s->gv[P.localIndexA - 1], impulse = P.impulse[0];
      ASSERT_LE(std::abs(v), 1.5 + 1e-9) << "step " << i;
      if (impulse == 0.0) continue;
      ++braking;
      ASSERT_LT(impulse * v, 0.0) << "step " << i;
      ASSERT_NEAR(std::abs(v), 1.5, 1e-9) << "step " << i << " body " << P.localIndexA;
    }
  }
  EXPECT_GT(braking, 500);
  EXPECT_GT(multiSweep, 50);
}
