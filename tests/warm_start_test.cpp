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

using vorsim_test::JacobianBody;
using vorsim_test::randomMatrix;

Single3DContactProblem& addContact(ProblemList& list, double mu, JacobianBody* A, size_t ia, JacobianBody* B = nullptr,
                                   size_t ib = 0, double depth = 0.0) {
  Single3DContactProblem& P = list.emplace_back(MaterialPairProperties{mu}, 0.0, 0.0, 0.0, depth);
  MatrixXd G = A->jac[ia] * A->jac[ia].transpose();
  if (B) G += B->jac[ib] * B->jac[ib].transpose();
  P.delassus = Matrix3d(G);
  P.objectA = A, P.objectB = B, P.localIndexA = ia, P.localIndexB = ib;
  return P;
}

}  // namespace

TEST(WarmStartSolver, StartingFromTheSolutionTakesOneSweepAndKeepsIt) {
  // Two bodies with six velocities each, contacts on each and between them
  // (objectB in play), sticking and sliding, and a pin. Solved from zero to the end, then
  // again from the same free velocities with the solution as the start: the
  // first sweep already meets a threshold of 1e-22, and nothing moves.
  std::mt19937 rng(7);
  for (int trial = 0; trial < 6; ++trial) {
    std::vector<MatrixXd> ja, jb;
    for (int k = 0; k < 3; ++k) ja.push_back(randomMatrix(rng, 3, 6));
    for (int k = 0; k < 2; ++k) jb.push_back(randomMatrix(rng, 3, 6));
    const VectorXd ua = randomMatrix(rng, 6, 1), ub = randomMatrix(rng, 6, 1), uc = randomMatrix(rng, 6, 1);
    JacobianBody a(ja, ua), b(jb, ub), c({randomMatrix(rng, 3, 6), randomMatrix(rng, 3, 6)}, uc);
    ProblemList list;
    const double mu = trial < 3 ? 0.3 : 2.0;
    addContact(list, mu, &a, 0, nullptr, 0, -0.01);
    addContact(list, mu, &a, 1, &b, 0);
    addContact(list, mu, &b, 1, nullptr, 0, -0.002);
    addContact(list, mu, &a, 2, &b, 1);
    addContact(list, mu, &c, 0);
    addContact(list, 0.8, &c, 1).rank = 9;  // a pin (its error is its whole velocity: no depth)
    BisectionContactSolver solver;
    solver.threshold = 1e-28, solver.maxIter = 5000;
    solver.solve(list);
    ASSERT_LT(solver.loopCounter, 5000);
    const VectorXd endA = a.u, endB = b.u, endC = c.u;
    std::vector<Vector3d> solution;
    for (const auto& P : list) solution.push_back(P.impulse.e());

    a.u = ua, b.u = ub, c.u = uc;
    BisectionContactSolver warm;
    warm.warmStart = true, warm.threshold = 1e-22;
    warm.forwardOrder = solver.forwardOrder;
    warm.solve(list);
    SCOPED_TRACE("trial " + std::to_string(trial));
    EXPECT_EQ(warm.loopCounter, 1);
    for (size_t k = 0; k < list.size(); ++k) EXPECT_LT((list[k].impulse.e() - solution[k]).norm(), 1e-9) << k;
    EXPECT_LT((a.u - endA).norm() + (b.u - endB).norm() + (c.u - endC).norm(), 1e-9);

    // Without the option the same start is not applied: the solver sees the
    // free velocities with impulses it believes are already in them.
    a.u = ua, b.u = ub, c.u = uc;
    BisectionContactSolver cold;
    cold.threshold = 1e-22;
    cold.solve(list);
    EXPECT_GT(cold.loopCounter, 1);
  }
}

TEST(WarmStartSolver, AStartThatOpensCountsAsError) {
  // A contact that starts with an impulse but separates: the first sweep takes
  // the impulse back, and that change is an error, so a second sweep follows.
  const MatrixXd I = Matrix3d::Identity();
  JacobianBody body({I}, Vector3d(0.0, 0.0, 1.0));
  ProblemList list;
  addContact(list, 0.5, &body, 0).impulse = {0.0, 0.0, 0.5};
  BisectionContactSolver solver;
  solver.warmStart = true;
  solver.solve(list);
  EXPECT_EQ(solver.loopCounter, 2);
  EXPECT_EQ(list[0].impulse.e(), Vector3d::Zero());
  EXPECT_EQ(body.u, Vector3d(0.0, 0.0, 1.0));
}

