// Wires against analytic motion (pendulum, spring, custom tension, a rod between free bodies), their
// contact records, and stiff wires that have no dynamic end.
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "vorsim/World.hpp"
#include "vorsim/contact/Single3DContactProblem.hpp"
#include "vorsim/object/Primitives.hpp"

using namespace vorsim;

namespace {
constexpr double kG = 9.81;
const Eigen::Vector3d kCentre = Eigen::Vector3d::Zero();

// Times at which x(t) crosses zero upward, linearly interpolated.
struct UpwardCrossings {
  std::vector<double> times;
  double lastX = 0.0, lastT = 0.0;
  bool started = false;
  void add(double t, double x) {
    if (started && lastX < 0.0 && x >= 0.0) times.push_back(lastT + (t - lastT) * (-lastX) / (x - lastX));
    lastX = x, lastT = t, started = true;
  }
  double meanPeriod() const { return (times.back() - times.front()) / double(times.size() - 1); }
};

// A block that collides with nothing, as a wire's anchor.
Box* anchorAt(World& world, double x, double y, double z, BodyType type = STATIC) {
  Box* anchor = world.addBox(0.05, 0.05, 0.05, 1.0, "default", 0, 0);
  anchor->setPosition(x, y, z);
  anchor->setBodyType(type);
  return anchor;
}
}  // namespace

TEST(Wire, StiffPendulumAndCompliantSpringKeepPeriodAndAmplitude) {
  // A stiff wire of L = 1 m, amplitude 0.2 rad: T = 2 pi sqrt(L/g) (1 + a^2/16 + 11 a^4/3072).
  // A mass m = 2 kg on a compliant wire of k = 200 N/m, released at rest half the rest
  // stretch m g / k below equilibrium: period 2 pi sqrt(m / k).
  const double L = 1.0, a = 0.2, m = 2.0, k = 200.0, Lc = 0.5, rest = m * kG / k;
  const double swing = 2.0 * M_PI * std::sqrt(L / kG) * (1.0 + a * a / 16.0 + 11.0 * std::pow(a, 4) / 3072.0);
  const double bounce = 2.0 * M_PI * std::sqrt(m / k);
  for (const bool bobFirst : {false, true}) {
    SCOPED_TRACE(bobFirst ? "bob first, kinematic spring anchor" : "static anchor first");
    World world;
    world.setTimeStep(0.001);
    Box* anchor = anchorAt(world, 0, 0, 2);
    Box* springAnchor = anchorAt(world, 5, 0, 2, bobFirst ? KINEMATIC : STATIC);
    Sphere* bob = world.addSphere(0.05, 1.0, "default", 0, 0);
    Sphere* mass = world.addSphere(0.05, m, "default", 0, 0);
    bob->setPosition(L * std::sin(a), 0, 2 - L * std::cos(a));
    mass->setPosition(5, 0, 2 - Lc - 1.5 * rest);
    StiffLengthConstraint* wire = bobFirst ? world.addStiffWire(bob, 0, kCentre, anchor, 0, kCentre, L)
                                           : world.addStiffWire(anchor, 0, kCentre, bob, 0, kCentre, L);
    auto* spring = bobFirst ? world.addCompliantWire(mass, 0, kCentre, springAnchor, 0, kCentre, Lc, k)
                            : world.addCompliantWire(springAnchor, 0, kCentre, mass, 0, kCentre, Lc, k);
    UpwardCrossings swings, bounces;
    double worstStretch = 0.0, stretchSum = 0.0, leastStretch = 1.0;
    int samples = 0;
    for (int i = 0; i < 7000; ++i) {
      world.integrate();
      swings.add(world.getWorldTime(), bob->getPosition()[0]);
      worstStretch = std::max(worstStretch, std::abs(wire->getDistance() - L));
      if (i >= 3000) continue;
      bounces.add(world.getWorldTime(), (2 - Lc - rest) - mass->getPosition()[2]);
      if (bounces.times.size() == 1) stretchSum += spring->getStretch(), ++samples;  // over one whole period
      leastStretch = std::min(leastStretch, spring->getStretch());
    }
    EXPECT_LT(worstStretch, 2e-3);
    ASSERT_EQ(swings.times.size(), 3u);
    EXPECT_NEAR(swings.meanPeriod(), swing, 1e-3 * swing);
    // No friction and no damping: both keep their amplitude.
    EXPECT_NEAR(bob->getPosition()[2] + 0.5 * bob->getLinearVelocity().squaredNorm() / kG, 2 - L * std::cos(a), 2e-3);
    ASSERT_GE(bounces.times.size(), 4u);
    EXPECT_NEAR(bounces.meanPeriod(), bounce, 2e-3 * bounce);
    EXPECT_NEAR(stretchSum / samples, rest, 5e-3 * rest);
    EXPECT_NEAR(leastStretch, 0.5 * rest, 0.02 * rest);
    EXPECT_NEAR(std::abs(spring->getNorm()[2]), 1.0, 1e-15);
    // The force goes to the dynamic side only: the anchor keeps its place.
    EXPECT_EQ(springAnchor->getPosition()[2], 2.0);
  }
}

