// Kinematics of a built system against independent routes: finite differences
// of positions and Jacobians along the motion, and consistency between the
// velocity tables, the Jacobians and the frame queries.
#include <gtest/gtest.h>

#include "robot_compare.hpp"

using namespace vorsim;
using namespace vorsim_test;

namespace {

struct Fixture {
  explicit Fixture(Joint::Type rootType) : sys(makeTree(rootType), "r") {
    randomState(sys, 7);
    gc0.resize(sys.gcDim);
    gc0 = sys.gc;
    u = sys.gv.e();
  }
  Eigen::Vector3d pointAt(const VecDyn& gc, size_t body, const Mat<3, 1>& pB) {
    sys.setGeneralizedCoordinate(gc);
    Mat<3, 1> p;
    sys.getPosition(body, pB, p);
    return p.e();
  }
  void restore() { sys.setGeneralizedCoordinate(gc0); }

  ArticulatedSystem sys;
  VecDyn gc0;
  Eigen::VectorXd u;
};

const Mat<3, 1> kPoint{0.1, 0.2, -0.3};

}  // namespace

class KinematicsOnBothBases : public testing::TestWithParam<Joint::Type> {};

TEST_P(KinematicsOnBothBases, JacobiansMatchFiniteDifferences) {
  Fixture f(GetParam());
  ArticulatedSystem& s = f.sys;
  const double h = 1e-6;
  for (size_t body = 0; body < s.nbody; ++body) {
    f.restore();
    Mat<3, 1> pW;
    s.getPosition(body, kPoint, pW);
    SparseJacobian J, Jr;
    s.getSparseJacobian(body, pW, J);
    s.getSparseRotationalJacobian(body, Jr);
    EXPECT_EQ(J.size, s.gvChain[body]);
    for (size_t k = 1; k < J.size; ++k) EXPECT_LT(J.idx[k - 1], J.idx[k]);
    const Eigen::MatrixXd Jd = dense(J, s.dof), Jrd = dense(Jr, s.dof);

    for (size_t k = 0; k < s.dof; ++k) {
      Eigen::VectorXd e = Eigen::VectorXd::Zero(Eigen::Index(s.dof));
      e[Eigen::Index(k)] = 1.0;
      const Eigen::Vector3d plus = f.pointAt(moved(s, f.gc0, e, h), body, kPoint);
      Mat<3, 3> Rp = s.rotW[body];
      const Eigen::Vector3d minus = f.pointAt(moved(s, f.gc0, e, -h), body, kPoint);
      Mat<3, 3> Rm = s.rotW[body];
      const Eigen::Vector3d fd = (plus - minus) / (2 * h);
      EXPECT_TRUE(Jd.col(Eigen::Index(k)).isApprox(fd, 1e-6) || (Jd.col(Eigen::Index(k)) - fd).norm() < 1e-8)
          << "body " << body << " dof " << k << "\n"
          << Jd.col(Eigen::Index(k)).transpose() << "\n"
          << fd.transpose();
      // Rotational: (R+ - R-) R^T / 2h is the skew matrix of the column.
      f.restore();
      const Eigen::Matrix3d W = (Rp.e() - Rm.e()) * s.rotW[body].e().transpose() / (2 * h);
      const Eigen::Vector3d w(W(2, 1), W(0, 2), W(1, 0));
      EXPECT_LT((Jrd.col(Eigen::Index(k)) - w).norm(), 1e-7) << "body " << body << " dof " << k;
    }
  }
}

TEST_P(KinematicsOnBothBases, VelocitiesAgreeAcrossRoutes) {
  Fixture f(GetParam());
  ArticulatedSystem& s = f.sys;
  const double dt = 1e-6;
  for (size_t body = 0; body < s.nbody; ++body) {
    f.restore();
    s.setGeneralizedVelocity(s.gv);
    Mat<3, 1> pW, vPoint, vJ, vFrame, wJ;
    s.getPosition(body, kPoint, pW);
    s.getVelocity(body, kPoint, vPoint);
    SparseJacobian J, Jr;
    s.getSparseJacobian(body, ArticulatedSystem::BODY_FRAME, kPoint, J);
    s.getVelocity(J, vJ);
    EXPECT_LT((vJ.e() - vPoint.e()).norm(), 1e-12) << body;
    s.getSparseRotationalJacobian(body, Jr);
    s.getVelocity(Jr, wJ);
    EXPECT_LT((wJ.e() - s.angVelW[body].e()).norm(), 1e-12) << body;
    // In the world frame, through the general form.
    s.getVelocity(body, ArticulatedSystem::WORLD_FRAME, pW, ArticulatedSystem::WORLD_FRAME, vFrame);
    EXPECT_LT((vFrame.e() - vPoint.e()).norm(), 1e-12);
    s.getVelocity(body, ArticulatedSystem::BODY_FRAME, kPoint, ArticulatedSystem::BODY_FRAME, vFrame);
    EXPECT_LT((s.rotW[body].e() * vFrame.e() - vPoint.e()).norm(), 1e-12);
    if (body > 0) {
      const size_t a = s.parent[body];
      const Eigen::Vector3d inParent = s.rotW[a].e().transpose() * (pW.e() - s.posW[a].e());
      Mat<3, 1> q;
      q = inParent;
      s.getVelocity(body, ArticulatedSystem::PARENT_FRAME, q, ArticulatedSystem::PARENT_FRAME, vFrame);
      EXPECT_LT((s.rotW[a].e() * vFrame.e() - vPoint.e()).norm(), 1e-12);
    }
    // Against the motion itself.
    const Eigen::Vector3d fd =
        (f.pointAt(moved(s, f.gc0, f.u, dt), body, kPoint) - f.pointAt(moved(s, f.gc0, f.u, -dt), body, kPoint)) /
        (2 * dt);
    EXPECT_LT((fd - vPoint.e()).norm(), 1e-7) << body;
    Mat<3, 1> back;
    f.restore();
    s.getPositionInBodyCoordinate(body, pW, back);
    EXPECT_LT((back.e() - kPoint.e()).norm(), 1e-14);
  }
}

