// The per-contact Gauss-Seidel solver, driven through small hand-made bodies
// whose contact Jacobians and inverse masses are explicit matrices.
#include <gtest/gtest.h>

#include <Eigen/Dense>
#include <cmath>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "vorsim/Object.hpp"
#include "vorsim/contact/BisectionContactSolver.hpp"

using namespace vorsim;
using contact::BisectionContactSolver;
using contact::Single3DContactProblem;
using Eigen::Matrix3d;
using Eigen::MatrixXd;
using Eigen::Vector3d;
using Eigen::VectorXd;

namespace {

// A body with u.size() generalized velocities. Contact k has the Jacobian J[k]
// (3 x n, rows in the contact frame); an impulse p changes u by M^-1 J^T p.
// Every call the solver makes on it is logged with the body's tag.
class MatrixBody : public Object {
 public:
  MatrixBody(MatrixXd minv, VectorXd vel, std::string tag = "", std::vector<std::string>* log = nullptr)
      : Minv(std::move(minv)), u(std::move(vel)), tag_(std::move(tag)), log_(log) {}

  size_t addContact(const MatrixXd& J) {
    jac.push_back(J);
    return jac.size() - 1;
  }
  Matrix3d block(size_t k) const { return jac[k] * Minv * jac[k].transpose(); }
  Vector3d contactVel(size_t k) const { return jac[k] * u; }

  MatrixXd Minv;
  VectorXd u;
  std::vector<MatrixXd> jac;
  double limitError = 0.0;

  void getContactPointVel(size_t k, Mat<3, 1>& v) const override { v = Mat<3, 1>(contactVel(k)); }
  void addContactPointVel(size_t k, Mat<3, 1>& v) override { v += Mat<3, 1>(contactVel(k)); }
  void subContactPointVel(size_t k, Mat<3, 1>& v) override { v -= Mat<3, 1>(contactVel(k)); }
  void updateGenVelWithImpulse(size_t k, const Mat<3, 1>& p) override {
    if (log_) log_->push_back(tag_);
    u += Minv * jac[k].transpose() * p.e();
  }
  double enforceJointLimits(Single3DContactProblem&) override {
    if (log_) log_->push_back(tag_ + ".limit");
    return limitError;
  }

  void updateCollision() override {}
  void preContactSolverUpdate1(const Mat<3, 1>&, double) override {}
  void preContactSolverUpdate2(const Mat<3, 1>&, double, ContactProblemList&) override {}
  void integrate(double, World&) override {}
  void setExternalForce(size_t, const Mat<3, 1>&, const Mat<3, 1>&) override {}
  void setExternalForce(size_t, const Mat<3, 1>&) override {}
  void setExternalTorque(size_t, const Mat<3, 1>&) override {}
  void setConstraintForce(size_t, const Mat<3, 1>&, const Mat<3, 1>&) override {}
  double getMass(size_t) const override { return 1.0; }
  ObjectType getObjectType() const override { return UNRECOGNIZED; }
  void getPosition(size_t, const Mat<3, 1>& p, Mat<3, 1>& out) const override { out = p; }
  void getPosition(size_t, Mat<3, 1>& out) const override { out.setZero(); }
  void getVelocity(size_t, const Mat<3, 1>&, Mat<3, 1>& out) const override { out.setZero(); }
  void getVelocity(size_t, Mat<3, 1>& out) const override { out.setZero(); }
  void getOrientation(size_t, Mat<3, 3>& out) const override { out.setIdentity(); }
  void clearExternalForcesAndTorques() override {}
  void destroyCollisionBodies(dxSpace*) override {}
  void addContactPointVel2(size_t, Mat<3, 1>&) override {}
  void subContactPointVel2(size_t, Mat<3, 1>&) override {}
  void updateTimeStep(double) override {}
  void updateTimeStepIfNecessary(double) override {}

