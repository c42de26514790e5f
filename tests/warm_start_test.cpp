// Starting the contact solve from the impulses of the last step: the solver's
// use of given impulses, the matching of constraints from step to step, and
// what it does to stacks.
#include <gtest/gtest.h>

#include <Eigen/Dense>
#include <cmath>
#include <random>
#include <vector>

#include "test_helpers.hpp"
#include "vorsim/World.hpp"
#include "vorsim/contact/BisectionContactSolver.hpp"
#include "vorsim/contact/WarmStartCache.hpp"
#include "vorsim/object/Primitives.hpp"

using namespace vorsim;
using namespace vorsim::contact;
using Eigen::Matrix3d;
using Eigen::MatrixXd;
using Eigen::Vector3d;
using Eigen::VectorXd;

namespace {
using ProblemList = BisectionContactSolver::ProblemList;
using vorsim_test::addJacobianContact;
using vorsim_test::JacobianBody;
using vorsim_test::randomMatrix;
}  // namespace

TEST(WarmStartSolver, OpeningStartsInactiveProblemsAndJointLimits) {
  // A contact that starts with an impulse but separates: the first sweep takes
  // the impulse back, and that change is an error, so a second sweep follows.
  const MatrixXd I = Matrix3d::Identity();
  JacobianBody opening({I}, Vector3d(0.0, 0.0, 1.0));
  ProblemList list;
  addJacobianContact(list, 0.5, &opening).impulse = {0.0, 0.0, 0.5};
  BisectionContactSolver solver;
  solver.warmStart = true;
  solver.solve(list);
  EXPECT_EQ(solver.loopCounter, 2);
  EXPECT_EQ(list[0].impulse.e(), Vector3d::Zero());
  EXPECT_EQ(opening.u, Vector3d(0.0, 0.0, 1.0));

  // An inactive contact starts from zero; a joint limit's start goes to its
  // owner (and the owner's change stands), unless it is zero.
  JacobianBody body({I, I, I}, Vector3d(0.1, 0.0, 0.0));
  list.clear();
  addJacobianContact(list, 0.5, &body).delassus.setZero();  // checkRank makes it inactive
  list[0].impulse = {0.0, 0.0, 1.0};
  Single3DContactProblem& limit = list.emplace_back();
  limit.rank = 5, limit.objectA = &body, limit.impulse = {2.0, 3.0, 0.0};
  Single3DContactProblem& zeroLimit = list.emplace_back();
  zeroLimit.rank = 5, zeroLimit.objectA = &body;
  body.takesLimitImpulses = true;
  solver.solve(list);
  EXPECT_EQ(list[0].impulse.e(), Vector3d::Zero());
  EXPECT_EQ(body.u, Vector3d(0.1, 0.0, 0.0)) << "nothing was applied to the body";
  ASSERT_EQ(body.limitImpulses.size(), 1u);
  EXPECT_EQ(body.limitImpulses[0], Vector3d(2.0, 3.0, 0.0));
  EXPECT_EQ(list[1].impulse.e(), Vector3d(2.0, 0.0, 0.0));
  // The contact's velocity is read once, when the targets are set (then it is
  // inactive); a limit's never (its local index is a body, not a contact).
  EXPECT_EQ(body.reads, 1);
  // An object that cannot apply a limit's impulse drops it.
  body.takesLimitImpulses = false;
  list[1].impulse = {2.0, 3.0, 0.0};
  solver.solve(list);
  EXPECT_EQ(list[1].impulse.e(), Vector3d::Zero());
  EXPECT_EQ(body.limitImpulses.size(), 1u);
}

// ---------------------------------------------------------------- matching --

