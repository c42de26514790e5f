// Fixed-size matrices, expressions, dynamic arrays and the rotation / contact
// helpers, checked against Eigen and the C library where accuracy is promised,
// and pinned exactly where a branch rule or a storage rule decides the result.
#include <gtest/gtest.h>

#include <Eigen/Dense>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <random>
#include <vector>

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
Eigen::Vector3d randUnit() { return randMat<3, 1>().e().normalized(); }
// The lower triangle of m mirrored onto the upper one.
Eigen::Matrix3d lowerMirrored(const Eigen::Matrix3d& m) {
  return m.triangularView<Eigen::Lower>().toDenseMatrix().selfadjointView<Eigen::Lower>();
}
template <typename A, typename B>
void expectNear(const A& a, const B& b, double tol) {
  ASSERT_EQ(a.rows(), b.rows());
  ASSERT_EQ(a.cols(), b.cols());
  EXPECT_LE((a - b).cwiseAbs().maxCoeff(), tol) << "got\n" << a << "\nexpected\n" << b;
}

}  // namespace

TEST(FixedMat, LayoutMembersAndExpressions) {
  Mat<3, 6> j;
  for (size_t k = 0; k < 18; ++k) j.v[k] = double(k);
  Mat<6, 3> t;
  t.e() = j.e().transpose();  // writes through the map
  EXPECT_EQ(j(2, 4), 14.0);   // column-major: (i,j) at v[i + j*n]
  EXPECT_EQ(t.v[4 + 6 * 2], 14.0);
  for (const auto& z : std::vector<Mat<3, 3>>(2)) EXPECT_EQ(z.squaredNorm(), 0.0);
  expectNear(Mat<3, 3>::getIdentity().e(), Eigen::Matrix3d::Identity(), 0.0);

  Mat<3, 1> a{1.0, -2.0, 3.0};
  EXPECT_EQ(a.squaredNorm(), 14.0);
  a += a;  // the right-hand side is a copy
  a -= Mat<3, 1>{1.0, 1.0, 1.0};
  expectNear(a.e(), Eigen::Vector3d(1, -5, 5), 0.0);
  VecDyn dv(5);
  dv.e() << 10, 11, 12, 13, 14;
  a = dv;  // the first three elements
  expectNear(a.e(), Eigen::Vector3d(10, 11, 12), 0.0);

  for (int trial = 0; trial < 20; ++trial) {
    const Mat<3, 3> R = randRot(), M = randMat<3, 3>();
    const Mat<3, 1> v = randMat<3, 1>(), w = randMat<3, 1>(), u = randMat<3, 1>();
    const double s = uni(0.5, 2.0);
    const Mat<3, 1> scaled(v * s);
    expectNear(scaled.e(), (v.e() * s).eval(), 1e-15);
    Mat<3, 1> x;
    x = R.transpose() * v - u;
    expectNear(x.e(), (R.e().transpose() * v.e() - u.e()).eval(), 1e-14);
    x = transpose(R) * (M * v + w) - u;
    expectNear(x.e(), (R.e().transpose() * (M.e() * v.e() + w.e()) - u.e()).eval(), 1e-14);
    Mat<3, 3> y;
    y = R.transpose() * M;
    expectNear(y.e(), (R.e().transpose() * M.e()).eval(), 1e-14);
    y = R.transpose() * M * R;
    expectNear(y.e(), (R.e().transpose() * M.e() * R.e()).eval(), 1e-14);
    std::vector<Mat<3, 1>> list;
    list.emplace_back(v + w);
    expectNear(list[0].e(), (v.e() + w.e()).eval(), 0.0);
  }
  // Division by a scalar divides every element; it does not multiply by 1/s.
  const Mat<3, 1> b{2.5, 0.7, 1.2};
  volatile double three = 3.0;
  Mat<3, 1> q;
  q = b / three;
  for (size_t k = 0; k < 3; ++k) EXPECT_EQ(q[k], b[k] / 3.0);
  EXPECT_NE(q[0], b[0] * (1.0 / 3.0));  // 2.5/3 and 2.5*(1/3) round differently
}