 private:
  std::string tag_;
  std::vector<std::string>* log_;
};

// Inverse mass of a rigid body: mass m, inverse inertia A A^T + 0.2 I from a
// seeded random A (world frame), velocities (linear, angular).
MatrixXd rigidMinv(double m, unsigned seed) {
  std::mt19937 rng(seed);
  std::uniform_real_distribution<double> d(-1.0, 1.0);
  Matrix3d A;
  for (int i = 0; i < 9; ++i) A(i) = d(rng);
  MatrixXd Minv = MatrixXd::Zero(6, 6);
  Minv.topLeftCorner<3, 3>() = Matrix3d::Identity() / m;
  Minv.bottomRightCorner<3, 3>() = A * A.transpose() + 0.2 * Matrix3d::Identity();
  return Minv;
}

// Jacobian of a contact at r (from the centre of mass) with the given normal:
// row i maps (v, w) to f_i . (v + w x r), f_i the rows of the contact frame.
MatrixXd rigidJacobian(const Vector3d& r, const Vector3d& normal) {
  Mat<3, 3> frame;
  Contact::computeFrame(Mat<3, 1>(normal.normalized()), frame);
  MatrixXd J(3, 6);
  for (int i = 0; i < 3; ++i) {
    const Vector3d f = frame.e().row(i).transpose();
    J.block<1, 3>(i, 0) = f.transpose();
    J.block<1, 3>(i, 3) = r.cross(f).transpose();
  }
  return J;
}

using ProblemList = BisectionContactSolver::ProblemList;

Single3DContactProblem& addProblem(ProblemList& list, double mu, MatrixBody* A, size_t ia, MatrixBody* B = nullptr,
                                   size_t ib = 0, double depth = 0.0) {
  MaterialPairProperties mat;
  mat.c_f = mu;
  list.emplace_back(mat, 0.0, 0.0, 0.0, depth);
  Single3DContactProblem& P = list.back();
  Matrix3d G = Matrix3d::Zero();
  if (A) G += A->block(ia);
  if (B) G += B->block(ib);
  P.delassus = G;
  P.objectA = A;
  P.localIndexA = ia;
  P.objectB = B;
  P.localIndexB = ib;
  return P;
}

Vector3d relVel(const Single3DContactProblem& P) {
  Vector3d v = Vector3d::Zero();
  if (P.objectA) v += static_cast<MatrixBody*>(P.objectA)->contactVel(P.localIndexA);
  if (P.objectB) v -= static_cast<MatrixBody*>(P.objectB)->contactVel(P.localIndexB);
  return v;
}

VectorXd vec6(double a, double b, double c, double d, double e, double f) {
  VectorXd u(6);
  u << a, b, c, d, e, f;
  return u;
}

}  // namespace

TEST(ContactSolver, StickingContactIsExactInTheFirstSweep) {
  // A box corner off the centre of mass: the block couples normal and tangent.
  MatrixBody box(rigidMinv(2.0, 1), vec6(0.0, 0.0, -0.05, 0.0, 0.0, 0.0));
  box.addContact(rigidJacobian(Vector3d(0.2, -0.1, -0.15), Vector3d::UnitZ()));
  ProblemList list;
  addProblem(list, 0.8, &box, 0, nullptr, 0, -0.001);
  BisectionContactSolver solver;
  solver.solve(list);
  const Vector3d v = relVel(list[0]);
  const Vector3d p = list[0].impulse.e();
  ASSERT_LE(std::hypot(p.x(), p.y()), 0.8 * p.z());  // inside the cone
  EXPECT_NEAR(list[0].targetNormalVel, 0.3 * 0.001, 1e-15);
  EXPECT_NEAR(v.x(), 0.0, 1e-14);
  EXPECT_NEAR(v.y(), 0.0, 1e-14);
  EXPECT_NEAR(v.z(), 0.3 * 0.001, 1e-14);
  EXPECT_EQ(solver.loopCounter, 2);

  // When the first sweep's error is already below the limit, one sweep is made.
  MatrixBody slow(rigidMinv(2.0, 1), vec6(0.0, 0.0, -1e-5, 0.0, 0.0, 0.0));
  slow.addContact(box.jac[0]);
  list.clear();
  addProblem(list, 0.8, &slow, 0);
  solver.solve(list);
  EXPECT_EQ(solver.loopCounter, 1);
  EXPECT_NEAR(relVel(list[0]).norm(), 0.0, 1e-16);
}