namespace {

// A body that is only a holder of contact records for the cache to read.
class RecordHolder : public JacobianBody {
 public:
  RecordHolder() : JacobianBody({}, VectorXd()) {}
  // A problem at (x, y, z) with a record between geoms g1 and g2 whose frame
  // has the given normal (none for a null g1).
  Single3DContactProblem& add(ProblemList& list, double x, double y, double z, const void* g1 = nullptr,
                              const void* g2 = nullptr, const Vector3d& normal = Vector3d::UnitZ()) {
    if (g1) {
      Contact c;
      Contact::computeFrame(Mat<3, 1>(normal.normalized()), c.frame);
      c.colObjectA = static_cast<dxGeom*>(const_cast<void*>(g1));
      c.colObjectB = static_cast<dxGeom*>(const_cast<void*>(g2));
      c.contactProblemIndex = list.size();
      addContactToPerObjectContact(c);
    }
    return list.emplace_back(MaterialPairProperties{0.5}, x, y, z, 0.0);
  }
  void clear() { clearPerObjectContact(); }
  Vector3d worldImpulse(const ProblemList& list, size_t k) const {
    for (const Contact& c : getContacts())
      if (c.contactProblemIndex == k) return c.frame.e().transpose() * list[k].impulse.e();
    return Vector3d::Constant(NAN);
  }
};

}  // namespace

TEST(WarmStartMatching, NearestPointOfThePairIntoTheNewFrameAndTheCone) {
  int g[4];
  RecordHolder h;
  std::vector<Object*> objects{&h};
  WarmStartCache cache;
  cache.setTolerance(0.01);
  // Last step: two points of pair (0,1) and one of pair (0,2).
  ProblemList last, now;
  h.add(last, 0.0, 0.0, 0.0, &g[0], &g[1]).impulse = {0.0, 0.0, 1.0};
  h.add(last, 0.1, 0.0, 0.0, &g[0], &g[1]).impulse = {0.0, 0.0, 2.0};
  h.add(last, 0.5, 0.0, 0.0, &g[0], &g[2]).impulse = {0.0, 0.0, 3.0};
  EXPECT_EQ(cache.seed(objects, last, 1, 0.001), 0u) << "nothing stored yet";
  cache.store(last);

  // This step: problem 0 is nearer to the old point 1 (0.004 against 0.096);
  // problem 1, 0.009 from old point 0 and 0.091 from old point 1, gets what is
  // left; problem 2 finds old point 1 taken and old point 0 beyond the
  // tolerance; problem 3 is of another pair at the place of old point 0;
  // problem 4 is of the pair (0,2), reported the other way round with the
  // normal reversed, 0.0099 away.
  h.clear();
  h.add(now, 0.096, 0.0, 0.0, &g[0], &g[1]);
  h.add(now, 0.0, 0.009, 0.0, &g[0], &g[1]);
  h.add(now, 0.096, 0.0, 0.0, &g[0], &g[1]);
  h.add(now, 0.0, 0.0, 0.0, &g[1], &g[3]);
  h.add(now, 0.5, 0.0, 0.0099, &g[2], &g[0], -Vector3d::UnitZ());
  EXPECT_EQ(cache.seed(objects, now, 1, 0.001), 3u);
  const double normal[] = {2.0, 1.0, 0.0, 0.0};
  for (size_t k = 0; k < 4; ++k) EXPECT_EQ(now[k].impulse.e(), Vector3d(0.0, 0.0, normal[k])) << k;
  // The impulse on geom 0's side stays the same: in the new frame it pushes as before.
  EXPECT_EQ(now[4].warmStartKey, last[2].warmStartKey);
  EXPECT_NEAR(now[4].impulse[2], 3.0, 1e-15);

  // Impulses follow the world into the new frame.
  std::mt19937 rng(3);
  for (int trial = 0; trial < 8; ++trial) {
    const Vector3d n0 = (Vector3d::UnitZ() + 0.3 * randomMatrix(rng, 3, 1)).normalized();
    const Vector3d n1 = (n0 + 0.05 * randomMatrix(rng, 3, 1)).normalized();
    h.clear();
    cache.clear();
    last.clear(), now.clear();
    // Pushing, well inside a cone of 0.5 about n0.
    h.add(last, 0.0, 0.0, 0.0, &g[0], &g[1], n0).impulse = Mat<3, 1>(Vector3d(0.1 * (trial - 4), 0.05, 1.0));
    cache.seed(objects, last, 0, 0.002);
    const Vector3d world = h.worldImpulse(last, 0);
    cache.store(last);
    h.clear();
    h.add(now, 0.001, 0.0, 0.0, &g[0], &g[1], n1);
    ASSERT_EQ(cache.seed(objects, now, 0, 0.001), 1u);
    // Same world vector, halved with the time step.
    EXPECT_LT((h.worldImpulse(now, 0) - 0.5 * world).norm(), 1e-14) << trial;
  }

  // Clipping in the new frame: a contact keeps its normal part and at most mu
  // times that along the tangent; a pulling one gets nothing; a frictionless
  // one keeps the normal part only; a wire that would pull starts from zero,
  // one that holds keeps its normal part; a joint limit (no contact record)
  // keeps its own numbers, with the key its owner gave.
  const int owner = 0;
  const WarmStartKey limitKey = WarmStartKey::owned(&owner, WarmStartKey::JOINT_LIMIT, 7);
  const Vector3d before[] = {{3.0, 4.0, 1.0},  {0.0, 0.0, -1.0}, {3.0, 4.0, 1.0},
                             {0.3, 0.4, -1.0}, {0.3, 0.4, 1.0},  {0.3, 0.4, 2.0}};
  const Vector3d after[] = {{0.3, 0.4, 1.0}, {0.0, 0.0, 0.0}, {0.0, 0.0, 1.0},
                            {0.0, 0.0, 0.0}, {0.3, 0.4, 1.0}, {0.0, 0.0, 2.0}};
  const int rank[] = {3, 3, 3, 4, 5, 4};
  h.clear();
  cache.clear();
  last.clear(), now.clear();
  for (int pass = 0; pass < 2; ++pass) {
    for (size_t k = 0; k < 6; ++k) {
      auto& P = h.add(pass ? now : last, double(k), 0.0, 0.0, k == 4 ? nullptr : &g[0], &g[1]);
      if (k == 4) P.warmStartKey = limitKey;
      if (pass == 0) P.impulse = Mat<3, 1>(before[k]);
      if (pass == 1) P.rank = rank[k], P.mu = k == 2 ? 0.00005 : 0.5;
    }
    if (pass > 0) break;
    cache.seed(objects, last, 0, 0.001);
    cache.store(last);
    h.clear();
  }
  EXPECT_EQ(cache.seed(objects, now, 0, 0.001), 6u);
  for (size_t k = 0; k < 6; ++k) EXPECT_LT((now[k].impulse.e() - after[k]).norm(), 1e-15) << k;
  EXPECT_EQ(now[4].warmStartKey, limitKey);
}

