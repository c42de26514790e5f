// The per-contact Gauss-Seidel solver on bodies with explicit contact Jacobians,
// and a contact problem's record: its initial state and the rank of its block.
#include <gtest/gtest.h>

#include <Eigen/Dense>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <new>
#include <random>
#include <string>
#include <vector>

#include "test_helpers.hpp"
#include "vorsim/World.hpp"
#include "vorsim/contact/BisectionContactSolver.hpp"
#include "vorsim/object/Primitives.hpp"

using namespace vorsim;
using namespace Eigen;
using namespace vorsim::contact;

namespace {

using MatrixBody = vorsim_test::JacobianBody;
using vorsim_test::randomMatrix;

MatrixBody point(const Matrix3d& L, const Vector3d& contactVel) { return MatrixBody({L}, L.inverse() * contactVel); }

using ProblemList = BisectionContactSolver::ProblemList;
Single3DContactProblem& addProblem(ProblemList& list, double mu, MatrixBody* A, double depth = 0.0) {
  return vorsim_test::addJacobianContact(list, mu, A, 0, nullptr, 0, depth);
}

int solveList(ProblemList& list, int maxIter = 150, double threshold = 1e-8, double erp2 = 0.002) {
  BisectionContactSolver solver;
  solver.maxIter = maxIter, solver.threshold = threshold, solver.erp2 = erp2;
  solver.solve(list);
  return solver.loopCounter;
}

}  // namespace

TEST(ContactSolver, StickingSeparatingInactiveAndTargetVelocity) {
  std::mt19937 rng(4);
  MatrixBody box = point(randomMatrix(rng, 3, 3) + 1.2 * Matrix3d::Identity(), Vector3d(0.0, 0.0, -0.05));
  const Matrix3d I = Matrix3d::Identity();
  MatrixBody away = point(I, Vector3d(0.3, 0.1, 0.2)), ball = point(I, -Vector3d::UnitZ());
  MatrixBody apart = point(I, Vector3d(0.5, 0.0, -0.00283));
  ProblemList list;
  addProblem(list, 0.8, &box, -0.001);
  addProblem(list, 0.8, &away);
  addProblem(list, 0.8, &ball, -0.01).impactVel = -1.0;
  list[2].restitution = 0.5;
  addProblem(list, 0.8, &apart, 0.01);  // target -0.003: approaching slower, it gets nothing
  addProblem(list, 0.8, &apart).delassus.setZero();
  EXPECT_EQ(solveList(list), 2);  // sticking is exact in sweep 1; then only apart adds (1.7e-4)^2 < 5 * threshold
  EXPECT_LT((box.contactVel(0) - Vector3d(0.0, 0.0, 0.3 * 0.001)).norm(), 1e-14);
  EXPECT_EQ(list[1].impulse.squaredNorm() + list[3].impulse.squaredNorm(), 0.0);
  EXPECT_EQ(list[4].rank, 0);
  // ((v.z - 2 impactVel) - threshold) * (restitution + erp2) - depth * erp
  EXPECT_NEAR(list[2].targetNormalVel, 0.99 * 0.502 + 0.01 * 0.3, 1e-15);
  EXPECT_NEAR(ball.u.z(), 0.99 * 0.502 + 0.01 * 0.3, 1e-15);
}