TEST(WarmStartSolver, InactiveProblemsStartFromZeroAndJointLimitsGoToTheirOwner) {
  const MatrixXd I = Matrix3d::Identity();
  JacobianBody body({I, I, I}, Vector3d(0.1, 0.0, 0.0));
  ProblemList list;
  addContact(list, 0.5, &body, 0).delassus.setZero();  // checkRank makes it inactive
  list[0].impulse = {0.0, 0.0, 1.0};
  Single3DContactProblem& limit = list.emplace_back();
  limit.rank = 5, limit.objectA = &body, limit.impulse = {2.0, 3.0, 0.0};
  Single3DContactProblem& zeroLimit = list.emplace_back();
  zeroLimit.rank = 5, zeroLimit.objectA = &body;  // no impulse: the owner is not asked
  BisectionContactSolver solver;
  solver.warmStart = true;
  body.takesLimitImpulses = true;
  solver.solve(list);
  EXPECT_EQ(list[0].rank, 0);
  EXPECT_EQ(list[0].impulse.e(), Vector3d::Zero());
  EXPECT_EQ(body.u, Vector3d(0.1, 0.0, 0.0)) << "nothing was applied to the body";
  ASSERT_EQ(body.limitImpulses.size(), 1u);
  EXPECT_EQ(body.limitImpulses[0], Vector3d(2.0, 3.0, 0.0));
  EXPECT_EQ(list[1].impulse.e(), Vector3d(2.0, 0.0, 0.0)) << "the owner's change stands";
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
  // A record of problem `index` between geoms g1 and g2, with a frame whose
  // normal is `normal`.
  void record(size_t index, const void* g1, const void* g2, const Vector3d& normal) {
    Contact c;
    Mat<3, 1> n(normal.normalized());
    Contact::computeFrame(n, c.frame);
    c.colObjectA = static_cast<dxGeom*>(const_cast<void*>(g1));
    c.colObjectB = static_cast<dxGeom*>(const_cast<void*>(g2));
    c.contactProblemIndex = index;
    addContactToPerObjectContact(c);
  }
  void clear() { clearPerObjectContact(); }
};

Single3DContactProblem& addPoint(ProblemList& list, double x, double y, double z, double mu = 0.5) {
  return list.emplace_back(MaterialPairProperties{mu}, x, y, z, 0.0);
}

Vector3d worldImpulse(const RecordHolder& holder, const ProblemList& list, size_t k) {
  for (const Contact& c : holder.getContacts())
    if (c.contactProblemIndex == k) return c.frame.e().transpose() * list[k].impulse.e();
  return Vector3d::Constant(NAN);
}

}  // namespace

TEST(WarmStartMatching, NearestPointOfTheSamePairWithinTheTolerance) {
  int geoms[4];
  RecordHolder holder;
  std::vector<Object*> objects{&holder};
  WarmStartCache cache;
  cache.setTolerance(0.01);
  const Vector3d up = Vector3d::UnitZ();

  // Last step: two points of pair (0,1) and one of pair (0,2).
  ProblemList last;
  addPoint(last, 0.0, 0.0, 0.0).impulse = {0.0, 0.0, 1.0};
  addPoint(last, 0.1, 0.0, 0.0).impulse = {0.0, 0.0, 2.0};
  addPoint(last, 0.5, 0.0, 0.0).impulse = {0.0, 0.0, 3.0};
  holder.record(0, &geoms[0], &geoms[1], up);
  holder.record(1, &geoms[0], &geoms[1], up);
  holder.record(2, &geoms[0], &geoms[2], up);
  EXPECT_EQ(cache.seed(objects, last, 1, 0.001), 0u) << "nothing stored yet";
  EXPECT_EQ(last[0].warmStartKey, WarmStartKey::geoms(&geoms[0], &geoms[1]));
  EXPECT_EQ(last[2].warmStartKey, WarmStartKey::geoms(&geoms[0], &geoms[2]));
  cache.store(last);
  EXPECT_EQ(cache.size(), 3u);

  // This step: problem 0 is nearer to the old point 1 (0.004 against 0.096);
  // problem 1, at 0.009 from old point 0 and 0.091 from old point 1, gets what
  // is left; problem 2 lies 0.011 from its only candidate; problem 3 is of
  // another pair at the place of old point 0; problem 4 has the key of the
  // pair (0,2) but is 0.0099 away.
  holder.clear();
  ProblemList now;
  addPoint(now, 0.096, 0.0, 0.0);
  addPoint(now, 0.0, 0.009, 0.0);
  addPoint(now, 0.096, 0.0, 0.0);
  addPoint(now, 0.0, 0.0, 0.0);
  addPoint(now, 0.5, 0.0, 0.0099);
  holder.record(0, &geoms[0], &geoms[1], up);
  holder.record(1, &geoms[0], &geoms[1], up);
  holder.record(2, &geoms[0], &geoms[1], up);
  holder.record(3, &geoms[1], &geoms[3], up);
  holder.record(4, &geoms[2], &geoms[0], -up);  // reported the other way round, normal reversed
  EXPECT_EQ(cache.seed(objects, now, 1, 0.001), 3u);
  EXPECT_EQ(now[0].impulse.e(), Vector3d(0.0, 0.0, 2.0));
  EXPECT_EQ(now[1].impulse.e(), Vector3d(0.0, 0.0, 1.0));
  EXPECT_EQ(now[2].impulse.e(), Vector3d::Zero()) << "each old impulse goes to one problem";
  EXPECT_EQ(now[3].impulse.e(), Vector3d::Zero()) << "another pair";
  // The pair in the other order: the impulse on geom 0's side stays the same
  // (so the one on the new first side, geom 2's, is reversed), and in the new
  // frame it pushes as before.
  EXPECT_EQ(now[4].warmStartKey, last[2].warmStartKey);
  EXPECT_LT((worldImpulse(holder, now, 4) - Vector3d(0.0, 0.0, -3.0)).norm(), 1e-15);
  EXPECT_NEAR(now[4].impulse[2], 3.0, 1e-15);

  // A world that added or removed an object since uses nothing of the last step.
  cache.store(now);
  holder.clear();
  ProblemList again;
  addPoint(again, 0.096, 0.0, 0.0);
  holder.record(0, &geoms[0], &geoms[1], up);
  EXPECT_EQ(cache.seed(objects, again, 2, 0.001), 0u);
  EXPECT_EQ(again[0].impulse.e(), Vector3d::Zero());
}