// ------------------------------------------------------------------ world --

TEST(WarmStartWorld, OptionsSwitchedOffLeaveEveryResultAsItWas) {
  // A pile of boxes and spheres with a wire, once in a plain world and once in
  // one whose options were switched on and off again before the first step.
  World worlds[2];
  for (World& world : worlds) {
    world.setTimeStep(0.002);
    world.addGround();
    for (int i = 0; i < 12; ++i) {
      SingleBodyObject* body = i % 2 ? static_cast<SingleBodyObject*>(world.addBox(0.2, 0.15, 0.1, 1.0 + i))
                                     : world.addSphere(0.08, 0.5 + i);
      body->setPosition(0.05 * (i % 3), 0.04 * (i % 4), 0.1 + 0.17 * i);
      body->setVelocity(0.3 * (i % 2), 0.0, 0.0, 0.0, 0.0, 0.2 * i);
    }
    auto* anchor = world.addSphere(0.05, 1.0);
    anchor->setPosition(1.0, 0.0, 1.0);
    anchor->setBodyType(STATIC);
    world.addStiffWire(anchor, 0, Vector3d::Zero(), world.getObjList()[1], 0, Vector3d::Zero(), 1.0);
  }
  for (bool on : {true, false}) {
    worlds[1].setWarmStart(on);
    worlds[1].setExactCoulombSliding(on);
  }
  for (int k = 0; k < 400; ++k)
    for (World& world : worlds) world.integrate();
  for (size_t i = 1; i < worlds[0].getObjList().size(); ++i) {
    const auto* a = static_cast<SingleBodyObject*>(worlds[0].getObjList()[i]);
    const auto* b = static_cast<SingleBodyObject*>(worlds[1].getObjList()[i]);
    EXPECT_EQ(a->getPositionEigen(), b->getPositionEigen()) << i;
    EXPECT_EQ(a->getAngularVelocityEigen(), b->getAngularVelocityEigen()) << i;
  }
  EXPECT_EQ(worlds[1].getWarmStartedProblemCount(), 0u);
}