TEST(ContactSolver, FrictionlessSingularAndBilateralBlocks) {
  // On bodies with 3, 2 and 1 velocities: frictionless contacts push by -v.z G^-1(2,2), or -v.z / G(2,2) if G is
  // singular; sticking contacts and pins (rank 9) meet their target inside G's range; a wire (rank 4) stops v.z.
  std::mt19937 rng(5);
  for (int dofs : {3, 2, 1}) {
    for (double mu : {50.0, 0.0, 0.00005, -9.0, -4.0}) {  // negative: the rank of a pin or wire
      if (dofs == 2 && mu >= 0.0 && mu < 1.0) continue;   // (frictionless rank 2 projects v onto G's range first)
      MatrixXd J = randomMatrix(rng, 3, dofs);
      J.row(2) = J.row(2).cwiseAbs() + MatrixXd::Constant(1, dofs, 0.5);  // approaching
      MatrixBody body({J}, VectorXd::Constant(dofs, -0.3));
      ProblemList list;
      Single3DContactProblem& P = addProblem(list, mu < 0.0 ? 0.8 : mu, &body, -0.01);
      P.rank = mu < 0.0 ? int(-mu) : 3, P.delassusInverse = Matrix3d::Constant(NAN);  // set for full blocks only
      const double vz = body.contactVel(0).z() - 0.003;
      const int sweeps = solveList(list, 150, 1e-20);
      const Vector3d rest = body.contactVel(0) - Vector3d(0.0, 0.0, mu == -9.0 ? -0.003 : 0.003);
      SCOPED_TRACE("mu " + std::to_string(mu) + " dofs " + std::to_string(dofs));
      EXPECT_EQ(P.rank, mu == -4.0 ? 4 : (mu < 0.0 ? 6 : 0) + dofs);
      if (mu == 0.0 || mu == 0.00005) {
        EXPECT_EQ(Vector3d(P.impulse.e()).head<2>(), Vector2d::Zero());
        EXPECT_NEAR(P.impulse[2], -vz * (dofs == 3 ? (J * J.transpose()).inverse()(2, 2) : 1.0 / P.delassus(2, 2)),
                    1e-12);
      } else if (mu == -4.0) {
        EXPECT_NEAR(rest.z(), 0.0, 1e-14);
      } else {
        EXPECT_LT((J.transpose() * rest).norm(), 1e-13);
        EXPECT_TRUE(dofs < 3 || rest.norm() < 1e-14) << rest.transpose();
        EXPECT_TRUE(mu < 0.0 || dofs == 1 || sweeps == 2) << sweeps;  // sticking is exact in the first sweep
      }
    }
  }
}

// The sliding impulse: the cone edge with zero normal velocity that minimises 1/2 l.G l + l.v.
Vector3d bruteForceSliding(const Matrix3d& G, const Vector3d& v, double mu) {
  const auto edge = [&](double a) {
    const Vector3d dir(std::cos(a), std::sin(a), 1.0 / mu);
    return Vector3d(dir * (-v.z() / G.row(2).dot(dir)));
  };
  const auto energy = [&](double a) { return edge(a).z() < 0 ? INFINITY : edge(a).dot(0.5 * G * edge(a) + v); };
  double best = 0.0;
  for (double width = 2.0 * M_PI; width > 1e-10; width /= 500) {  // dense samples, zooming in on the best
    for (double a = best - width / 2, end = best + width / 2; a <= end; a += width / 1000) {
      if (energy(a) < energy(best)) best = a;
    }
  }
  return edge(best);
}

TEST(ContactSolver, SlidingImpulseLiesOnTheConeAndMatchesBruteForce) {
  std::mt19937 rng(12345);
  std::uniform_real_distribution<double> d(-1.0, 1.0);
  int compared = 0;
  for (int trial = 0; trial < 40 && compared < 15; ++trial) {
    Matrix3d L = Matrix3d::NullaryExpr([&] { return d(rng); });
    if (trial % 2 == 1) L(2, 0) = L(2, 1) = L(0, 2) = L(1, 2) = 0.0;  // the normal row decoupled
    L += 1.2 * Matrix3d::Identity();
    double mu = 0.2 + 0.4 * (d(rng) + 1.0);
    Vector3d v(2.0 * d(rng), 2.0 * d(rng), -0.2 - 0.5 * (d(rng) + 1.0));
    if (trial == 0) {  // the unconstrained impulse (2, 0, -0.5) pulls, though |t| < mu |z|
      L << 1.0, 0.0, 0.0, 0.0, 1.0, 0.0, 0.9, 0.0, std::sqrt(0.19);
      mu = 5.0, v = -L * L.transpose() * Vector3d(2.0, 0.0, -0.5);
    } else if (trial == 1) {  // nearly isotropic: the unconstrained angle is off by ~1e-3 only
      L << 1.0, 0.001, 0.0, 0.0, 1.005, 0.0, 0.0, 0.0, 1.0;
      mu = 0.5, v << 1.0, 0.5, -0.3;
    }
    MatrixBody body = point(L, v);
    ProblemList list;
    const Matrix3d G = addProblem(list, mu, &body).delassus.e();
    const Vector3d start = -G.inverse() * v, ref = bruteForceSliding(G, v, mu);
    if (std::hypot(start.x(), start.y()) <= mu * start.z()) continue;  // sticks
    solveList(list, 1);
    const Vector3d p = list[0].impulse.e();
    SCOPED_TRACE("trial " + std::to_string(trial));
    EXPECT_NEAR(std::hypot(p.x(), p.y()), mu * p.z(), 1e-9 * mu * p.z());
    EXPECT_NEAR(body.contactVel(0).z(), 0.0, 1e-12);
    const double toRef = std::atan2(ref.y(), ref.x()) - std::atan2(start.y(), start.x());
    if (std::abs(std::remainder(toRef, 2.0 * M_PI)) > 0.7) continue;  // beyond the bracket search's reach
    ++compared;
    EXPECT_LT((p - ref).norm(), 1e-7 * ref.norm());
  }
  EXPECT_EQ(compared, 15);
}

