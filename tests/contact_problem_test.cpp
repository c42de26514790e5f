// The contact problem record: construction and the rank classification of its
// Delassus block.
#include <gtest/gtest.h>

#include <Eigen/Dense>
#include <cmath>
#include <limits>
#include <random>

#include "vorsim/contact/Single3DContactProblem.hpp"

using vorsim::MaterialPairProperties;
using vorsim::contact::Single3DContactProblem;

namespace {

Single3DContactProblem problemWith(const Eigen::Matrix3d& G, int rank = 3) {
  Single3DContactProblem P(MaterialPairProperties{}, 0.0, 0.0, 0.0, 0.0);
  P.delassus = G;
  P.rank = rank;
  return P;
}

// J M^-1 J^T of a body with as many velocities as J has columns; the rank of
// the block is that number when J is generic.
Eigen::Matrix3d blockOf(const Eigen::MatrixXd& J, unsigned seed) {
  std::mt19937 rng(seed);
  std::uniform_real_distribution<double> d(-1.0, 1.0);
  Eigen::MatrixXd A(J.cols(), J.cols());
  for (int i = 0; i < A.size(); ++i) A(i) = d(rng);
  const Eigen::MatrixXd Minv = A * A.transpose() + 0.5 * Eigen::MatrixXd::Identity(J.cols(), J.cols());
  return J * Minv * J.transpose();
}

// Checks the reduced data of a rank-2/8 result: an orthonormal basis of the
// range of G, and an inverse of B^T G B.
void expectReducedBlockConsistent(const Single3DContactProblem& P, const Eigen::Matrix3d& G) {
  Eigen::Matrix<double, 3, 2> B;
  B << P.basis[0].e(), P.basis[1].e();
  const Eigen::Matrix2d R = B.transpose() * G * B;
  EXPECT_TRUE(R.isApprox(P.reducedDelassus.e(), 1e-12));
  EXPECT_TRUE((R * P.reducedDelassusInverse.e()).isApprox(Eigen::Matrix2d::Identity(), 1e-10));
  EXPECT_NEAR(B.col(0).norm(), 1.0, 1e-12);
  EXPECT_NEAR(B.col(1).norm(), 1.0, 1e-12);
  EXPECT_NEAR(B.col(0).dot(B.col(1)), 0.0, 1e-12);
  // b1 is the direction of G's third column; both basis vectors lie in G's range.
  EXPECT_TRUE(B.col(1).isApprox(G.col(2).normalized(), 1e-12));
  Eigen::JacobiSVD<Eigen::Matrix3d> svd(G, Eigen::ComputeFullU);
  const Eigen::Vector3d nullDir = svd.matrixU().col(2);
  EXPECT_NEAR(nullDir.dot(B.col(0)), 0.0, 1e-9);
  EXPECT_NEAR(nullDir.dot(B.col(1)), 0.0, 1e-9);
}

}  // namespace

TEST(ContactProblem, ConstructorCopiesMaterialAndStartsAtRankThree) {
  MaterialPairProperties m{0.5, 0.2, 0.03, 0.9, 0.1, 10.0};
  Single3DContactProblem P(m, 1.0, 2.0, 3.0, -0.004);
  EXPECT_EQ(P.mu, 0.5);
  EXPECT_EQ(P.muInverse, 2.0);
  EXPECT_EQ(P.restitution, 0.2);
  EXPECT_EQ(P.restitutionThreshold, 0.03);
  EXPECT_EQ(P.staticFriction, 0.9);
  EXPECT_EQ(P.staticFrictionThreshold, 0.1);
  EXPECT_EQ(P.inverseStaticThreshold, 10.0);
  EXPECT_EQ(P.depth, -0.004);
  EXPECT_EQ(P.position[1], 2.0);
  EXPECT_EQ(P.rank, 3);
  EXPECT_EQ(P.objectA, nullptr);
  EXPECT_EQ(P.objectB, nullptr);
  EXPECT_EQ(P.impulse.squaredNorm(), 0.0);
  m.c_f = 0.0;
  EXPECT_TRUE(std::isinf(Single3DContactProblem(m, 0, 0, 0, 0).muInverse));
}