TEST(ContactSolver, SeparatingAndInactiveContactsGetNoImpulse) {
  std::vector<std::string> log;
  MatrixBody body(rigidMinv(1.0, 2), vec6(0.3, 0.1, 0.2, 0.5, -0.4, 0.1), "a", &log);
  body.addContact(rigidJacobian(Vector3d(0.1, 0.1, -0.2), Vector3d::UnitZ()));
  ASSERT_GT(body.contactVel(0).z(), 0.0);
  const VectorXd u0 = body.u;
  ProblemList list;
  addProblem(list, 0.8, &body, 0);
  addProblem(list, 0.8, &body, 0).delassus.setZero();  // rank 0: skipped entirely
  BisectionContactSolver solver;
  solver.solve(list);
  EXPECT_EQ(list[0].impulse.squaredNorm(), 0.0);
  EXPECT_EQ(list[1].rank, 0);
  EXPECT_EQ(solver.loopCounter, 1);  // no error was added
  EXPECT_EQ(log.size(), 1u);
  EXPECT_TRUE(body.u.isApprox(u0, 1e-15));
}

TEST(ContactSolver, FrictionlessContactsPushAlongTheNormalOnly) {
  for (double mu : {0.0, 0.00005}) {
    MatrixBody box(rigidMinv(1.5, 3), vec6(0.4, -0.3, -0.2, 0.1, 0.2, -0.3));
    box.addContact(rigidJacobian(Vector3d(0.3, 0.2, -0.1), Vector3d(0.1, 0.2, 1.0)));
    ProblemList list;
    Single3DContactProblem& P = addProblem(list, mu, &box, 0);
    const Matrix3d G = P.delassus.e();
    const double vz = box.contactVel(0).z();
    ASSERT_LT(vz, 0.0);
    BisectionContactSolver solver;
    solver.maxIter = 3;
    solver.solve(list);
    EXPECT_EQ(list[0].impulse[0], 0.0);
    EXPECT_EQ(list[0].impulse[1], 0.0);
    EXPECT_NEAR(list[0].impulse[2], -G.inverse()(2, 2) * vz, 1e-12);
  }
  // Singular blocks have no G^-1: there the normal impulse is -v.z / G(2,2).
  MatrixBody rod(MatrixXd::Constant(1, 1, 0.5), VectorXd::Constant(1, -0.7));
  rod.addContact(Eigen::Vector3d(0.2, -0.4, 1.0));
  ProblemList list;
  Single3DContactProblem& P = addProblem(list, 0.0, &rod, 0);
  P.delassusInverse = Matrix3d::Constant(std::nan(""));
  const double Gzz = P.delassus(2, 2), vz = rod.contactVel(0).z();
  BisectionContactSolver solver;
  solver.maxIter = 1;
  solver.solve(list);
  EXPECT_EQ(list[0].rank, 1);
  EXPECT_NEAR(list[0].impulse[2], -vz / Gzz, 1e-14);
  EXPECT_EQ(list[0].impulse[0], 0.0);
}

TEST(ContactSolver, RestitutionAndDepthSetTheTargetVelocity) {
  // Impact at 1 m/s: ((v.z - 2 impactVel) - threshold) * (restitution + erp2).
  MatrixBody ball(MatrixXd::Identity(3, 3), Eigen::Vector3d(0.0, 0.0, -1.0));
  ball.addContact(MatrixXd::Identity(3, 3));
  for (double restitution : {0.0, 0.5}) {
    ball.u = Eigen::Vector3d(0.0, 0.0, -1.0);
    ProblemList list;
    Single3DContactProblem& P = addProblem(list, 0.8, &ball, 0, nullptr, 0, -0.01);
    P.restitution = restitution;
    P.restitutionThreshold = 0.01;
    P.impactVel = -1.0;
    BisectionContactSolver solver;
    solver.solve(list);
    const double expected = (restitution == 0.0 ? 0.00198 : 0.99 * 0.502) + 0.01 * 0.3;
    EXPECT_NEAR(list[0].targetNormalVel, expected, 1e-15);
    EXPECT_NEAR(ball.u.z(), expected, 1e-15);
  }
}