TEST(Wire, CustomWirePullsWithTheTensionSetInEveryStep) {
  World world;
  world.setGravity(Mat<3, 1>{0, 0, 0});
  world.setTimeStep(0.01);
  Sphere* a = world.addSphere(0.1, 2.0);
  Box* b = world.addBox(0.2, 0.4, 0.6, 3.0);  // principal axes along the world's
  a->setPosition(0, 0, 0);
  b->setPosition(1, 0, 0);
  // A slack wire (distance 1 < length 2) of the stretch-only kind: inactive,
  // and it pulls all the same. Both mounts are 0.1 m off the centres along y.
  const Eigen::Vector3d mount(0, 0.1, 0);
  CustomLengthConstraint* wire = world.addCustomWire(a, 0, mount, b, 0, mount, 2.0);
  wire->setTension(3.0);
  world.integrate();
  EXPECT_FALSE(wire->isActive());
  EXPECT_NEAR(a->getLinearVelocity()[0], 3.0 / 2.0 * 0.01, 1e-16);
  EXPECT_NEAR(b->getLinearVelocity()[0], -3.0 / 3.0 * 0.01, 1e-16);
  // Forces (3, 0, 0) and (-3, 0, 0) at (0, 0.1, 0) from the centres: torques
  // (0, 0, -0.3) and (0, 0, 0.3), about principal axes.
  const double izzA = 0.4 * 2.0 * 0.1 * 0.1, izzB = 3.0 * (0.2 * 0.2 + 0.4 * 0.4) / 12.0;
  EXPECT_NEAR(a->getAngularVelocity()[2], -0.3 / izzA * 0.01, 1e-14);
  EXPECT_NEAR(b->getAngularVelocity()[2], 0.3 / izzB * 0.01, 1e-15);
  EXPECT_EQ(a->getAngularVelocity()[0], 0.0);
  // A wire force moves a body by dt * v.
  EXPECT_NEAR(a->getPosition()[0], 0.01 * a->getLinearVelocity()[0], 1e-18);

  // Zero tension leaves both alone; the tension of the next step is the new one.
  wire->setTension(0.0);
  const Mat<3, 1> va = a->getLinearVelocity();
  world.integrate();
  EXPECT_EQ(a->getLinearVelocity()[0], va[0]);
  wire->setTension(-4.0);  // a negative tension pushes
  world.integrate();
  EXPECT_NEAR(a->getLinearVelocity()[0], va[0] - 4.0 / 2.0 * 0.01, 1e-6);  // the mounts have turned a little
}