TEST(WarmStartWorld, ResolvedContactsWiresTheirForgettingAndTheTolerance) {
  World world;
  world.setTimeStep(0.001);
  world.setWarmStart(true);
  world.addGround();
  world.addBox(0.2, 0.2, 0.2, 2.0)->setPosition(0.0, 0.0, 0.0999);
  auto* anchor = world.addSphere(0.05, 1.0);
  anchor->setPosition(2.0, 0.0, 2.0);
  anchor->setBodyType(STATIC);
  auto* bob = world.addSphere(0.05, 3.0);
  bob->setPosition(2.0, 0.0, 1.5);
  world.addStiffWire(anchor, 0, Vector3d::Zero(), bob, 0, Vector3d::Zero(), 0.5);
  for (int k = 0; k < 300; ++k) world.integrate();
  // At rest, and after a new time step has scaled the impulses that start the
  // solve: four corners and the wire start from the last step and sweep once or
  // twice; the corners carry the box's weight, the wire the bob's.
  for (double dt : {0.001, 0.002}) {
    SCOPED_TRACE("dt " + std::to_string(dt));
    world.setTimeStep(dt);
    world.integrate();
    const auto& problems = world.getContactProblem();
    ASSERT_EQ(problems.size(), 5u);
    EXPECT_EQ(world.getWarmStartedProblemCount(), 5u);
    EXPECT_LE(world.getContactSolver().getLoopCounter(), 2);
    const double normal =
        problems[0].impulse[2] + problems[1].impulse[2] + problems[2].impulse[2] + problems[3].impulse[2];
    EXPECT_NEAR(normal, 2.0 * 9.81 * dt, 1e-6 * 2.0 * 9.81 * dt);
    EXPECT_NEAR(std::abs(problems[4].impulse[2]), 3.0 * 9.81 * dt, 1e-6 * 3.0 * 9.81 * dt);
  }
  // Removing an object forgets the last step (geoms may be freed and reused);
  // so does switching the option.
  world.removeObject(world.addSphere(0.01, 1.0));
  world.integrate();
  EXPECT_EQ(world.getWarmStartedProblemCount(), 0u);
  world.integrate();
  EXPECT_EQ(world.getWarmStartedProblemCount(), 5u);
  world.setWarmStart(true);
  world.integrate();
  EXPECT_EQ(world.getWarmStartedProblemCount(), 0u);
  world.setWarmStartTolerance(0.0);
  for (double bad : {-0.001, double(NAN)}) {
    const std::string message = vorsim_test::fatalOf([&] { world.setWarmStartTolerance(bad); });
    EXPECT_NE(message.find("The warm start tolerance must be zero or positive, not "), std::string::npos) << bad;
  }
  EXPECT_EQ(world.getWarmStartTolerance(), 0.0);
}

// ----------------------------------------------------------------- stacks --

namespace {
// Largest distance of the top box from its start over `seconds`, for a column
// of 0.2 m boxes of the given masses standing on the ground, dt 1 ms.
double topDrift(const std::vector<double>& masses, bool warmStart, double seconds) {
  World world;
  world.setTimeStep(0.001);
  world.setWarmStart(warmStart);
  world.addGround();
  Box* top = nullptr;
  for (size_t i = 0; i < masses.size(); ++i) {
    top = world.addBox(0.2, 0.2, 0.2, masses[i]);
    top->setPosition(0.0, 0.0, 0.1 + 0.2 * double(i));
  }
  const Vector3d start = top->getPositionEigen();
  double drift = 0.0;
  for (int k = 0; k < int(seconds * 1000); ++k) {
    world.integrate();
    drift = std::max(drift, (top->getPositionEigen() - start).norm());
  }
  return drift;
}
}  // namespace

TEST(WarmStartStacks, AColumnOfTwentyBoxesStandsAndHeavyBoxesOnALightOneHold) {
  const std::vector<double> column(20, 1.0);
  EXPECT_LT(topDrift(column, true, 10.0), 0.005);
  EXPECT_GT(topDrift(column, false, 3.0), 0.5) << "from zero impulses the column falls";
  EXPECT_GT(topDrift({1.0, 100.0}, false, 10.0), 0.002);
  EXPECT_LT(topDrift({1.0, 100.0}, true, 10.0), 0.0005);
  EXPECT_LT(topDrift({1.0, 1000.0}, true, 10.0), 0.001);
}
