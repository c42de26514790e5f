// Math helpers checked against Eigen and libm, and pinned where a branch or storage rule decides.
#include <gtest/gtest.h>

#include <Eigen/Dense>
#include <cmath>
#include <random>

#include "vorsim/math.hpp"

using namespace vorsim;

namespace {

std::mt19937 rng(12345);  // NOLINT
double uni(double lo = -1.0, double hi = 1.0) { return std::uniform_real_distribution<double>(lo, hi)(rng); }
template <size_t n, size_t m>
Mat<n, m> randMat() {
  Mat<n, m> a;
  for (double& x : a.v) x = uni();
  return a;
}
Mat<3, 3> randRot() { return Mat<3, 3>(Eigen::Quaterniond(Eigen::Vector4d::Random()).normalized().toRotationMatrix()); }
Mat<3, 3> randSym() {
  const Mat<3, 3> a = randMat<3, 3>();
  return Mat<3, 3>((a.e() + a.e().transpose()).eval());
}
template <typename A, typename B>
void expectNear(const A& a, const B& b, double tol) {
  ASSERT_TRUE(a.rows() == b.rows() && a.cols() == b.cols());
  EXPECT_LE((a - b).cwiseAbs().maxCoeff(), tol) << "got\n" << a << "\nexpected\n" << b;
}

}  // namespace

TEST(FixedMat, ProductsTransformsSolveAndStorage) {
  const Mat<3, 3> A = randMat<3, 3>(), B = randMat<3, 3>(), R = randRot(), S = randSym();
  const Mat<3, 1> v = randMat<3, 1>();
  Mat<3, 1> x = v;
  Mat<3, 3> c = A;
  x += x;  // the right-hand side is a copy
  expectNear(x.e(), (2.0 * v.e()).eval(), 0.0);
  volatile double three = 3.0;
  const Mat<3, 1> b{2.5, 0.7, 1.2};  // 2.5 / 3 and 2.5 * (1 / 3) round differently
  x = b / three;                     // divides every element rather than multiplying by 1/s
  for (size_t k = 0; k < 3; ++k) EXPECT_EQ(x[k], b[k] / 3.0);
  matmul(c, B, c);  // the general product may alias
  expectNear(c.e(), (A.e() * B.e()).eval(), 1e-15);
  Mat<3, 3> s = S;
  similarityTransform(R, s, s);  // out may alias s, and is mirrored to exact symmetry
  expectNear(s.e(), (R.e() * S.e() * R.e().transpose()).eval(), 1e-14);
  EXPECT_TRUE(s.e() == s.e().transpose());
  // A non-symmetric s gives the lower triangle of R s^T R^T, mirrored.
  similarityTransform(R, A, c);
  const Eigen::Matrix3d lower = (R.e() * A.e().transpose() * R.e().transpose()).triangularView<Eigen::Lower>();
  expectNear(c.e(), Eigen::Matrix3d(lower.selfadjointView<Eigen::Lower>()), 1e-14);
  rotmatmul(A, B, c);  // builds the third column from the first two
  const Eigen::Matrix3d ab = A.e() * B.e();
  expectNear(c.e().leftCols<2>(), ab.leftCols<2>(), 1e-15);
  expectNear(c.e().col(2), ab.col(0).cross(ab.col(1)).eval(), 1e-15);

  solve33(A, v, x);
  expectNear(x.e(), A.e().fullPivLu().solve(v.e()).eval(), 1e-10 * (1.0 + A.e().inverse().norm()));
  // Below the determinant threshold the factor is det itself, not 1/det.
  solve33(Mat<3, 3>{1e-6, 0, 0, 0, 1e-6, 0, 0, 0, 1e-6}, Mat<3, 1>{1, 1, 1}, x);
  expectNear(x.e(), Eigen::Vector3d::Constant(1e-30), 1e-44);

  SparseJacobian jac;  // within capacity a resize keeps the buffer and its data
  jac.resize(4);
  jac.v.v[11] = 12.0;
  jac.resize(2);
  jac.resize(4);
  EXPECT_EQ(jac.v.v[11], 12.0);
}

TEST(Rotation, QuaternionsAngleAxisSineCosineAndArctangent) {
  Mat<4, 1> q;
  Mat<3, 3> R;
  for (int trial = 0; trial < 20; ++trial) {
    const Eigen::Quaterniond e = Eigen::Quaterniond(Eigen::Vector4d::Random()).normalized();
    const Mat<4, 1> qa{e.w(), e.x(), e.y(), e.z()};
    quatToRotMat(qa, R);
    expectNear(R.e(), e.toRotationMatrix(), 1e-15);
    rotMatToQuat(R, q);
    expectNear((q.e().dot(qa.e()) > 0 ? 1.0 : -1.0) * q.e(), qa.e(), 1e-14);
    const Eigen::Vector3d axis = randMat<3, 1>().e().normalized();
    const double angle = uni(-60.0, 60.0);
    angleAxisToRotMat(Mat<3, 1>(axis), angle, R);
    expectNear(R.e(), Eigen::AngleAxisd(angle, axis).toRotationMatrix(), 1e-15);
  }
  // Strict comparisons decide the branch on ties.
  const double h = 0.5 * std::sqrt(2.0);
  rotMatToQuat(Mat<3, 3>{-1, 0, 0, 0, 0.5, 0, 0, 0, 0.5}, q);  // R(1,1) == R(2,2): the z branch
  expectNear(q.e(), Eigen::Vector4d(0, 0, 0, h), 0.0);
  rotMatToQuat(Mat<3, 3>{0.5, 0, 0, 0, 0.5, 0, 0, 0, -1}, q);  // R(0,0) == R(1,1): the y branch
  expectNear(q.e(), Eigen::Vector4d(0, 0, h, 0), 0.0);

  double s, c;
  for (int i = -4000; i <= 4000; ++i) {
    const double x = i * 0.00523;
    polySinCos(x, s, c);
    ASSERT_NEAR(s, std::sin(x), 1e-14) << x;
    ASSERT_NEAR(c, std::cos(x), 1e-14) << x;
  }
  polySinCos(M_PI, s, c);  // folded to an exact zero, unlike std::sin
  EXPECT_EQ(s, 0.0);

  EXPECT_EQ(fastAtanVor(1.0), 0.7853981633974483);
  EXPECT_TRUE(fastAtanVor(0.0) == 0.0 && std::signbit(fastAtanVor(0.0)));  // x = 0 takes the negative sign
  double err = 0.0;
  for (int i = 0; i <= 20000; ++i) {
    const double x = 1.15 * i / 20000;
    err = std::fmax(err, std::fmax(std::abs(fastAtanVor(x) - std::atan(x)), std::abs(fastAtanVor(-x) + std::atan(x))));
  }
  EXPECT_LT(err, 3e-13);
  for (double seam : {0.325, 0.68})
    EXPECT_NEAR(fastAtanVor(std::nextafter(seam, 0.0)), fastAtanVor(seam), 1e-13) << seam;
}