TEST(ContactSolver, CoupledFrictionlessContactsSweepInAlternatingOrderToTheLcpSolution) {
  // Unit point masses: top rests on bottom (problem 0), bottom on the ground (problem 1).
  std::mt19937 rng(99);
  BisectionContactSolver oneSweep;
  oneSweep.maxIter = 1, oneSweep.erp2 = 0.0;
  for (int trial = 0; trial < 20; ++trial) {
    const Vector3d n0 = (0.6 * randomMatrix(rng, 3, 1) + Vector3d::UnitZ()).normalized();
    const Vector3d vt = randomMatrix(rng, 3, 1), vb = randomMatrix(rng, 3, 1);
    const Matrix3d frame = Quaterniond::FromTwoVectors(Vector3d::UnitZ(), n0).matrix().transpose();
    MatrixBody top({frame}, vt), bottom({frame}, vb);
    bottom.jac.push_back(Matrix3d::Identity());
    ProblemList list;
    vorsim_test::addJacobianContact(list, 0.0, &top, 0, &bottom, 0);
    vorsim_test::addJacobianContact(list, 0.0, &bottom, 1);
    const Matrix2d A = (Matrix2d() << 2.0, -n0.z(), -n0.z(), 1.0).finished();  // normal velocities A lambda + b
    const Vector2d b(n0.dot(vt - vb), vb.z());
    Vector2d lambda(-1.0, -1.0);
    for (int set = 0; set < 4; ++set) {  // the LCP solution: try every active set (bit k: contact k active)
      const Matrix2d D = Vector2d(double(set & 1), double(set >> 1)).asDiagonal();
      const Vector2d l = (D * A + Matrix2d::Identity() - D).lu().solve(-D * b);
      if (l.minCoeff() >= 0.0 && (A * l + b).minCoeff() >= -1e-12) lambda = l;
    }
    const int i = trial % 2, j = 1 - i;  // one sweep, forward first: contact j sees the impulse of contact i
    Vector2d sweep;
    sweep(i) = std::fmax(0.0, -b(i) / A(i, i));
    sweep(j) = std::fmax(0.0, -(b(j) + A(j, i) * sweep(i)) / A(j, j));
    oneSweep.solve(list);
    EXPECT_EQ(oneSweep.loopCounter, 1);
    EXPECT_LT((Vector2d(list[0].impulse[2], list[1].impulse[2]) - sweep).norm(), 1e-14) << "trial " << trial;

    top.u = vt, bottom.u = vb, list[0].impulse.setZero(), list[1].impulse.setZero();
    EXPECT_LT(solveList(list, 2000, 1e-26, 0.0), 2000);  // erp2 0: target velocity zero
    EXPECT_NEAR(list[0].impulse[2], lambda(0), 1e-10) << "trial " << trial;
    EXPECT_NEAR(list[1].impulse[2], lambda(1), 1e-10) << "trial " << trial;
  }
}