TEST(ContactProblem, CheckRankDegenerateAndSpecialBlocks) {
  EXPECT_EQ(problemWith(Eigen::Matrix3d::Zero()).rank, 3);  // only checkRank changes it
  auto P = problemWith(Eigen::Matrix3d::Zero());
  P.checkRank();
  EXPECT_EQ(P.rank, 0);

  Eigen::Matrix3d onlyZ = Eigen::Matrix3d::Zero();
  onlyZ(2, 2) = 2.0;
  P = problemWith(onlyZ);
  P.checkRank();
  EXPECT_EQ(P.rank, 1);
  EXPECT_DOUBLE_EQ(P.rankOneDelassus, 8.0);

  P = problemWith(Eigen::Matrix3d::Identity());
  P.checkRank();
  EXPECT_EQ(P.rank, 3);

  // A tiny normal entry makes the block inactive even when the rest is large.
  Eigen::Matrix3d tinyZ = Eigen::Matrix3d::Identity();
  tinyZ(2, 2) = 1e-8;
  P = problemWith(tinyZ);
  P.checkRank();
  EXPECT_EQ(P.rank, 0);

  onlyZ(2, 2) = 4.0;
  P = problemWith(onlyZ, 4);
  P.checkRank();
  EXPECT_EQ(P.rank, 4);
  EXPECT_EQ(P.rankOneDelassus, 0.25);

  P = problemWith(Eigen::Matrix3d::Zero(), 5);
  P.rankOneDelassus = 7.0;
  P.checkRank();
  EXPECT_EQ(P.rank, 5);
  EXPECT_EQ(P.rankOneDelassus, 7.0);

  // A non-finite block keeps its rank.
  for (int rank : {3, 9}) {
    P = problemWith(Eigen::Matrix3d::Constant(std::numeric_limits<double>::quiet_NaN()), rank);
    P.checkRank();
    EXPECT_EQ(P.rank, rank);
  }
}

TEST(ContactProblem, CheckRankOfRankOneBlocks) {
  const Eigen::Vector3d j(0.3, -0.7, 1.2);
  const Eigen::Matrix3d G = 2.5 * j * j.transpose();  // a body with one velocity
  for (int rank : {3, 9}) {
    auto P = problemWith(G, rank);
    P.checkRank();
    EXPECT_EQ(P.rank, rank - 2);
    EXPECT_NEAR(P.rankOneDelassus, G.col(2).dot(G * G.col(2)), 1e-12);
  }
}

TEST(ContactProblem, CheckRankOfRankTwoBlocks) {
  std::mt19937 rng(7);
  std::uniform_real_distribution<double> d(-1.0, 1.0);
  for (unsigned trial = 0; trial < 20; ++trial) {
    Eigen::MatrixXd J(3, 2);
    for (int i = 0; i < 6; ++i) J(i) = d(rng);
    // Trials 1 and 2 make column 0, then column 1 dependent by size; trial 3 by
    // being parallel to column 2.
    if (trial == 1) J.row(0).setZero();
    if (trial == 2) J.row(1).setZero();
    if (trial == 3) J.row(0) = -2.0 * J.row(2);
    const Eigen::Matrix3d G = blockOf(J, trial);
    for (int rank : {3, 9}) {
      auto P = problemWith(G, rank);
      P.checkRank();
      ASSERT_EQ(P.rank, rank - 1) << "trial " << trial;
      expectReducedBlockConsistent(P, G);
    }
  }
  // A block of full rank is left as it is.
  Eigen::MatrixXd J(3, 6);
  for (int i = 0; i < 18; ++i) J(i) = d(rng);
  auto P = problemWith(blockOf(J, 99));
  P.checkRank();
  EXPECT_EQ(P.rank, 3);
}