TEST(FreeFunctions, ProductsAndTransformsMatchEigen) {
  for (int trial = 0; trial < 20; ++trial) {
    const Mat<3, 3> A = randMat<3, 3>(), B = randMat<3, 3>(), R = randRot(), Q = randRot(), S = randSym();
    const Mat<3, 1> x = randMat<3, 1>(), r = randMat<3, 1>();
    Mat<3, 3> c = A;
    matmul(c, B, c);  // the general product may alias
    expectNear(c.e(), (A.e() * B.e()).eval(), 1e-15);
    rotmatmul(R, Q, c);
    expectNear(c.e(), (R.e() * Q.e()).eval(), 1e-14);
    Mat<3, 1> y;
    matvecmul(A, x, y);
    expectNear(y.e(), (A.e() * x.e()).eval(), 1e-15);
    VecXMatVec(r, A, x, y);
    expectNear(y.e(), r.e().cross(A.e() * x.e()).eval(), 1e-15);
    expectNear((skewMatEigen(r.e()) * x.e()).eval(), r.e().cross(x.e()).eval(), 1e-15);

    similarityTransform2(R, S, c);
    expectNear(c.e(), (R.e().transpose() * S.e() * R.e()).eval(), 1e-14);
    Mat<3, 3> s = S;
    similarityTransform(R, s, s);  // out may alias s
    expectNear(s.e(), (R.e() * S.e() * R.e().transpose()).eval(), 1e-14);
    EXPECT_TRUE(s.e() == s.e().transpose());  // mirrored, so exactly symmetric
    // A non-symmetric s gives the lower triangle for s^T, mirrored.
    similarityTransform(R, A, c);
    expectNear(c.e(), lowerMirrored(R.e() * A.e().transpose() * R.e().transpose()), 1e-14);

    const double mass = uni(0.1, 3.0);
    const Eigen::Matrix3d shifted =
        S.e() + mass * (r.e().squaredNorm() * Eigen::Matrix3d::Identity() - r.e() * r.e().transpose());
    inertiaAtP(mass, S, r, c);
    expectNear(c.e(), shifted, 1e-14);
    c = S;
    addInertia(mass, r, c);
    expectNear(c.e(), shifted, 1e-14);
    invert33(A, c);
    expectNear(c.e(), A.e().inverse().eval(), 1e-13 * (1.0 + A.e().inverse().squaredNorm()));
  }
  // rotmatmul takes the third column from the first two, so for a general
  // matrix it differs from the product there.
  const Mat<3, 3> A = randMat<3, 3>(), B = randMat<3, 3>();
  Mat<3, 3> c;
  rotmatmul(A, B, c);
  const Eigen::Matrix3d ab = A.e() * B.e();
  expectNear(c.e().leftCols<2>(), ab.leftCols<2>(), 1e-15);
  expectNear(c.e().col(2), ab.col(0).cross(ab.col(1)).eval(), 1e-15);

  const Mat<3, 6> a = randMat<3, 6>();
  const Mat<6, 1> gv = randMat<6, 1>();
  const Mat<3, 1> y0 = randMat<3, 1>();
  Mat<3, 1> y = y0;
  matvecmulThenAdd(a, gv, y);
  expectNear(y.e(), (y0.e() + a.e() * gv.e()).eval(), 1e-15);
  matvecmulThenSub(a, gv, y);
  expectNear(y.e(), y0.e(), 1e-15);
}

TEST(Quaternion, ProductsAndMatricesMatchEigen) {
  for (int trial = 0; trial < 20; ++trial) {
    Eigen::Quaterniond ea(Eigen::Vector4d::Random()), eb(Eigen::Vector4d::Random());
    const double a[4] = {ea.w(), ea.x(), ea.y(), ea.z()}, b[4] = {eb.w(), eb.x(), eb.y(), eb.z()};
    double c[4];
    quatMul(a, b, c);
    const Eigen::Quaterniond ab = ea * eb, ainvb = ea.conjugate() * eb;
    expectNear(Eigen::Vector4d(c), Eigen::Vector4d(ab.w(), ab.x(), ab.y(), ab.z()), 1e-15);
    quatInvQuatMul(a, b, c);  // conj(a) (x) b, a not normalised
    expectNear(Eigen::Vector4d(c), Eigen::Vector4d(ainvb.w(), ainvb.x(), ainvb.y(), ainvb.z()), 1e-15);

    Mat<3, 3> R;
    quatToRotMat(a, R);  // used as is: a quaternion of norm k gives k^2 times a rotation
    expectNear(R.e(), (ea.squaredNorm() * ea.normalized().toRotationMatrix()).eval(), 1e-14);
    ea.normalize();
    const Mat<4, 1> qa{ea.w(), ea.x(), ea.y(), ea.z()};
    quatToRotMat(qa, R);
    expectNear(R.e(), ea.toRotationMatrix(), 1e-15);
    Mat<4, 1> q;
    rotMatToQuat(R, q);
    expectNear((q.e().dot(qa.e()) > 0 ? 1.0 : -1.0) * q.e(), qa.e(), 1e-14);
  }
  // Strict comparisons decide the branch.
  Mat<4, 1> q;
  rotMatToQuat(Mat<3, 3>{1, 0, 0, 0, -1, 0, 0, 0, -1}, q);  // pi about x: the x branch
  expectNear(q.e(), Eigen::Vector4d(0, 1, 0, 0), 0.0);
  const double s = 2.0 * std::sqrt(2.0);
  rotMatToQuat(Mat<3, 3>{-1, 0, 0, 0, 0.5, 0, 0, 0, 0.5}, q);  // R(1,1) == R(2,2), t = 0: the z branch
  expectNear(q.e(), Eigen::Vector4d(0, 0, 0, 0.25 * s), 0.0);
  rotMatToQuat(Mat<3, 3>{0.5, 0, 0, 0, 0.5, 0, 0, 0, -1}, q);  // R(0,0) == R(1,1): the y branch
  expectNear(q.e(), Eigen::Vector4d(0, 0, 0.25 * s, 0), 0.0);
}