TEST(ContactSolver, RaisedFrictionTestsTheConeWithMuAndBuildsItWithTheDynamicInverse) {
  // After the static-friction blend mu is raised (here 0.3 -> 0.6) while
  // 1/mu keeps the dynamic value. The cone test uses mu: a free impulse with
  // |t| = 0.45 z sticks. A sliding impulse is built on the dynamic cone,
  // z = |t| / 0.3, with the normal velocity brought to zero all the same.
  std::mt19937 rng(21);
  for (int trial = 0; trial < 12; ++trial) {
    Matrix3d L = randomMatrix(rng, 3, 3) + 1.5 * Matrix3d::Identity();  // coupled normal and tangents
    const Matrix3d G = L * L.transpose();
    const double angle = 0.5 * trial;
    const bool sticks = trial % 2 == 0;
    const Vector3d free(std::cos(angle) * (sticks ? 0.45 : 1.5), std::sin(angle) * (sticks ? 0.45 : 1.5), 1.0);
    MatrixBody body = point(L, -G * free);  // the unconstrained impulse is `free`
    ProblemList list;
    Single3DContactProblem& P = addProblem(list, 0.3, &body);
    P.mu = 0.6;
    solveList(list, 1);
    const Vector3d p = list[0].impulse.e(), rest = body.contactVel(0);
    SCOPED_TRACE("trial " + std::to_string(trial));
    EXPECT_NEAR(rest.z(), 0.0, 1e-12);
    if (sticks) {
      EXPECT_LT((p - free).norm(), 1e-12);
      EXPECT_LT(rest.norm(), 1e-12);
    } else {
      EXPECT_NEAR(std::hypot(p.x(), p.y()) / 0.3, p.z(), 1e-12 * p.z());
      EXPECT_GT(rest.head<2>().norm(), 0.1);  // it slides
    }
  }
}

// ---------------------------------------------------------------- problem --

namespace {

Single3DContactProblem checked(const Matrix3d& G, int rank) {
  Single3DContactProblem P(vorsim::MaterialPairProperties{}, 0.0, 0.0, 0.0, 0.0);
  P.delassus = G;
  P.rank = rank;
  P.rankOneDelassus = -1.0;  // stays unless checkRank sets it
  P.checkRank();
  return P;
}

}  // namespace

TEST(ContactProblem, CheckRankClassifiesTheDelassusBlock) {
  const Matrix3d Z = Matrix3d::Zero(), I = Matrix3d::Identity(), nan = Matrix3d::Constant(NAN);
  const Matrix3d oneDof = Vector3d(0.5, -1.0, 1.5) * Vector3d(0.5, -1.0, 1.5).transpose();  // a body with one velocity
  const Matrix3d onlyZ = Vector3d(0.0, 0.0, 2.0).asDiagonal(), tinyZ = Vector3d(1.0, 1.0, 1e-8).asDiagonal();
  const double g2Gg2 = oneDof.col(2).dot(oneDof * oneDof.col(2));
  const Matrix3d G[] = {Z, tinyZ, onlyZ, I, onlyZ, Z, oneDof, oneDof, nan, nan};
  const int rankIn[] = {3, 3, 3, 3, 4, 5, 3, 9, 3, 9}, rankOut[] = {0, 0, 1, 3, 4, 5, 1, 7, 3, 9};
  const double rankOneDelassus[] = {-1.0, -1.0, 8.0, -1.0, 0.5, -1.0, g2Gg2, g2Gg2, -1.0, -1.0};
  for (int i = 0; i < 10; ++i) {
    const Single3DContactProblem P = checked(G[i], rankIn[i]);
    EXPECT_EQ(P.rank, rankOut[i]) << "case " << i;
    EXPECT_NEAR(P.rankOneDelassus, rankOneDelassus[i], 1e-12 * std::abs(rankOneDelassus[i])) << "case " << i;
  }

  // Bodies with two velocities; variants make G's column 0 or 1 zero, or column 0 anti-parallel to column 2.
  std::mt19937 rng(7);
  std::uniform_real_distribution<double> d(-1.0, 1.0);
  for (int variant = 0; variant < 8; ++variant) {
    Matrix<double, 3, 2> J = Matrix<double, 3, 2>::NullaryExpr([&] { return d(rng); }), B;
    if (variant % 4 == 1 || variant % 4 == 2) J.row(variant % 4 - 1).setZero();
    if (variant % 4 == 3) J.row(0) = -2.0 * J.row(2);
    const Matrix3d G = J * J.transpose();
    const Single3DContactProblem P = checked(G, variant < 4 ? 3 : 9);
    ASSERT_EQ(P.rank, variant < 4 ? 2 : 8) << "variant " << variant;
    B << P.basis[0].e(), P.basis[1].e();
    EXPECT_TRUE((B.transpose() * B).isApprox(Matrix2d::Identity(), 1e-12)) << variant;
    EXPECT_TRUE((B * B.transpose() * G).isApprox(G, 1e-9)) << variant;  // B spans G's range
    EXPECT_TRUE((B.transpose() * G * B * P.reducedDelassusInverse.e()).isApprox(Matrix2d::Identity(), 1e-10));
  }
}