TEST(WarmStartMatching, ImpulsesFollowTheWorldIntoTheNewFrameAndTheCone) {
  int geoms[2];
  RecordHolder holder;
  std::vector<Object*> objects{&holder};
  WarmStartCache cache;
  std::mt19937 rng(3);
  for (int trial = 0; trial < 8; ++trial) {
    const Vector3d n0 = (Vector3d::UnitZ() + 0.3 * randomMatrix(rng, 3, 1)).normalized();
    const Vector3d n1 = (n0 + 0.05 * randomMatrix(rng, 3, 1)).normalized();
    holder.clear();
    cache.clear();
    ProblemList last;
    // Pushing, well inside a cone of 0.5 about n0.
    const Vector3d p0 = Vector3d(0.1 * (trial - 4), 0.05, 1.0);
    addPoint(last, 0.0, 0.0, 0.0).impulse = Mat<3, 1>(p0);
    holder.record(0, &geoms[0], &geoms[1], n0);
    cache.seed(objects, last, 0, 0.002);
    const Vector3d world = worldImpulse(holder, last, 0);
    cache.store(last);

    holder.clear();
    ProblemList now;
    addPoint(now, 0.001, 0.0, 0.0);
    holder.record(0, &geoms[0], &geoms[1], n1);
    ASSERT_EQ(cache.seed(objects, now, 0, 0.001), 1u);
    // Same world vector, halved with the time step.
    EXPECT_LT((worldImpulse(holder, now, 0) - 0.5 * world).norm(), 1e-14) << trial;
  }

  // Clipping in the new frame: a contact keeps its normal part and at most mu
  // times that along the tangent; a pulling one gets nothing; a frictionless
  // one keeps the normal part only; a wire keeps the normal part; a joint
  // limit (no contact record) keeps its own numbers, with the key its owner gave.
  const int owner = 0;
  holder.clear();
  cache.clear();
  ProblemList last;
  addPoint(last, 0.0, 0.0, 0.0).impulse = {3.0, 4.0, 1.0};
  addPoint(last, 1.0, 0.0, 0.0).impulse = {0.0, 0.0, -1.0};
  addPoint(last, 2.0, 0.0, 0.0).impulse = {3.0, 4.0, 1.0};
  addPoint(last, 3.0, 0.0, 0.0).impulse = {0.3, 0.4, -1.0};
  addPoint(last, 4.0, 0.0, 0.0).impulse = {0.3, 0.4, 1.0};
  last[4].warmStartKey = WarmStartKey::owned(&owner, WarmStartKey::JOINT_LIMIT, 7);
  addPoint(last, 5.0, 0.0, 0.0).impulse = {0.3, 0.4, 2.0};
  for (size_t k : {0, 1, 2, 3, 5}) holder.record(k, &geoms[0], &geoms[1], Vector3d::UnitZ());
  cache.seed(objects, last, 0, 0.001);
  cache.store(last);
  holder.clear();
  ProblemList now;
  addPoint(now, 0.0, 0.0, 0.0, 0.5);
  addPoint(now, 1.0, 0.0, 0.0, 0.5);
  addPoint(now, 2.0, 0.0, 0.0, 0.00005);
  addPoint(now, 3.0, 0.0, 0.0).rank = 4;
  addPoint(now, 4.0, 0.0, 0.0).rank = 5;
  now[4].warmStartKey = WarmStartKey::owned(&owner, WarmStartKey::JOINT_LIMIT, 7);
  addPoint(now, 5.0, 0.0, 0.0).rank = 4;
  for (size_t k : {0, 1, 2, 3, 5}) holder.record(k, &geoms[0], &geoms[1], Vector3d::UnitZ());
  EXPECT_EQ(cache.seed(objects, now, 0, 0.001), 6u);
  EXPECT_LT((now[0].impulse.e() - Vector3d(0.3, 0.4, 1.0)).norm(), 1e-15);
  EXPECT_EQ(now[1].impulse.e(), Vector3d::Zero());
  EXPECT_EQ(now[2].impulse.e(), Vector3d(0.0, 0.0, 1.0));
  EXPECT_EQ(now[3].impulse.e(), Vector3d::Zero()) << "a wire that would pull starts from zero";
  EXPECT_EQ(now[4].impulse.e(), Vector3d(0.3, 0.4, 1.0));
  EXPECT_EQ(now[5].impulse.e(), Vector3d(0.0, 0.0, 2.0)) << "a wire that holds keeps its normal part";
  EXPECT_EQ(now[4].warmStartKey, WarmStartKey::owned(&owner, WarmStartKey::JOINT_LIMIT, 7));
}