TEST(Quaternion, RotationVectorConversions) {
  for (int trial = 0; trial < 20; ++trial) {
    const Eigen::Vector3d axis = randUnit();
    const double angle = uni(0.01, 3.1);
    Mat<4, 1> q;
    eulerVecToQuat(Mat<3, 1>((axis * angle).eval()), q);
    const Eigen::Quaterniond ref(Eigen::AngleAxisd(angle, axis));
    expectNear(q.e(), Eigen::Vector4d(ref.w(), ref.x(), ref.y(), ref.z()), 1e-15);
    double ev[3];
    quatToEulerVec(q.v, ev);
    expectNear(Eigen::Vector3d(ev), (axis * angle).eval(), 1e-12);
    // No folding: the negated quaternion reads as 2*pi - angle about -axis.
    const double neg[4] = {-q[0], -q[1], -q[2], -q[3]};
    quatToEulerVec(neg, ev);
    expectNear(Eigen::Vector3d(ev), (-axis * (2.0 * M_PI - angle)).eval(), 1e-12);
  }
  // (+-1,0,0,0) give exactly zero; w above 1 is clamped (angle 0, not NaN).
  for (const Eigen::Vector4d& in :
       {Eigen::Vector4d(1, 0, 0, 0), Eigen::Vector4d(-1, 0, 0, 0), Eigen::Vector4d(1.5, 1, 0, 0)}) {
    double ev[3] = {7, 7, 7};
    quatToEulerVec(in.data(), ev);
    expectNear(Eigen::Vector3d(ev), Eigen::Vector3d::Zero(), 0.0);
  }
  Mat<4, 1> q;
  eulerVecToQuat(Mat<3, 1>{5e-13, 0, 0}, q);
  expectNear(q.e(), Eigen::Vector4d(1, 0, 0, 0), 0.0);
  eulerVecToQuat(Mat<3, 1>{4e-12, 0, 0}, q);  // just above the threshold: the true quaternion
  EXPECT_NEAR(q[1], 2e-12, 1e-26);
}

TEST(Rotation, AngleAxisAndPolynomialSineCosine) {
  for (int trial = 0; trial < 40; ++trial) {
    const Eigen::Vector3d axis = randUnit();
    const double angle = uni(-60.0, 60.0);
    Mat<3, 3> R, R2;
    angleAxisToRotMat(Mat<3, 1>(axis), angle, R);
    expectNear(R.e(), Eigen::AngleAxisd(angle, axis).toRotationMatrix(), 1e-15);
    angleAxisToRotMat2(Mat<3, 1>(axis), angle, R2);
    expectNear(R2.e(), R.e(), 4e-14);
  }
  double s, c;
  for (int i = -4000; i <= 4000; ++i) {
    const double x = i * 0.00523;
    polySinCos(x, s, c);
    ASSERT_NEAR(s, std::sin(x), 1e-14) << x;
    ASSERT_NEAR(c, std::cos(x), 1e-14) << x;
  }
  for (double x : {100.0, -1000.0}) {  // many turns: the wrap loses some digits
    polySinCos(x, s, c);
    EXPECT_NEAR(std::hypot(s - std::sin(x), c - std::cos(x)), 0.0, 4e-13) << x;
  }
  polySinCos(M_PI, s, c);  // folded to b = 0: an exact zero, unlike std::sin
  EXPECT_EQ(s, 0.0);
  EXPECT_EQ(c, -1.0);
  // The cosine sign is +1 only strictly inside (-pi/2, pi/2): at pi/2 the
  // truncated series (a few 1e-15) flips sign against its neighbour.
  double sBelow, cBelow;
  polySinCos(std::nextafter(M_PI / 2, 0.0), sBelow, cBelow);
  polySinCos(M_PI / 2, s, c);
  EXPECT_NEAR(c, -cBelow, 1e-15);
  EXPECT_GT(std::abs(c), 1e-15);

  Mat<3, 3> R;
  zaxisToRotMat(Mat<3, 1>{0, 0, 1}, R);
  expectNear(R.e(), Eigen::Matrix3d::Identity(), 0.0);
  zaxisToRotMat(Mat<3, 1>{0, 0, -1}, R);
  expectNear(R.e(), Eigen::AngleAxisd(M_PI, Eigen::Vector3d::UnitX()).toRotationMatrix(), 1e-15);
  for (int trial = 0; trial < 20; ++trial) {
    const Eigen::Vector3d z = randUnit();
    zaxisToRotMat(Mat<3, 1>(z), R);
    expectNear(R.e().col(2), z, 1e-14);
    expectNear((R.e().transpose() * R.e()).eval(), Eigen::Matrix3d::Identity(), 1e-14);
    EXPECT_NEAR(R.e().determinant(), 1.0, 1e-14);
    EXPECT_NEAR(Eigen::AngleAxisd(R.e()).axis().z(), 0.0, 1e-12);  // the shortest turn
  }
}

