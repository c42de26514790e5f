// Kinematics of a built system against finite differences along the motion,
// and consistency between the velocity tables, the Jacobians and the frame
// queries.
#include <gtest/gtest.h>

#include "robot_compare.hpp"

using namespace vorsim;
using namespace vorsim_test;

class KinematicsOnBothBases : public testing::TestWithParam<Joint::Type> {};
INSTANTIATE_TEST_SUITE_P(Bases, KinematicsOnBothBases, testing::Values(Joint::FIXED, Joint::FLOATING));

TEST_P(KinematicsOnBothBases, JacobiansVelocitiesAndTheirDerivativesMatchFiniteDifferences) {
  ArticulatedSystem s(makeTree(GetParam()), "r");
  randomState(s, 7);
  const VecDyn gc0 = s.gc;
  const Eigen::VectorXd u = s.gv.e();
  const Mat<3, 1> local{0.1, 0.2, -0.3};
  const double h = 1e-6;
  // The point, the body rotation and both Jacobians (dense) at gc0 + t v.
  struct At {
    Eigen::Vector3d p;
    Eigen::Matrix3d R;
    Eigen::MatrixXd J, Jr;
  };
  auto at = [&](size_t body, const Eigen::VectorXd& v, double t) {
    s.setGeneralizedCoordinate(moved(s, gc0, v, t));
    SparseJacobian J, Jr;
    s.getSparseJacobian(body, ArticulatedSystem::BODY_FRAME, local, J);
    s.getSparseRotationalJacobian(body, Jr);
    Mat<3, 1> p;
    s.getPosition(body, local, p);
    return At{p.e(), s.rotW[body].e(), dense(J, s.dof), dense(Jr, s.dof)};
  };
  for (size_t body = 0; body < s.nbody; ++body) {
    SCOPED_TRACE("body " + std::to_string(body));
    const At now = at(body, u, 0.0);
    s.setGeneralizedVelocity(s.gv);  // refreshes the velocity tables at gc0
    Mat<3, 1> pW, vPoint, v;
    s.getPosition(body, local, pW);
    s.getVelocity(body, local, vPoint);
    SparseJacobian J, dJ, dJr;
    s.getSparseJacobian(body, pW, J);
    EXPECT_EQ(J.size, s.gvChain[body]);
    for (size_t k = 1; k < J.size; ++k) EXPECT_LT(J.idx[k - 1], J.idx[k]);
    EXPECT_TRUE(dense(J, s.dof).isApprox(now.J, 1e-14));
    s.getTimeDerivativeOfSparseJacobian(body, ArticulatedSystem::BODY_FRAME, local, dJ);
    s.getTimeDerivativeOfSparseRotationalJacobian(body, dJr);
    const Eigen::MatrixXd dJd = dense(dJ, s.dof), dJrd = dense(dJr, s.dof);

    // Column k: the motion of the point and the turn of the body along dof k.
    for (size_t k = 0; k < s.dof; ++k) {
      const Eigen::VectorXd e = Eigen::VectorXd::Unit(Eigen::Index(s.dof), Eigen::Index(k));
      const At plus = at(body, e, h), minus = at(body, e, -h);
      const Eigen::Vector3d fd = (plus.p - minus.p) / (2 * h);
      const Eigen::Vector3d column = now.J.col(Eigen::Index(k));
      EXPECT_TRUE(column.isApprox(fd, 1e-6) || (column - fd).norm() < 1e-8) << k << ": " << column.transpose();
      // (R+ - R-) R^T / 2h is the skew matrix of the rotational column.
      const Eigen::Matrix3d W = (plus.R - minus.R) * now.R.transpose() / (2 * h);
      EXPECT_LT((now.Jr.col(Eigen::Index(k)) - Eigen::Vector3d(W(2, 1), W(0, 2), W(1, 0))).norm(), 1e-7) << k;
    }
    // Along the motion itself: velocities and the Jacobians' derivatives.
    const At plus = at(body, u, h), minus = at(body, u, -h);
    s.setGeneralizedCoordinate(gc0);
    EXPECT_LT(((plus.p - minus.p) / (2 * h) - vPoint.e()).norm(), 1e-7);
    EXPECT_LT((dJd - (plus.J - minus.J) / (2 * h)).norm(), 1e-6) << dJd;
    EXPECT_LT((dJrd - (plus.Jr - minus.Jr) / (2 * h)).norm(), 1e-6) << dJrd;
    s.getVelocity(J, v);
    EXPECT_LT((v.e() - vPoint.e()).norm(), 1e-12);
    EXPECT_LT((now.Jr * u - s.angVelW[body].e()).norm(), 1e-12);
    // The same velocity through the frame-taking queries.
    s.getVelocity(body, ArticulatedSystem::WORLD_FRAME, pW, ArticulatedSystem::WORLD_FRAME, v);
    EXPECT_LT((v.e() - vPoint.e()).norm(), 1e-12);
    s.getVelocity(body, ArticulatedSystem::BODY_FRAME, local, ArticulatedSystem::BODY_FRAME, v);
    EXPECT_LT((s.rotW[body].e() * v.e() - vPoint.e()).norm(), 1e-12);
    if (body > 0) {
      const size_t a = s.parent[body];
      Mat<3, 1> inParent;
      inParent = s.rotW[a].e().transpose() * (pW.e() - s.posW[a].e());
      s.getVelocity(body, ArticulatedSystem::PARENT_FRAME, inParent, ArticulatedSystem::PARENT_FRAME, v);
      EXPECT_LT((s.rotW[a].e() * v.e() - vPoint.e()).norm(), 1e-12);
    }
    s.getPositionInBodyCoordinate(body, pW, v);
    EXPECT_LT((v.e() - local.e()).norm(), 1e-14);
  }
}