TEST(ContactProblem, EveryFieldStartsDefinedAndEveryRecordIsAligned) {
  // Built over memory full of NaN bit patterns, a problem reads as zeros
  // wherever its constructor has no value to give.
  alignas(Single3DContactProblem) unsigned char raw[sizeof(Single3DContactProblem)];
  vorsim::MaterialPairProperties mat;
  mat.c_f = 0.5, mat.c_r = 0.25, mat.r_th = 0.125, mat.c_static_f = 0.75, mat.v_static = 2.0, mat.v_static_inv = 0.5;
  for (const bool fromMaterial : {false, true}) {
    std::memset(raw, 0xFF, sizeof(raw));
    const Single3DContactProblem& P = fromMaterial ? *new (raw) Single3DContactProblem(mat, 1.0, 2.0, 3.0, -0.5)
                                                   : *new (raw) Single3DContactProblem();
    Matrix<double, 3, 6> vectors;
    vectors << P.impulse.e(), P.tauStar.e(), P.basis[0].e(), P.basis[1].e(), P.reducedColumnX.e(), P.reducedColumnY.e();
    EXPECT_EQ(vectors, (Matrix<double, 3, 6>::Zero()));
    EXPECT_EQ(P.position.e(), fromMaterial ? Vector3d(1, 2, 3) : Vector3d::Zero());
    EXPECT_EQ(P.delassus.e().squaredNorm() + P.delassusInverse.e().squaredNorm(), 0.0);
    EXPECT_EQ(P.reducedDelassus.e().squaredNorm() + P.reducedDelassusInverse.e().squaredNorm(), 0.0);
    const double k = fromMaterial ? 1.0 : 0.0;
    EXPECT_EQ((std::vector<double>{P.normalDelassusOverMu, P.targetNormalVel, P.rankOneDelassus, P.impactVel,
                                   P.inverseGzz, P.mu, P.muInverse, P.restitution, P.restitutionThreshold, P.depth,
                                   P.staticFriction, P.staticFrictionThreshold, P.inverseStaticThreshold}),
              (std::vector<double>{0, 0, 0, 0, 0, 0.5 * k, 2.0 * k, 0.25 * k, 0.125 * k, -0.5 * k, 0.75 * k, 2.0 * k,
                                   0.5 * k}));
    EXPECT_TRUE(P.objectA == nullptr && P.objectB == nullptr);
    EXPECT_EQ(P.rank, 3);
    EXPECT_EQ(P.localIndexA + P.localIndexB, 0u);
  }

  // In a world's list every record, not only the first, starts on 32 bytes.
  vorsim::World world;
  world.addGround();
  for (int i = 0; i < 3; ++i) world.addBox(0.2, 0.2, 0.2, 1.0)->setPosition(0.5 * i, 0, 0.099);
  world.integrate1();
  const auto& problems = world.getContactProblem();
  ASSERT_EQ(problems.size(), 12u);
  for (const auto& P : problems) EXPECT_EQ(reinterpret_cast<std::uintptr_t>(&P) % 32, 0u) << &P - &problems[0];
}
