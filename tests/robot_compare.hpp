// Comparisons of two built robots, shared by the MJCF and export tests.
#ifndef VORSIM_TESTS_ROBOT_COMPARE_HPP
#define VORSIM_TESTS_ROBOT_COMPARE_HPP

#include <gtest/gtest.h>

#include <string>

#include "vorsim/object/ArticulatedSystem/ArticulatedSystem.hpp"

namespace vorsim_test {

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
  EXPECT_EQ(a.bodyNames, b.bodyNames);
  EXPECT_EQ(a.movableJointNames, b.movableJointNames);
  EXPECT_EQ(a.jointNameToGv, b.jointNameToGv);
  EXPECT_EQ(a.parent, b.parent);
  EXPECT_EQ(a.children, b.children);
  EXPECT_EQ(a.leaves, b.leaves);
  EXPECT_EQ(a.depth, b.depth);
  EXPECT_EQ(a.jointType, b.jointType);
  EXPECT_EQ(a.gcIdx, b.gcIdx);
  EXPECT_EQ(a.gvIdx, b.gvIdx);
  EXPECT_EQ(a.gcChain, b.gcChain);
  EXPECT_EQ(a.gvChain, b.gvChain);
  EXPECT_EQ(a.dofParent, b.dofParent);
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
    EXPECT_EQ(a.jointDampingGv[g], b.jointDampingGv[g]) << at;
    EXPECT_EQ(a.jointFrictionGv[g], b.jointFrictionGv[g]) << at;
    EXPECT_EQ(a.rotorInertiaGv[g], b.rotorInertiaGv[g]) << at;
    EXPECT_EQ(a.tauUpper[g], b.tauUpper[g]) << at;
    EXPECT_EQ(a.tauLower[g], b.tauLower[g]) << at;
  }
  ASSERT_EQ(a.springs.size(), b.springs.size());
  for (size_t k = 0; k < a.springs.size(); ++k) {
    EXPECT_EQ(a.springs[k].springBody, b.springs[k].springBody);
    EXPECT_EQ(a.springs[k].springStiffness, b.springs[k].springStiffness);
    expectNear(a.springs[k].springRest, b.springs[k].springRest, 0.0, "spring rest");
  }
  ASSERT_EQ(a.frames.size(), b.frames.size());
  for (size_t f = 0; f < a.frames.size(); ++f) {
    const vorsim::CoordinateFrame &fa = a.frames[f], &fb = b.frames[f];
    EXPECT_EQ(fa.name, fb.name) << "frame " << f;
    EXPECT_EQ(fa.bodyName, fb.bodyName) << "frame " << f;
    EXPECT_EQ(fa.parentName, fb.parentName) << "frame " << f;
    EXPECT_EQ(fa.parentId, fb.parentId) << "frame " << f;
    EXPECT_EQ(fa.isMovableJoint, fb.isMovableJoint) << "frame " << f;
    EXPECT_EQ(fa.jointType, fb.jointType) << "frame " << f;
    expectNear(fa.position, fb.position, tol, "frame " + fa.name);
    expectNear(fa.orientation, fb.orientation, tol, "frame " + fa.name);
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
