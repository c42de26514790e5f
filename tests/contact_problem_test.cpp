// A contact problem's record: its initial state, and the rank classification
// of its Delassus block.
#include <gtest/gtest.h>

#include <Eigen/Dense>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <new>
#include <random>

#include "vorsim/World.hpp"
#include "vorsim/contact/Single3DContactProblem.hpp"
#include "vorsim/object/Primitives.hpp"

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