namespace {

// Energy of the impulse l: 1/2 l^T G l + l^T v. With the normal velocity held
// at zero, the sliding impulse is the minimiser of this over the cone's edge.
double energyAtAngle(const Matrix3d& G, const Vector3d& v, double mu, double a, Vector3d* impulse) {
  const double rho = -v.z() / (G(2, 0) * std::cos(a) + G(2, 2) / mu + G(2, 1) * std::sin(a));
  if (rho < 0) return INFINITY;
  const Vector3d l(rho * std::cos(a), rho * std::sin(a), rho / mu);
  if (impulse) *impulse = l;
  return 0.5 * l.dot(G * l) + l.dot(v);
}

Vector3d bruteForceSliding(const Matrix3d& G, const Vector3d& v, double mu) {
  const int n = 100000;
  const double h = 2.0 * M_PI / n;
  double best = INFINITY, aBest = 0.0;
  for (int i = 0; i < n; ++i) {
    const double e = energyAtAngle(G, v, mu, i * h, nullptr);
    if (e < best) {
      best = e;
      aBest = i * h;
    }
  }
  double lo = aBest - h, hi = aBest + h;  // golden-section search in the cell
  const double g = 0.5 * (std::sqrt(5.0) - 1.0);
  for (int it = 0; it < 100; ++it) {
    const double x1 = hi - g * (hi - lo), x2 = lo + g * (hi - lo);
    if (energyAtAngle(G, v, mu, x1, nullptr) < energyAtAngle(G, v, mu, x2, nullptr)) {
      hi = x2;
    } else {
      lo = x1;
    }
  }
  Vector3d l;
  energyAtAngle(G, v, mu, 0.5 * (lo + hi), &l);
  return l;
}

}  // namespace

TEST(ContactSolver, SlidingImpulseLiesOnTheConeAndMatchesBruteForce) {
  // The bracket search walks from the angle of the unconstrained impulse by
  // steps of 0.06 widened 1.05 times per round, for at most ten rounds: a
  // sliding direction farther away than this reach is not found.
  const double reach = 0.06 * (std::pow(1.05, 10) - 1.0) / 0.05;
  std::mt19937 rng(12345);
  std::uniform_real_distribution<double> d(-1.0, 1.0);
  int nearCases = 0, farCases = 0;
  for (int trial = 0; trial < 40; ++trial) {
    // Odd trials have a block whose normal row is decoupled from the tangents;
    // there the sliding velocity is exactly opposite to the friction impulse.
    const bool decoupled = trial % 2 == 1;
    Matrix3d A;
    for (int i = 0; i < 9; ++i) A(i) = d(rng);
    if (decoupled) A(2, 0) = A(2, 1) = A(0, 2) = A(1, 2) = 0.0;
    const Matrix3d L = A + 1.2 * Matrix3d::Identity();  // G = L L^T
    const double mu = 0.2 + 0.4 * (d(rng) + 1.0);
    const Vector3d v(2.0 * d(rng), 2.0 * d(rng), -0.2 - 0.5 * (d(rng) + 1.0));
    MatrixBody body(MatrixXd::Identity(3, 3), L.inverse() * v);
    body.addContact(L);
    ProblemList list;
    Single3DContactProblem& P = addProblem(list, mu, &body, 0);
    const Matrix3d G = P.delassus.e();
    const Vector3d start = -G.inverse() * v;
    if (std::hypot(start.x(), start.y()) <= mu * start.z()) continue;  // sticks: not this test
    BisectionContactSolver solver;
    solver.maxIter = 1;
    solver.solve(list);
    const Vector3d p = list[0].impulse.e(), w = relVel(list[0]);
    SCOPED_TRACE("trial " + std::to_string(trial));
    EXPECT_GT(p.z(), 0.0);
    EXPECT_NEAR(std::hypot(p.x(), p.y()), mu * p.z(), 1e-9 * mu * p.z());
    EXPECT_NEAR(w.z(), 0.0, 1e-12);

    const Vector3d ref = bruteForceSliding(G, v, mu);
    const double angleStart = std::atan2(start.y(), start.x());
    const double toRef = std::remainder(std::atan2(ref.y(), ref.x()) - angleStart, 2.0 * M_PI);
    if (std::abs(toRef) < 0.7) {
      ++nearCases;
      EXPECT_LT((p - ref).norm(), 1e-7 * ref.norm());
      if (decoupled) {
        const double cosine = (w.x() * p.x() + w.y() * p.y()) / (std::hypot(w.x(), w.y()) * std::hypot(p.x(), p.y()));
        EXPECT_NEAR(cosine, -1.0, 1e-9);
      }
    } else if (std::abs(toRef) > 0.8) {
      ++farCases;  // every try accepted: the full reach toward the minimiser
      EXPECT_NEAR(std::remainder(std::atan2(p.y(), p.x()) - angleStart, 2.0 * M_PI), std::copysign(reach, toRef), 1e-9);
    }
  }
  EXPECT_GE(nearCases, 20);
  EXPECT_GE(farCases, 2);
}