// ------------------------------------------------------------------ world --

// (The defaults, and the forwarding of the options to the solver, are checked
// by the world-file tests and by every result below.)
TEST(WarmStartWorld, ToleranceIsANumberOfAtLeastZero) {
  World world;
  world.setWarmStartTolerance(0.0);
  for (double bad : {-0.001, double(NAN)})
    EXPECT_NE(vorsim_test::fatalOf([&] {
                world.setWarmStartTolerance(bad);
              }).find("The warm start tolerance must be zero or positive, not "),
              std::string::npos)
        << bad;
  EXPECT_EQ(world.getWarmStartTolerance(), 0.0);
}

TEST(WarmStartWorld, OptionsSwitchedOffLeaveEveryResultAsItWas) {
  // A pile of boxes and spheres with a wire, once in a plain world and once in
  // one whose options were switched on and off again before the first step.
  auto build = [](World& world) {
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
    world.addStiffWire(anchor, 0, Eigen::Vector3d::Zero(), world.getObjList()[1], 0, Eigen::Vector3d::Zero(), 1.0);
  };
  World plain, toggled;
  build(plain);
  build(toggled);
  toggled.setWarmStart(true);
  toggled.setExactCoulombSliding(true);
  toggled.setWarmStart(false);
  toggled.setExactCoulombSliding(false);
  for (int k = 0; k < 400; ++k) {
    plain.integrate();
    toggled.integrate();
  }
  for (size_t i = 1; i < plain.getObjList().size(); ++i) {
    const auto* a = static_cast<SingleBodyObject*>(plain.getObjList()[i]);
    const auto* b = static_cast<SingleBodyObject*>(toggled.getObjList()[i]);
    EXPECT_EQ(a->getPositionEigen(), b->getPositionEigen()) << i;
    EXPECT_EQ(a->getAngularVelocityEigen(), b->getAngularVelocityEigen()) << i;
  }
  EXPECT_EQ(toggled.getWarmStartedProblemCount(), 0u);
}