TEST(Kinematics, BaseBlocksQuaternionsFramesAndBaseSetters) {
  ArticulatedSystem s(makeTree(Joint::FLOATING), "r"), fixed(makeTree(Joint::FIXED), "r");
  SparseJacobian J;
  // Fill with a long chain first: a reused Jacobian must not keep stale
  // entries in the base block.
  s.getSparseJacobian(4, Mat<3, 1>{1, 2, 3}, J);
  s.getSparseJacobian(0, Mat<3, 1>{1, 0, 0}, J);
  ASSERT_EQ(J.size, 6u);
  Eigen::MatrixXd base(3, 6);
  base << 1, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 1, 0, -1, 0;
  EXPECT_EQ(dense(J, 6), base);
  fixed.getSparseJacobian(0, Mat<3, 1>{1, 0, 0}, J);
  EXPECT_EQ(J.size, 0u);
  fixed.getSparseRotationalJacobian(size_t(-1), J);
  EXPECT_EQ(J.size, 0u);
  // A quaternion of length 2 is normalised in gc by the next update.
  s.gc[3] = 2.0;
  s.gc[s.gcIdx[2]] = 0.0;
  s.gc[s.gcIdx[2] + 3] = 2.0;
  s.updateKinematics();
  EXPECT_EQ(s.gc[3], 1.0);
  EXPECT_EQ(s.gc[s.gcIdx[2] + 3], 1.0);

  randomState(s, 7);
  // A movable joint's frame moves with its body's origin; its position field
  // is not used.
  CoordinateFrame frame = s.getFrames()[s.getFrameIdxByName("ball_joint")];
  ASSERT_TRUE(frame.isMovableJoint);
  frame.position = {5, 5, 5};
  Mat<3, 1> v, w, expected;
  s.getFrameVelocity(frame, v);
  EXPECT_EQ(v.e(), s.linVelW[frame.parentId].e());
  s.getFrameAngularVelocity(frame, w);
  EXPECT_EQ(w.e(), s.angVelW[frame.parentId].e());
  frame.isMovableJoint = false;
  s.getFrameVelocity(frame, v);
  s.getVelocity(frame.parentId, frame.position, expected);
  EXPECT_EQ(v.e(), expected.e());

  // Base setters on a floating base write only the base's part of gc.
  s.setBasePos(Mat<3, 1>{1, 2, 3});
  EXPECT_EQ(s.posW[0].e(), Eigen::Vector3d(1, 2, 3));
  const double hinge = s.gc[7];
  s.setBaseOrientation(rotation(0.3, {0, 0, 1}));
  EXPECT_EQ(s.gc[7], hinge);
  // The quaternion is four numbers, and nothing after them is written.
  struct {
    Mat<4, 1> q;
    double after;
  } probe{{}, 7.0};
  s.getBaseOrientation(probe.q);
  EXPECT_EQ(probe.after, 7.0);
  EXPECT_NEAR(probe.q[0], std::cos(0.15), 1e-14);
  EXPECT_NEAR(probe.q[3], std::sin(0.15), 1e-14);
  s.setBaseVelocity(Mat<3, 1>{0, 0, 1});
  s.setBaseAngularVelocity(Mat<3, 1>{0, 1, 0});
  EXPECT_EQ(s.gv[2], 1.0);
  EXPECT_EQ(s.angVelW[0].e(), Eigen::Vector3d(0, 1, 0));
  // A fixed base moves by its setters alone.
  fixed.setBasePos(Mat<3, 1>{0, 0, 2});
  EXPECT_EQ(fixed.posW[1].e(), Eigen::Vector3d(0.3, 0.1, 2.2));
}