TEST(ContactSolver, RaisedFrictionKeepsTheConeHeightOfTheDynamicCoefficient) {
  MatrixBody body(MatrixXd::Identity(3, 3), Eigen::Vector3d(3.0, -1.0, -0.5));
  body.addContact(MatrixXd::Identity(3, 3));
  ProblemList list;
  Single3DContactProblem& P = addProblem(list, 0.5, &body, 0);
  P.mu = 0.7;  // static friction raised mu; 1/mu keeps the dynamic value
  BisectionContactSolver solver;
  solver.maxIter = 1;
  solver.solve(list);
  const Vector3d p = list[0].impulse.e();
  EXPECT_NEAR(p.z(), 2.0 * std::hypot(p.x(), p.y()), 1e-12);
  EXPECT_NEAR(body.u.z(), 0.0, 1e-12);
  EXPECT_NEAR(p.y() * 3.0 - p.x() * -1.0, 0.0, 1e-9);  // against the sliding direction
  EXPECT_LT(p.x(), 0.0);
}

TEST(ContactSolver, SingularAndBilateralBlocksReachTheirTargets) {
  std::mt19937 rng(5);
  std::uniform_real_distribution<double> d(-1.0, 1.0);
  // A body with two velocities (rank 2) and one with a single velocity (rank 1):
  // a sticking contact stops the whole contact velocity, which lies in G's range.
  for (int dofs : {2, 1}) {
    MatrixXd J(3, dofs);
    for (int i = 0; i < J.size(); ++i) J(i) = d(rng);
    J.row(2) = J.row(2).cwiseAbs() + MatrixXd::Constant(1, dofs, 0.5);
    MatrixBody body(MatrixXd::Identity(dofs, dofs), -VectorXd::Constant(dofs, 0.3));
    body.addContact(J);
    ProblemList list;
    addProblem(list, 50.0, &body, 0);
    BisectionContactSolver solver;
    solver.solve(list);
    EXPECT_EQ(list[0].rank, dofs);
    EXPECT_LT(relVel(list[0]).norm(), 1e-13);
  }
  // A pin (rank 9) on a rigid body: the velocity is driven to depth * erp along
  // the normal; a wire (rank 4) sets the normal velocity to zero.
  for (int rank : {9, 4}) {
    MatrixBody body(rigidMinv(1.0, 8), vec6(0.2, -0.5, -0.3, 0.4, 0.1, 0.2));
    body.addContact(rigidJacobian(Vector3d(0.1, 0.2, 0.3), Vector3d(0.3, 0.0, 1.0)));
    ProblemList list;
    addProblem(list, 0.8, &body, 0, nullptr, 0, rank == 9 ? 0.01 : 0.0).rank = rank;
    ASSERT_LT(body.contactVel(0).z(), 0.0);  // the wire pulls
    BisectionContactSolver solver;
    solver.maxIter = 2;
    solver.solve(list);
    const Vector3d v = relVel(list[0]);
    if (rank == 9) {
      EXPECT_LT((v - Vector3d(0.0, 0.0, 0.003)).norm(), 1e-14);
    } else {
      EXPECT_NEAR(v.z(), 0.0, 1e-14);
    }
  }
}

TEST(ContactSolver, SweepDirectionAlternatesAndMaxIterBoundsTheSweeps) {
  std::vector<std::string> log;
  std::vector<std::unique_ptr<MatrixBody>> bodies;
  ProblemList list;
  for (const char* tag : {"a", "b", "c"}) {
    bodies.emplace_back(new MatrixBody(MatrixXd::Identity(3, 3), Eigen::Vector3d(0.0, 0.0, -0.1), tag, &log));
    bodies.back()->addContact(MatrixXd::Identity(3, 3));
    addProblem(list, 0.8, bodies.back().get(), 0);
  }
  addProblem(list, 0.8, bodies[0].get(), 0).rank = 5;  // a joint limit of "a"
  bodies[0]->limitError = 1.0;                          // never converges
  BisectionContactSolver solver;
  solver.maxIter = 1;
  EXPECT_TRUE(solver.forwardOrder);
  const std::vector<std::string> forward{"a", "b", "c", "a.limit"}, backward{"a.limit", "c", "b", "a"};
  for (int call = 0; call < 3; ++call) {
    log.clear();
    for (auto& P : list) P.impulse.setZero();
    solver.solve(list);
    EXPECT_EQ(solver.loopCounter, 1);
    EXPECT_EQ(log, call % 2 == 0 ? forward : backward) << "call " << call;
    EXPECT_EQ(solver.forwardOrder, call % 2 == 1);
  }
  solver.maxIter = 4;
  log.clear();
  solver.solve(list);
  EXPECT_EQ(solver.loopCounter, 4);
  EXPECT_EQ(log.size(), 16u);
}