TEST(Solve33, CramerAndSingularRule) {
  for (int trial = 0; trial < 20; ++trial) {
    const Mat<3, 3> a = randMat<3, 3>();
    const Mat<3, 1> b = randMat<3, 1>();
    Mat<3, 1> x;
    solve33(a, b, x);
    expectNear(x.e(), a.e().fullPivLu().solve(b.e()).eval(), 1e-10 * (1.0 + a.e().inverse().norm()));
  }
  Mat<3, 1> x{9, 9, 9};
  solve33(Mat<3, 3>{0, 0, 0, 0, 0, 0, 0, 0, 0}, Mat<3, 1>{1, 2, 3}, x);
  expectNear(x.e(), Eigen::Vector3d::Zero(), 0.0);
  // |det| = 1e-18 is below the threshold: the factor is det, not 1/det.
  solve33(Mat<3, 3>{1e-6, 0, 0, 0, 1e-6, 0, 0, 0, 1e-6}, Mat<3, 1>{1, 1, 1}, x);
  expectNear(x.e(), Eigen::Vector3d::Constant(1e-30), 1e-44);
  solve33(Mat<3, 3>{1e-5, 0, 0, 0, 1e-5, 0, 0, 0, 1e-5}, Mat<3, 1>{1, 1, 1}, x);  // above it
  expectNear(x.e(), Eigen::Vector3d::Constant(1e5), 1e-9);
}

TEST(FastAtan, ConstantsSeamsAndAccuracy) {
  EXPECT_EQ(fastAtanVor(1.0), 0.7853981633974483);
  EXPECT_EQ(fastAtanVor(0.0), 0.0);
  EXPECT_TRUE(std::signbit(fastAtanVor(0.0)));  // x = 0 takes the negative sign
  auto maxErr = [](double lo, double hi) {
    double e = 0.0;
    for (int i = 0; i <= 20000; ++i) {
      const double x = lo + (hi - lo) * i / 20000;
      e = std::fmax(e, std::fmax(std::abs(fastAtanVor(x) - std::atan(x)), std::abs(fastAtanVor(-x) + std::atan(x))));
    }
    return e;
  };
  // Double precision away from the seams and up to a little above 1; the
  // truncated series leave some 1e-13 right at the seams.
  EXPECT_LT(maxErr(0.0, 0.25), 2e-16);
  EXPECT_LT(maxErr(0.4, 0.6), 3e-16);
  EXPECT_LT(maxErr(0.85, 1.15), 3e-16);
  EXPECT_LT(maxErr(0.0, 1.15), 3e-13);
  for (double seam : {0.325, 0.68}) {
    const double at = fastAtanVor(seam);
    EXPECT_NEAR(fastAtanVor(std::nextafter(seam, 0.0)), at, 1e-13) << seam;
    EXPECT_NEAR(at, std::atan(seam), 2e-13) << seam;
  }
  // Not a general arctangent: 7e-5 off at 2, and divergent beyond.
  EXPECT_NEAR(fastAtanVor(2.0) - std::atan(2.0), 6.7e-5, 0.2e-5);
  EXPECT_GT(std::abs(fastAtanVor(3.0) - std::atan(3.0)), 1.0);
}