TEST_P(KinematicsOnBothBases, TimeDerivativesOfJacobiansMatchFiniteDifferences) {
  Fixture f(GetParam());
  ArticulatedSystem& s = f.sys;
  const double dt = 1e-6;
  for (size_t body = 0; body < s.nbody; ++body) {
    f.restore();
    SparseJacobian dJ, dJr, J, Jr;
    s.getTimeDerivativeOfSparseJacobian(body, ArticulatedSystem::BODY_FRAME, kPoint, dJ);
    s.getTimeDerivativeOfSparseRotationalJacobian(body, dJr);
    const Eigen::MatrixXd dJd = dense(dJ, s.dof), dJrd = dense(dJr, s.dof);
    Eigen::MatrixXd Jp, Jm, Jrp, Jrm;
    s.setGeneralizedCoordinate(moved(s, f.gc0, f.u, dt));
    s.getSparseJacobian(body, ArticulatedSystem::BODY_FRAME, kPoint, J);
    s.getSparseRotationalJacobian(body, Jr);
    Jp = dense(J, s.dof), Jrp = dense(Jr, s.dof);
    s.setGeneralizedCoordinate(moved(s, f.gc0, f.u, -dt));
    s.getSparseJacobian(body, ArticulatedSystem::BODY_FRAME, kPoint, J);
    s.getSparseRotationalJacobian(body, Jr);
    Jm = dense(J, s.dof), Jrm = dense(Jr, s.dof);
    const Eigen::MatrixXd fd = (Jp - Jm) / (2 * dt), fdr = (Jrp - Jrm) / (2 * dt);
    EXPECT_LT((dJd - fd).norm(), 1e-6) << "body " << body << "\n" << dJd << "\n\n" << fd;
    EXPECT_LT((dJrd - fdr).norm(), 1e-6) << "body " << body << "\n" << dJrd << "\n\n" << fdr;
  }
}

INSTANTIATE_TEST_SUITE_P(Bases, KinematicsOnBothBases, testing::Values(Joint::FIXED, Joint::FLOATING));

TEST(Kinematics, BaseBlocksPrismaticAxesAndQuaternions) {
  ArticulatedSystem floating(makeTree(Joint::FLOATING), "r");
  SparseJacobian J;
  // Fill with a long chain first: a reused Jacobian must not keep stale
  // entries in the base block.
  floating.getSparseJacobian(4, Mat<3, 1>{1, 2, 3}, J);
  floating.getSparseJacobian(0, Mat<3, 1>{1, 0, 0}, J);
  ASSERT_EQ(J.size, 6u);
  Eigen::MatrixXd base(3, 6);
  base << 1, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 1, 0, -1, 0;
  EXPECT_EQ(dense(J, 6).leftCols(6), base);

  ArticulatedSystem fixed(makeTree(Joint::FIXED), "r");
  fixed.getSparseJacobian(0, Mat<3, 1>{1, 0, 0}, J);
  EXPECT_EQ(J.size, 0u);
  fixed.getSparseRotationalJacobian(size_t(-1), J);
  EXPECT_EQ(J.size, 0u);

  // The slider (body 3) moves its child's origin along the axis by gc; the
  // rotational Jacobian has no column for it.
  VecDyn gc(fixed.gcDim);
  gc.setZero();
  gc[fixed.gcIdx[2]] = gc[fixed.gcIdx[6]] = 1.0;  // unit quaternions of the ball and the tip
  fixed.setGeneralizedCoordinate(gc);
  const Eigen::Vector3d before = fixed.posW[3].e();
  gc[5] = 0.25;
  fixed.setGeneralizedCoordinate(gc);
  EXPECT_TRUE((fixed.posW[3].e() - before).isApprox(0.25 * fixed.axisW[3].e(), 1e-14));
  fixed.getSparseRotationalJacobian(4, J);
  EXPECT_EQ(J.size, 5u);  // hinge, ball (3), wrist
  for (size_t k = 0; k < J.size; ++k) EXPECT_NE(J.idx[k], fixed.gvIdx[3]);

  // A quaternion of length 2 is normalised in gc by the next update.
  floating.gc[3] = 2.0;
  floating.gc[4] = floating.gc[5] = floating.gc[6] = 0.0;
  floating.gc[floating.gcIdx[2]] = 0.0;
  floating.gc[floating.gcIdx[2] + 3] = 2.0;
  floating.updateKinematics();
  EXPECT_EQ(floating.gc[3], 1.0);
  EXPECT_EQ(floating.gc[floating.gcIdx[2] + 3], 1.0);
}