TEST(Wire, StiffRodBetweenTwoFreeBodiesStopsTheirRelativeMotion) {
  // Two unit spheres, no gravity. A stiff wire that acts both ways behaves like
  // a rod: the relative normal velocity after one step is the solver's target,
  // erp2 * (relative speed at the start of the step) + erp * stretch.
  struct Case {
    double gap, speed;  // start distance minus length; each sphere's speed away from the other
  };
  for (const Case c : {Case{0.001, 1.0}, Case{0.0, -1.0}, Case{-0.002, -0.5}}) {
    SCOPED_TRACE("gap " + std::to_string(c.gap) + " speed " + std::to_string(c.speed));
    World world;
    world.setGravity(Mat<3, 1>{0, 0, 0});
    world.setTimeStep(0.001);
    Sphere* s1 = world.addSphere(0.1, 1.0, "default", 0, 0);
    Sphere* s2 = world.addSphere(0.1, 1.0, "default", 0, 0);
    s1->setPosition(0, 0, 0);
    s2->setPosition(1.0 + c.gap, 0, 0);
    s1->setVelocity(-c.speed, 0, 0, 0, 0, 0);
    s2->setVelocity(c.speed, 0, 0, 0, 0, 0);
    auto* rod = world.addStiffWire(s1, 0, kCentre, s2, 0, kCentre, 1.0);
    rod->setStretchType(LengthConstraint::BOTH);
    world.integrate();
    ASSERT_EQ(world.getContactProblem().size(), 1u);
    const auto& P = world.getContactProblem()[0];
    // A stretched wire has its first object as side A, any other the second.
    EXPECT_EQ(P.objectA, c.gap > 0 ? s1 : s2);
    EXPECT_EQ(P.objectB, c.gap > 0 ? s2 : s1);
    const double separating = 2.0 * c.speed;
    const double target = std::abs(separating) * 0.002 + 0.3 * std::abs(c.gap);
    const double expected = c.gap > 0 ? -target : target;  // toward each other when stretched
    EXPECT_NEAR(s2->getLinearVelocity()[0] - s1->getLinearVelocity()[0], expected, 1e-14);
    EXPECT_NEAR(s1->getLinearVelocity()[0] + s2->getLinearVelocity()[0], 0.0, 1e-15);  // momentum kept
  }
}

TEST(Wire, StiffWireRecordsTwinContactsAtTheFirstMount) {
  World world;
  world.addGround();
  Sphere* s[2] = {world.addSphere(0.1, 1.0), world.addSphere(0.1, 1.0)};
  s[0]->setPosition(0, 0, 0.099);
  s[1]->setPosition(1.2, 0, 0.099);
  // Local index 2 of a single body is the body itself; the records keep it.
  auto* wire = world.addStiffWire(s[0], 2, Eigen::Vector3d(0.05, 0, 0), s[1], 0, Eigen::Vector3d(-0.05, 0, 0), 1.0);
  world.integrate1();
  EXPECT_NEAR(wire->getStretch(), 0.1, 1e-15);
  for (int k = 0; k < 2; ++k) {
    SCOPED_TRACE(k);
    ASSERT_EQ(s[k]->getContacts().size(), 2u);  // the ground, then the wire
    const Contact& c = s[k]->getContacts()[1];
    EXPECT_EQ((std::vector<size_t>{c.localContactIndex, c.pairContactIndex, c.contactProblemIndex, c.pairObjectIndex,
                                   c.localBodyIndex}),
              (std::vector<size_t>{1, 1, 2, s[1 - k]->getIndexInWorld(), k == 0 ? 2u : 0u}));
    EXPECT_EQ(c.isObjectA, k == 0);
    EXPECT_EQ(c.position.e(), Eigen::Vector3d(0.05, 0, 0.099));
    EXPECT_NEAR(c.depth, -0.1, 1e-15);
    EXPECT_LT((c.normal.e() - Eigen::Vector3d(1, 0, 0)).norm(), 1e-15);
    EXPECT_EQ(c.colObjectA, nullptr);
  }
  world.integrate2();
  const auto& P = world.getContactProblem()[2];
  EXPECT_EQ(P.rank, 4);
  EXPECT_EQ(P.objectA, s[0]);
  EXPECT_EQ(P.objectB, s[1]);
  EXPECT_EQ((std::vector<size_t>{P.localIndexA, P.localIndexB}), (std::vector<size_t>{1, 1}));
  EXPECT_GT(P.impulse[2], 0.0);
  EXPECT_EQ(s[0]->getContacts()[1].impulse, &P.impulse);
  EXPECT_EQ(s[1]->getContacts()[1].impulse, &P.impulse);
  // A wire at exactly its length adds nothing.
  World exact;
  Sphere* e1 = exact.addSphere(0.1, 1.0);
  Sphere* e2 = exact.addSphere(0.1, 1.0);
  e2->setPosition(0.5, 0, 0);
  exact.addStiffWire(e1, 0, kCentre, e2, 0, kCentre, 0.5);
  exact.integrate1();
  EXPECT_TRUE(exact.getContactProblem().empty());
  EXPECT_TRUE(e1->getContacts().empty() && e2->getContacts().empty());
}