TEST(ContactJacobian, ComputeJandMinvJT) {
  for (int trial = 0; trial < 10; ++trial) {
    const Mat<3, 3> frame = randRot(), invI = randSym();
    const Mat<3, 1> r = randMat<3, 1>();
    const double invMass = uni(0.1, 2.0);
    Mat<6, 3> MinvJT;
    Mat<3, 6> J;
    computeJandMinvJT(invMass, frame, invI, r, MinvJT, J);
    // Row i of J * (v, w) is the velocity of the contact point (com - r) along f_i.
    const Eigen::Matrix<double, 6, 1> gv = Eigen::Matrix<double, 6, 1>::Random();
    const Eigen::Vector3d pointVel = gv.head<3>() + gv.tail<3>().cross(-r.e());
    expectNear((J.e() * gv).eval(), (frame.e() * pointVel).eval(), 1e-14);
    // MinvJT = M^-1 J^T with M^-1 = diag(invMass * 1, invInertia).
    expectNear(MinvJT.e().topRows<3>(), (invMass * J.e().leftCols<3>().transpose()).eval(), 1e-15);
    expectNear(MinvJT.e().bottomRows<3>(), (invI.e() * J.e().rightCols<3>().transpose()).eval(), 1e-14);
  }
}

TEST(DynamicTypes, AllocationLayoutAndCopies) {
  VecDyn a(7);
  std::uintptr_t raw;
  std::memcpy(&raw, a.v - 1, sizeof(raw));  // the malloc'ed address sits just before v
  EXPECT_EQ(reinterpret_cast<std::uintptr_t>(a.v), (raw & ~std::uintptr_t(15)) + 16);
  a.e() = Eigen::VectorXd::LinSpaced(7, 1, 7);
  VecDyn copy(a);
  EXPECT_NE(copy.v, a.v);
  expectNear(copy.e(), a.e(), 0.0);
  VecDyn shortDst(3);
  shortDst = a;  // copies the destination's 3 elements and keeps its size
  EXPECT_EQ(shortDst.n, 3u);
  expectNear(shortDst.e(), a.e().head(3), 0.0);
  shortDst.setZero(5);
  expectNear(shortDst.e(), Eigen::VectorXd::Zero(5), 0.0);

  MatDyn m(4, 5);
  m.setZero();
  const Mat<3, 3> blk = randMat<3, 3>();
  m.fillSub<3, 3>(1, 2, blk);
  EXPECT_EQ(m.v[3 * 4 + 2], blk(1, 1));  // column-major, (i,j) at v[j*n + i]
  Eigen::MatrixXd expected = Eigen::MatrixXd::Zero(4, 5);
  expected.block<3, 3>(1, 2) = blk.e();
  const MatDyn mc(m);
  expectNear(mc.e(), expected, 0.0);
  EXPECT_EQ(reinterpret_cast<std::uintptr_t>(mc.v) % 16, 0u);

  AlignedVector<Mat<3, 1>> hot(5);
  EXPECT_EQ(reinterpret_cast<std::uintptr_t>(hot.data()) % 32, 0u);
  AlignedAllocator<double, 32> alloc;  // a size that overflows is refused
  EXPECT_THROW((void)alloc.allocate(std::numeric_limits<size_t>::max() / 4), std::bad_alloc);
}

TEST(DynamicTypes, SparseJacobianResizeAndCopy) {
  SparseJacobian jac;
  jac.resize(4);
  EXPECT_EQ(jac.capacity, 4u);
  EXPECT_EQ(jac.v.e().squaredNorm(), 0.0);  // growth zero-fills
  for (size_t k = 0; k < 12; ++k) jac.v.v[k] = double(k + 1);
  for (size_t k = 0; k < 4; ++k) jac.idx[k] = 10 + k;
  const double* buffer = jac.v.v;
  jac.resize(2);
  jac.resize(4);  // within capacity: same buffer, data kept
  EXPECT_EQ(jac.v.v, buffer);
  EXPECT_EQ(jac.v.v[11], 12.0);
  EXPECT_EQ(jac.idx[3], 13u);

  jac.resize(2);
  const SparseJacobian copied(jac);  // capacity and the whole buffer
  EXPECT_EQ(copied.capacity, 4u);
  EXPECT_EQ(copied.v.v[11], 12.0);
  SparseJacobian assigned;
  assigned.resize(6);
  assigned = jac;  // only the live columns; capacity shrinks to size
  EXPECT_EQ(assigned.capacity, 2u);
  EXPECT_EQ(assigned.idx.size(), 2u);
  EXPECT_EQ(assigned.idx[1], 11u);
  expectNear(assigned.v.e(), jac.v.e().leftCols(2), 0.0);

  jac.resize(5);  // past capacity: reallocated and zeroed
  EXPECT_EQ(jac.v.e().squaredNorm(), 0.0);
}