TEST(ContactSolver, TwoCoupledFrictionlessContactsMatchTheLcpSolution) {
  // A ball rests on the ground (problem 1, ball is A) and carries a second ball
  // (problem 0, top ball is A, bottom ball is B). Contact points on the lines of
  // centres keep each block's normal row free of the tangents.
  std::mt19937 rng(99);
  std::uniform_real_distribution<double> d(-1.0, 1.0);
  int bothActive = 0, oneActive = 0;
  for (int trial = 0; trial < 30; ++trial) {
    const Vector3d n0 = Vector3d(0.6 * d(rng), 0.6 * d(rng), 1.0).normalized();
    MatrixBody top(rigidMinv(1.0 + d(rng) + 1.0, trial), VectorXd::Zero(6));
    MatrixBody bottom(rigidMinv(1.5 + d(rng), trial + 100), VectorXd::Zero(6));
    for (int i = 0; i < 6; ++i) top.u(i) = d(rng), bottom.u(i) = d(rng);
    top.addContact(rigidJacobian(-0.1 * n0, n0));
    bottom.addContact(rigidJacobian(0.2 * n0, n0));
    bottom.addContact(rigidJacobian(Vector3d(0.0, 0.0, -0.2), Vector3d::UnitZ()));

    // The LCP in the two normal impulses, solved by trying every active set.
    MatrixXd Jn = MatrixXd::Zero(2, 12);
    Jn.block<1, 6>(0, 0) = top.jac[0].row(2);
    Jn.block<1, 6>(0, 6) = -bottom.jac[0].row(2);
    Jn.block<1, 6>(1, 6) = bottom.jac[1].row(2);
    MatrixXd Minv = MatrixXd::Zero(12, 12);
    Minv.topLeftCorner(6, 6) = top.Minv;
    Minv.bottomRightCorner(6, 6) = bottom.Minv;
    VectorXd u(12);
    u << top.u, bottom.u;
    const Eigen::Matrix2d A = Jn * Minv * Jn.transpose();
    const Eigen::Vector2d b = Jn * u;
    Eigen::Vector2d lambda(-1.0, -1.0);
    for (int set = 0; set < 4 && lambda.minCoeff() < 0.0; ++set) {
      Eigen::Vector2d l = Eigen::Vector2d::Zero();
      if (set == 1) l(0) = -b(0) / A(0, 0);
      if (set == 2) l(1) = -b(1) / A(1, 1);
      if (set == 3) l = A.ldlt().solve(-b);
      const Eigen::Vector2d w = A * l + b;
      if (l.minCoeff() >= 0.0 && w.minCoeff() >= -1e-12) lambda = l;
    }
    ASSERT_GE(lambda.minCoeff(), 0.0);
    if (lambda.minCoeff() > 0.0) ++bothActive;
    else if (lambda.maxCoeff() > 0.0) ++oneActive;

    ProblemList list;
    addProblem(list, 0.0, &top, 0, &bottom, 0);
    addProblem(list, 0.0, &bottom, 1);
    BisectionContactSolver solver;
    solver.erp2 = 0.0;  // target velocity zero
    solver.threshold = 1e-26;
    solver.maxIter = 2000;
    solver.solve(list);
    SCOPED_TRACE("trial " + std::to_string(trial));
    EXPECT_LT(solver.loopCounter, 2000);
    EXPECT_NEAR(list[0].impulse[2], lambda(0), 1e-10);
    EXPECT_NEAR(list[1].impulse[2], lambda(1), 1e-10);
  }
  EXPECT_GT(bothActive, 0);
  EXPECT_GT(oneActive, 0);
}