namespace {
// Reaches the compact Jacobian of the contact path.
class ContactPathSystem : public ArticulatedSystem {
 public:
  using ArticulatedSystem::ArticulatedSystem;
  using ArticulatedSystem::getSparseJacobian_internal;
};
}  // namespace

TEST(Kinematics, TheCompactContactJacobianKeepsTheJointColumns) {
  ContactPathSystem s(makeTree(Joint::FLOATING), "r");
  VecDyn gc(s.gcDim);
  for (size_t i = 0; i < s.gcDim; ++i) gc[i] = 0.1 * double(i + 1);
  s.setGeneralizedCoordinate(gc);
  SparseJacobian full, compact;
  compact.resize(s.dof);
  const Mat<3, 1> pW{0.3, -0.2, 0.9};
  for (size_t body = 0; body < s.nbody; ++body) {
    s.getSparseJacobian(body, pW, full);
    s.getSparseJacobian_internal(body, pW, compact);
    ASSERT_EQ(compact.size, full.size);
    for (size_t k = 0; k < 6; ++k) EXPECT_EQ(compact.idx[k], k);
    // The base block is carried by column 3 alone: the lever arm itself.
    for (size_t r = 0; r < 3; ++r) EXPECT_EQ(compact.v(r, 3), pW[r] - s.posW[0][r]);
    for (size_t k = 6; k < full.size; ++k) {
      EXPECT_EQ(compact.idx[k], full.idx[k]);
      for (size_t r = 0; r < 3; ++r) EXPECT_EQ(compact.v(r, k), full.v(r, k));
    }
  }
}

TEST(Kinematics, FramesAndStateSetters) {
  Fixture f(Joint::FLOATING);
  ArticulatedSystem& s = f.sys;
  // A movable joint's frame moves with its body's origin; its position field
  // is not used.
  CoordinateFrame frame = s.getFrames()[s.getFrameIdxByName("ball_joint")];
  ASSERT_TRUE(frame.isMovableJoint);
  frame.position = {5, 5, 5};
  Mat<3, 1> v, w;
  s.getFrameVelocity(frame, v);
  EXPECT_EQ(v.e(), s.linVelW[frame.parentId].e());
  s.getFrameAngularVelocity(frame, w);
  EXPECT_EQ(w.e(), s.angVelW[frame.parentId].e());
  frame.isMovableJoint = false;
  s.getFrameVelocity(frame, v);
  Mat<3, 1> expected;
  s.getVelocity(frame.parentId, frame.position, expected);
  EXPECT_EQ(v.e(), expected.e());
  Mat<3, 1> inFrame;
  s.getPositionInFrame(2, Mat<3, 1>{0, 0, 0}, inFrame);
  Mat<3, 1> origin;
  s.getFramePosition(2, origin);
  EXPECT_EQ(inFrame.e(), origin.e());

  // Base setters on a floating base write gc.
  s.setBasePos(Mat<3, 1>{1, 2, 3});
  EXPECT_EQ(s.posW[0].e(), Eigen::Vector3d(1, 2, 3));
  const double hinge = s.gc[7];
  s.setBaseOrientation(rotation(0.3, {0, 0, 1}));
  EXPECT_EQ(s.gc[7], hinge);  // only the base quaternion is written
  // The quaternion is four numbers, and nothing after them is written.
  struct {
    Mat<4, 1> q;
    double after;
  } probe{{}, 7.0};
  s.getBaseOrientation(probe.q);
  const Mat<4, 1> q = probe.q;
  EXPECT_EQ(probe.after, 7.0);
  EXPECT_NEAR(q[0], std::cos(0.15), 1e-14);
  EXPECT_NEAR(q[3], std::sin(0.15), 1e-14);
  s.setBaseVelocity(Mat<3, 1>{0, 0, 1});
  s.setBaseAngularVelocity(Mat<3, 1>{0, 1, 0});
  EXPECT_EQ(s.gv[2], 1.0);
  EXPECT_EQ(s.angVelW[0].e(), Eigen::Vector3d(0, 1, 0));
  VecDyn gcOut, gvOut;
  s.getState(gcOut, gvOut);
  EXPECT_EQ(gcOut.e(), s.gc.e());
  EXPECT_EQ(gvOut.e(), s.gv.e());

  ArticulatedSystem fixed(makeTree(Joint::FIXED), "r");
  // A fixed base moves by its setters alone.
  fixed.setBasePos(Mat<3, 1>{0, 0, 2});
  EXPECT_EQ(fixed.posW[1].e(), Eigen::Vector3d(0.3, 0.1, 2.2));
}