TEST(WarmStartWorld, ResolvedContactsWiresAndTheirForgetting) {
  World world;
  world.setTimeStep(0.001);
  world.setWarmStart(true);
  world.addGround();
  auto* box = world.addBox(0.2, 0.2, 0.2, 2.0);
  box->setPosition(0.0, 0.0, 0.0999);
  auto* anchor = world.addSphere(0.05, 1.0);
  anchor->setPosition(2.0, 0.0, 2.0);
  anchor->setBodyType(STATIC);
  auto* bob = world.addSphere(0.05, 3.0);
  bob->setPosition(2.0, 0.0, 1.5);
  world.addStiffWire(anchor, 0, Eigen::Vector3d::Zero(), bob, 0, Eigen::Vector3d::Zero(), 0.5);
  for (int k = 0; k < 300; ++k) world.integrate();

  // At rest: four corners and the wire start from the last step and sweep once
  // or twice; the corners together carry the box's weight, the wire the bob's.
  EXPECT_EQ(world.getContactProblem().size(), 5u);
  EXPECT_EQ(world.getWarmStartedProblemCount(), 5u);
  EXPECT_LE(world.getContactSolver().getLoopCounter(), 2);
  double normal = 0.0;
  for (size_t k = 0; k < 4; ++k) normal += world.getContactProblem()[k].impulse[2];
  EXPECT_NEAR(normal, 2.0 * 9.81 * 0.001, 1e-6 * 2.0 * 9.81 * 0.001);
  EXPECT_NEAR(std::abs(world.getContactProblem()[4].impulse[2]), 3.0 * 9.81 * 0.001, 1e-6 * 3.0 * 9.81 * 0.001);

  // A new time step scales the impulses that start the solve: the weight is met
  // in the first sweep again.
  world.setTimeStep(0.002);
  world.integrate();
  EXPECT_EQ(world.getWarmStartedProblemCount(), 5u);
  EXPECT_LE(world.getContactSolver().getLoopCounter(), 2);
  normal = 0.0;
  for (size_t k = 0; k < 4; ++k) normal += world.getContactProblem()[k].impulse[2];
  EXPECT_NEAR(normal, 2.0 * 9.81 * 0.002, 1e-6 * 2.0 * 9.81 * 0.002);

  // Removing an object forgets the last step (geoms may be freed and reused).
  world.removeObject(world.addSphere(0.01, 1.0));
  world.integrate();
  EXPECT_EQ(world.getWarmStartedProblemCount(), 0u);
  world.integrate();
  EXPECT_EQ(world.getWarmStartedProblemCount(), 5u);
  // So does switching the option.
  world.setWarmStart(true);
  world.integrate();
  EXPECT_EQ(world.getWarmStartedProblemCount(), 0u);
}

// ----------------------------------------------------------------- stacks --

namespace {

// Largest distance of the top box from its start over `seconds`, for a column
// of n boxes (0.2 m, 1 kg) standing on the ground, faces touching, dt 1 ms.
double columnDrift(int n, bool warmStart, double seconds) {
  World world;
  world.setTimeStep(0.001);
  world.setWarmStart(warmStart);
  world.addGround();
  Box* top = nullptr;
  for (int i = 0; i < n; ++i) {
    top = world.addBox(0.2, 0.2, 0.2, 1.0);
    top->setPosition(0.0, 0.0, 0.1 + 0.2 * i);
  }
  const Vector3d start = top->getPositionEigen();
  double drift = 0.0;
  for (int k = 0; k < int(seconds * 1000); ++k) {
    world.integrate();
    drift = std::max(drift, (top->getPositionEigen() - start).norm());
  }
  return drift;
}

// The same for a box of `mass` on a 1 kg box.
double heavyOnLightDrift(double mass, bool warmStart) {
  World world;
  world.setTimeStep(0.001);
  world.setWarmStart(warmStart);
  world.addGround();
  world.addBox(0.2, 0.2, 0.2, 1.0)->setPosition(0.0, 0.0, 0.1);
  Box* top = world.addBox(0.2, 0.2, 0.2, mass);
  top->setPosition(0.0, 0.0, 0.3);
  const Vector3d start = top->getPositionEigen();
  double drift = 0.0;
  for (int k = 0; k < 10000; ++k) {
    world.integrate();
    drift = std::max(drift, (top->getPositionEigen() - start).norm());
  }
  return drift;
}

}  // namespace

TEST(WarmStartStacks, AColumnOfTwentyBoxesStandsTenSeconds) {
  EXPECT_LT(columnDrift(20, true, 10.0), 0.005);
  EXPECT_GT(columnDrift(20, false, 3.0), 0.5) << "from zero impulses the column falls";
}

TEST(WarmStartStacks, HeavyBoxesOnALightOneHold) {
  const double cold = heavyOnLightDrift(100.0, false);
  const double warm = heavyOnLightDrift(100.0, true);
  EXPECT_GT(cold, 0.002);
  EXPECT_LT(warm, 0.0005);
  EXPECT_LT(heavyOnLightDrift(1000.0, true), 0.001);
}
