// Robots built in code, states, dense Jacobians and comparisons of two built
// robots, shared by the robot tests.
#ifndef VORSIM_TESTS_ROBOT_COMPARE_HPP
#define VORSIM_TESTS_ROBOT_COMPARE_HPP

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <random>
#include <string>
#include <tuple>

#include "test_helpers.hpp"
#include "vorsim/object/ArticulatedSystem/ArticulatedSystem.hpp"

namespace vorsim_test {

using vorsim::Child;
using vorsim::Joint;
using vorsim::Mat;

inline Mat<3, 3> rotation(double angle, const Eigen::Vector3d& axis) {
  Mat<3, 3> m;
  m = Eigen::AngleAxisd(angle, axis.normalized()).toRotationMatrix();
  return m;
}

inline Mat<3, 1> unit(Mat<3, 1> v) {
  v /= v.norm();
  return v;
}

// A link on the joint "<name>_joint", with its mass at com and a diagonal
// inertia (none on a massless link).
inline Child link(const std::string& name, Joint::Type type, double mass = 0.0, const Mat<3, 1>& com = {0, 0, 0},
                  const Mat<3, 1>& diagonal = {0.01, 0.01, 0.01}) {
  Child c;
  c.bodyName = name;
  c.name = name + "_joint";
  c.type = type;
  c.velocityLimit = 100.0;
  c.mass = mass;
  c.com = com;
  if (mass > 0.0) c.setInertia(diagonal);
  return c;
}

// A root link: its joint has no name.
inline Child root(const std::string& name, Joint::Type type, double mass = 0.0, const Mat<3, 1>& com = {0, 0, 0},
                  const Mat<3, 1>& diagonal = {0.01, 0.01, 0.01}) {
  Child c = link(name, type, mass, com, diagonal);
  c.name.clear();
  return c;
}

// A link placed at pos, rot on its parent, turning about axis, with a full,
// non-diagonal inertia, so that no off-diagonal term hides.
inline Child body(const std::string& name, Joint::Type type, Mat<3, 1> pos, Mat<3, 3> rot, Mat<3, 1> axis, double mass,
                  Mat<3, 1> com) {
  Child c = link(name, type, mass, com);
  c.pos = pos;
  c.rot = rot;
  c.axis = axis;
  c.setInertiaMjcfOrder({0.02 * mass, 0.03 * mass, 0.025 * mass, 0.004 * mass, -0.003 * mass, 0.002 * mass});
  c.velocityLimit = 1e6;
  return c;
}

// base -> hinge (revolute) -> ball (spherical) -> slider (prismatic) -> wrist
// (revolute) + tool (fixed); base -> side (revolute) -> tip (spherical) +
// mount (fixed, massless). Every joint axis and frame tilted. Bodies: base 0,
// hinge 1, ball 2, slider 3, wrist 4, side 5, tip 6.
inline Child makeTree(Joint::Type rootType) {
  Child base = body("base", rootType, {0, 0, 0}, Mat<3, 3>::getIdentity(), {0, 0, 1}, 3.0, {0.02, -0.01, 0.05});
  base.name.clear();
  Child hinge = body("hinge", Joint::REVOLUTE, {0.3, 0.1, 0.2}, rotation(0.4, {1, 0, 1}), unit({1, 2, -0.5}), 1.2,
                     {0.05, -0.02, 0.1});
  Child ball =
      body("ball", Joint::SPHERICAL, {0, 0.4, 0.1}, rotation(-0.7, {0, 1, 1}), {0, 0, 1}, 0.8, {-0.03, 0.06, 0.02});
  Child slider = body("slider", Joint::PRISMATIC, {0.2, 0, 0.3}, rotation(0.2, {1, 1, 0}), unit({0, 0.6, 0.8}), 0.5,
                      {0.01, 0.02, -0.04});
  Child wrist =
      body("wrist", Joint::REVOLUTE, {0.1, -0.1, 0.2}, rotation(1.0, {0, 0, 1}), {1, 0, 0}, 0.3, {0.0, 0.05, 0.01});
  Child side = body("side", Joint::REVOLUTE, {-0.3, 0, 0}, rotation(0.5, {0, 1, 0}), {0, 1, 0}, 0.9, {-0.1, 0.0, 0.03});
  Child tip =
      body("tip", Joint::SPHERICAL, {-0.2, 0.1, 0}, rotation(0.3, {1, 0, 0}), {0, 0, 1}, 0.4, {0.02, 0.02, -0.05});
  // Fixed links live on as frames away from their movable parent's origin.
  wrist.fixedBodies.push_back(
      body("tool", Joint::FIXED, {0.05, 0.1, -0.15}, rotation(0.6, {1, 1, 1}), {0, 0, 1}, 0.2, {0.01, 0.0, 0.02}));
  tip.fixedBodies.push_back(link("mount", Joint::FIXED));
  tip.fixedBodies.back().pos = {0.0, -0.2, 0.1};
  slider.child.push_back(wrist);
  ball.child.push_back(slider);
  hinge.child.push_back(ball);
  side.child.push_back(tip);
  base.child = {hinge, side};
  return base;
}

// Uniform random gc in [-1, 1] (the setter normalises quaternions), gv in
// [-speed, speed].
inline void randomState(vorsim::ArticulatedSystem& s, unsigned seed, double speed = 1.0) {
  std::mt19937 rng(seed);
  std::uniform_real_distribution<double> d(-1.0, 1.0);
  vorsim::VecDyn gc(s.gcDim), gv(s.dof);
  for (size_t i = 0; i < s.gcDim; ++i) gc[i] = d(rng);
  for (size_t i = 0; i < s.dof; ++i) gv[i] = speed * d(rng);
  s.setGeneralizedCoordinate(gc);
  s.setGeneralizedVelocity(gv);
}

// The configuration reached from gc by moving with velocity u for time t: the
// base's angular velocity is in the world frame, a spherical joint's in its
// body frame.
inline vorsim::VecDyn moved(const vorsim::ArticulatedSystem& s, const vorsim::VecDyn& gc, const Eigen::VectorXd& u,
                            double t) {
  auto turn = [t](const Eigen::Vector3d& w) {
    return w.norm() == 0.0 ? Eigen::Quaterniond::Identity()
                           : Eigen::Quaterniond(Eigen::AngleAxisd(w.norm() * t, w.normalized()));
  };
  auto set = [](vorsim::VecDyn& q, size_t i, const Eigen::Quaterniond& r) {
    q[i] = r.w(), q[i + 1] = r.x(), q[i + 2] = r.y(), q[i + 3] = r.z();
  };
  auto at = [&gc](size_t i) { return Eigen::Quaterniond(gc[i], gc[i + 1], gc[i + 2], gc[i + 3]); };
  vorsim::VecDyn out(gc);
  for (size_t b = 0; b < s.nbody; ++b) {
    const size_t g = s.gvIdx[b], c = s.gcIdx[b];
    switch (s.jointType[b]) {
      case Joint::FLOATING:
        for (size_t k = 0; k < 3; ++k) out[k] += t * u[Eigen::Index(k)];
        set(out, 3, turn(u.segment<3>(3)) * at(3));
        break;
      case Joint::SPHERICAL:
        set(out, c, at(c) * turn(u.segment<3>(Eigen::Index(g))));
        break;
      case Joint::REVOLUTE:
      case Joint::PRISMATIC:
        out[c] += t * u[Eigen::Index(g)];
        break;
      default:
        break;
    }
  }
  return out;
}

// PD control toward the configuration `target` at zero velocity, with the
// same gains on every joint.
inline void setPd(vorsim::ArticulatedSystem& s, double kp, double kd, const vorsim::VecDyn& target) {
  vorsim::VecDyn p(s.dof), d(s.dof), v(s.dof);
  for (size_t i = 0; i < s.dof; ++i) p[i] = kp, d[i] = kd, v[i] = 0.0;
  s.setControlMode(vorsim::ArticulatedSystem::PD_PLUS_FEEDFORWARD_TORQUE);
  s.setPdGains(p, d);
  s.setPdTarget(target, v);
}

// A sparse 3 x dof Jacobian as a dense matrix.
inline Eigen::MatrixXd dense(const vorsim::SparseJacobian& j, size_t dof) {
  Eigen::MatrixXd m = Eigen::MatrixXd::Zero(3, Eigen::Index(dof));
  for (size_t k = 0; k < j.size; ++k)
    for (size_t r = 0; r < 3; ++r) m(Eigen::Index(r), Eigen::Index(j.idx[k])) += j.v(r, k);
  return m;
}

// J^T f for the point Jacobian of a world point on a body.
inline Eigen::VectorXd generalizedForce(const vorsim::ArticulatedSystem& s, size_t body, const Mat<3, 1>& point,
                                        const Eigen::Vector3d& f) {
  vorsim::SparseJacobian J;
  s.getSparseJacobian(body, point, J);
  return dense(J, s.dof).transpose() * f;
}

// A T built from args, and what building it printed.
template <typename T, typename... Args>
std::pair<std::unique_ptr<T>, std::string> built(Args&&... args) {
  StdoutCapture out;
  auto made = std::make_unique<T>(std::forward<Args>(args)...);
  return {std::move(made), out.text()};
}

// The robot's joint-space mass matrix at its present configuration, as an
// Eigen matrix (a copy: the next call overwrites the robot's own).
inline Eigen::MatrixXd massMatrixOf(vorsim::ArticulatedSystem& s) { return s.getMassMatrix().e(); }

template <size_t n, size_t m>
void expectNear(const vorsim::Mat<n, m>& a, const vorsim::Mat<n, m>& b, double tol, const std::string& what) {
  for (size_t k = 0; k < n * m; ++k) EXPECT_NEAR(a.v[k], b.v[k], tol) << what << " element " << k;
}

// Every table of the build, frames and geometry: integers and names exactly,
// numbers to tol.
inline void expectSameTables(const vorsim::ArticulatedSystem& a, const vorsim::ArticulatedSystem& b, double tol) {
  ASSERT_EQ(a.nbody, b.nbody);
  ASSERT_EQ(a.dof, b.dof);
  ASSERT_EQ(a.gcDim, b.gcDim);
  EXPECT_EQ(std::tie(a.bodyNames, a.movableJointNames, a.jointNameToGv),
            std::tie(b.bodyNames, b.movableJointNames, b.jointNameToGv));
  EXPECT_EQ(std::tie(a.parent, a.children, a.leaves, a.depth, a.jointType),
            std::tie(b.parent, b.children, b.leaves, b.depth, b.jointType));
  EXPECT_EQ(std::tie(a.gcIdx, a.gvIdx, a.gcChain, a.gvChain, a.dofParent),
            std::tie(b.gcIdx, b.gvIdx, b.gcChain, b.gvChain, b.dofParent));
  for (size_t i = 0; i < a.nbody; ++i) {
    const std::string at = " of body " + std::to_string(i);
    EXPECT_NEAR(a.massOf[i], b.massOf[i], tol) << at;
    EXPECT_NEAR(a.compositeMass[i], b.compositeMass[i], tol) << at;
    expectNear(a.comB[i], b.comB[i], tol, "comB" + at);
    expectNear(a.inertiaB[i], b.inertiaB[i], tol, "inertiaB" + at);
    // A spherical joint has no axis: the table keeps whatever the description had.
    if (a.jointType[i] != vorsim::Joint::SPHERICAL)
      expectNear(a.jointAxisB[i], b.jointAxisB[i], tol, "jointAxisB" + at);
    if (i > 0 || a.jointType[0] == vorsim::Joint::FIXED)
      expectNear(a.jointPosP[i], b.jointPosP[i], tol, "jointPosP" + at);
    if (i > 0) expectNear(a.jointRotP[i], b.jointRotP[i], tol, "jointRotP" + at);
    EXPECT_EQ(a.velocityLimitOf[i], b.velocityLimitOf[i]) << at;
  }
  std::vector<bool> cone(a.dof, false);  // the gv entries of spherical joints: only the cone angle counts
  for (size_t i = 1; i < a.nbody; ++i)
    if (a.jointType[i] == vorsim::Joint::SPHERICAL) cone[a.gvIdx[i]] = true;
  for (size_t g = 0; g < a.dof; ++g) {
    const std::string at = " at gv " + std::to_string(g);
    EXPECT_NEAR(a.jointLimits[g][0], b.jointLimits[g][0], tol) << "jointLimits" << at;
    if (!cone[g]) {
      EXPECT_NEAR(a.jointLimits[g][1], b.jointLimits[g][1], tol) << "jointLimits" << at;
    }
  }
  EXPECT_EQ(a.jointDampingGv.e(), b.jointDampingGv.e());
  EXPECT_EQ(a.jointFrictionGv.e(), b.jointFrictionGv.e());
  EXPECT_EQ(a.rotorInertiaGv.e(), b.rotorInertiaGv.e());
  EXPECT_EQ(a.tauUpper.e(), b.tauUpper.e());
  EXPECT_EQ(a.tauLower.e(), b.tauLower.e());
  ASSERT_EQ(a.springs.size(), b.springs.size());
  for (size_t k = 0; k < a.springs.size(); ++k) {
    EXPECT_EQ(a.springs[k].springBody, b.springs[k].springBody);
    EXPECT_EQ(a.springs[k].springStiffness, b.springs[k].springStiffness);
    expectNear(a.springs[k].springRest, b.springs[k].springRest, 0.0, "spring rest");
  }
  ASSERT_EQ(a.frames.size(), b.frames.size());
  for (size_t f = 0; f < a.frames.size(); ++f) {
    const vorsim::CoordinateFrame &fa = a.frames[f], &fb = b.frames[f];
    SCOPED_TRACE("frame " + fa.name);
    EXPECT_EQ(fa.name + "|" + fa.bodyName + "|" + fa.parentName, fb.name + "|" + fb.bodyName + "|" + fb.parentName);
    EXPECT_EQ(fa.parentId, fb.parentId);
    EXPECT_EQ(fa.isMovableJoint, fb.isMovableJoint);
    EXPECT_EQ(fa.jointType, fb.jointType);
    expectNear(fa.position, fb.position, tol, "position");
    expectNear(fa.orientation, fb.orientation, tol, "orientation");
  }
  ASSERT_EQ(a.collisionDefinitions.size(), b.collisionDefinitions.size());
  for (size_t k = 0; k < a.collisionDefinitions.size(); ++k) {
    EXPECT_EQ(a.collisionDefinitions[k].localIdx, b.collisionDefinitions[k].localIdx);
    expectNear(a.collisionDefinitions[k].posOffset, b.collisionDefinitions[k].posOffset, tol, "geom offset");
    expectNear(a.collisionDefinitions[k].rotOffset, b.collisionDefinitions[k].rotOffset, tol, "geom rotation");
    EXPECT_EQ(a.visColObj[k].shape, b.visColObj[k].shape);
    expectNear(a.visColObj[k].shapeParam, b.visColObj[k].shapeParam, 0.0, "geom size");
    EXPECT_EQ(a.visColObj[k].material, b.visColObj[k].material);
  }
  ASSERT_EQ(a.visObj.size(), b.visObj.size());
  for (size_t k = 0; k < a.visObj.size(); ++k) {
    EXPECT_EQ(a.visObj[k].localIdx, b.visObj[k].localIdx);
    EXPECT_EQ(a.visObj[k].shape, b.visObj[k].shape);
    expectNear(a.visObj[k].color, b.visObj[k].color, 0.0, "colour");
    expectNear(a.visObj[k].offset, b.visObj[k].offset, tol, "visual offset");
  }
}

}  // namespace vorsim_test

#endif  // VORSIM_TESTS_ROBOT_COMPARE_HPP