TEST(Wire, StiffWiresWithoutADynamicEndChangeNothing) {
  // Nothing can move a wire between static and kinematic blocks: its problem is inactive and applies
  // nothing, so a pyramid stepped with a fixed number of sweeps moves bit for bit as without it.
  std::vector<double> state[2];
  for (const bool withWires : {false, true}) {
    World world;
    world.setTimeStep(0.002);
    world.setContactSolverParam(1.0, 1.0, 1.0, 25, 0.0);  // a zero threshold never stops early
    world.addGround();
    std::vector<Box*> boxes, blocks;
    for (int row = 0; row < 5; ++row)
      for (int k = 0; k < 5 - row; ++k) {
        boxes.push_back(world.addBox(0.2, 0.2, 0.2, 1.0));
        boxes.back()->setPosition(-0.4 + 0.2 * k + 0.1 * row, 0, 0.1 + 0.2 * row);
      }
    const BodyType types[3][2] = {{STATIC, STATIC}, {KINEMATIC, STATIC}, {KINEMATIC, KINEMATIC}};
    for (int w = 0; withWires && w < 3; ++w) {
      Box* b1 = anchorAt(world, 5, 2.0 * w, 1, types[w][0]);
      Box* b2 = anchorAt(world, 6, 2.0 * w, 1, types[w][1]);
      b1->setVelocity(-0.1, 0, 0, 0, 0, 0);
      b2->setVelocity(0.1, 0, 0, 0, 0, 0);
      world.addStiffWire(b1, 0, kCentre, b2, 0, kCentre, 0.5);
      blocks.push_back(b1), blocks.push_back(b2);
    }
    for (int i = 0; i < 500; ++i) {
      world.integrate();
      if (!withWires) continue;
      // The three wire problems close the list, inactive; static ends get no
      // record, kinematic ones a record whose impulse stays zero.
      const auto& problems = world.getContactProblem();
      for (size_t p = problems.size() - 3; p < problems.size(); ++p) {
        ASSERT_EQ(problems[p].rank, 0);
        ASSERT_EQ(problems[p].impulse.squaredNorm(), 0.0);
        ASSERT_EQ(problems[p].objectA, nullptr);
      }
      for (Box* b : blocks) {
        ASSERT_EQ(b->getContacts().size(), b->getBodyType() == KINEMATIC ? 1u : 0u);
        if (b->getBodyType() == KINEMATIC) {
          ASSERT_EQ(b->getContacts()[0].impulse->squaredNorm(), 0.0);
        }
      }
    }
    // The blocks keep their own motion: the wires hold nothing.
    for (Box* b : blocks) {
      const double end = b->getBodyType() == STATIC ? (b->getPosition()[0] < 5.5 ? 5.0 : 6.0)
                                                    : (b->getLinearVelocity()[0] > 0 ? 6.1 : 4.9);
      EXPECT_NEAR(b->getPosition()[0], end, 1e-12);
    }
    for (Box* b : boxes) state[withWires].insert(state[withWires].end(), b->getPosition().v, b->getPosition().v + 3);
  }
  EXPECT_EQ(state[1], state[0]);
}
