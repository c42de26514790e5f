// The per-contact Gauss-Seidel solver on bodies with explicit contact Jacobians,
// and the rank of a contact problem's block.
#include <gtest/gtest.h>

#include <Eigen/Dense>
#include <cmath>
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
  // Blocks where a shortcut would fail: the unconstrained impulse (2, 0, -0.5)
  // pulls, though |t| < mu |z|; a nearly isotropic block, whose unconstrained
  // angle is off by ~1e-3 only; a random one.
  std::mt19937 rng(12345);
  Matrix3d L[3];
  L[0] << 1.0, 0.0, 0.0, 0.0, 1.0, 0.0, 0.9, 0.0, std::sqrt(0.19);
  L[1] << 1.0, 0.001, 0.0, 0.0, 1.005, 0.0, 0.0, 0.0, 1.0;
  L[2] = randomMatrix(rng, 3, 3) + 1.2 * Matrix3d::Identity();
  const double mu[] = {5.0, 0.5, 0.4};
  const Vector3d v[] = {-L[0] * L[0].transpose() * Vector3d(2.0, 0.0, -0.5), {1.0, 0.5, -0.3}, {0.6, 0.2, -0.5}};
  for (int k = 0; k < 3; ++k) {
    MatrixBody body = point(L[k], v[k]);
    ProblemList list;
    const Matrix3d G = addProblem(list, mu[k], &body).delassus.e();
    const Vector3d start = -G.inverse() * v[k], ref = bruteForceSliding(G, v[k], mu[k]);
    ASSERT_GT(std::hypot(start.x(), start.y()), mu[k] * start.z()) << k << ": it slides";
    solveList(list, 1);
    const Vector3d p = list[0].impulse.e();
    EXPECT_NEAR(std::hypot(p.x(), p.y()), mu[k] * p.z(), 1e-9 * mu[k] * p.z()) << k;
    EXPECT_NEAR(body.contactVel(0).z(), 0.0, 1e-12) << k;
    EXPECT_LT((p - ref).norm(), 1e-7 * ref.norm()) << k;
  }
}

TEST(ContactSolver, RaisedFrictionTestsTheConeWithMuAndBuildsItWithTheDynamicInverse) {
  // After the static-friction blend mu is raised (0.3 -> 0.6) while 1/mu keeps
  // the dynamic value. The cone test uses mu: a free impulse with |t| = 0.45 z
  // sticks. A sliding impulse is built on the dynamic cone, z = |t| / 0.3.
  std::mt19937 rng(21);
  for (int trial = 0; trial < 12; ++trial) {
    Matrix3d L = randomMatrix(rng, 3, 3) + 1.5 * Matrix3d::Identity();  // coupled normal and tangents
    const double t = trial % 2 == 0 ? 0.45 : 1.5, angle = 0.5 * trial;
    const Vector3d free(std::cos(angle) * t, std::sin(angle) * t, 1.0);
    MatrixBody body = point(L, -L * L.transpose() * free);  // the unconstrained impulse is `free`
    ProblemList list;
    addProblem(list, 0.3, &body).mu = 0.6;
    solveList(list, 1);
    const Vector3d p = list[0].impulse.e();
    SCOPED_TRACE("trial " + std::to_string(trial));
    EXPECT_NEAR(body.contactVel(0).z(), 0.0, 1e-12);
    if (t < 1.0) {
      EXPECT_LT((p - free).norm(), 1e-12);
    } else {
      EXPECT_NEAR(std::hypot(p.x(), p.y()) / 0.3, p.z(), 1e-12 * p.z());
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