// Joints about a coordinate axis, with and without a frame of their own, turn
// their body exactly as the general rotation about the axis does, in all four
// quadrants and for either sign of the axis.
TEST(Kinematics, CoordinateAxisJointsTurnAsTheGeneralRotation) {
  const Mat<3, 3> identity = Mat<3, 3>::getIdentity();
  const Mat<3, 3> tilted = rotation(0.7, {1, -2, 0.5});
  Child base = root("base", Joint::FIXED, 1.0);
  Child* parent = &base;
  const std::vector<std::tuple<Mat<3, 1>, Mat<3, 3>>> joints = {
      {{1, 0, 0}, identity}, {{0, 1, 0}, tilted}, {{0, 0, 1}, identity}, {{0, 0, -1}, tilted},
      {{-1, 0, 0}, tilted},  {{0, -1, 0}, identity}, {unit({1, 1, 0}), identity}};
  for (size_t k = 0; k < joints.size(); ++k) {
    parent->child.push_back(body("l" + std::to_string(k), Joint::REVOLUTE, {0.1, 0.2 * double(k), -0.1},
                                 std::get<1>(joints[k]), std::get<0>(joints[k]), 1.0, {0.01, 0.0, 0.02}));
    parent = &parent->child.back();
  }
  ArticulatedSystem s(base, "r");
  for (double q : {0.3, 2.0, -2.5, -0.4}) {
    SCOPED_TRACE("angle " + std::to_string(q));
    vorsim::VecDyn gc(s.gcDim);
    for (size_t i = 0; i < s.gcDim; ++i) gc[i] = q * (1.0 + 0.1 * double(i));
    s.setGeneralizedCoordinate(gc);
    Eigen::Matrix3d R = Eigen::Matrix3d::Identity();
    Eigen::Vector3d p = Eigen::Vector3d::Zero();
    for (size_t k = 0; k < joints.size(); ++k) {
      const Eigen::Vector3d axis = std::get<0>(joints[k]).e();
      p += R * Eigen::Vector3d(0.1, 0.2 * double(k), -0.1);
      R = R * std::get<1>(joints[k]).e();
      EXPECT_TRUE(s.axisW[k + 1].e().isApprox(R * axis, 1e-14)) << "joint " << k;
      R = R * Eigen::AngleAxisd(gc[k], axis).toRotationMatrix();
      EXPECT_TRUE(s.rotW[k + 1].e().isApprox(R, 1e-14)) << "joint " << k;
      EXPECT_TRUE(s.posW[k + 1].e().isApprox(p, 1e-14)) << "joint " << k;
    }
  }
}
