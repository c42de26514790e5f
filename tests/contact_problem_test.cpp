// Rank classification of a contact problem's Delassus block.
#include <gtest/gtest.h>

#include <Eigen/Dense>
#include <cmath>
#include <random>

#include "vorsim/contact/Single3DContactProblem.hpp"

using namespace Eigen;
using vorsim::contact::Single3DContactProblem;

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
