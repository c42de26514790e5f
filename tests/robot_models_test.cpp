// The robots in models/ load with the bodies, joints, frames, geoms and mass
// that their files describe (counted by hand); their dynamics are checked in
// tests/mujoco.
#include <gtest/gtest.h>

#include "test_helpers.hpp"
#include "vorsim/object/ArticulatedSystem/ArticulatedSystem.hpp"

using namespace vorsim;

namespace {
const std::string kModels = std::string(VORSIM_TEST_DATA_DIR) + "/../../models/";
}  // namespace

TEST(RobotModels, LoadAsTheFileDescribes) {
  struct Expected {
    std::string file;
    size_t bodies, dof, gcDim, geoms, frames;  // frames: the root's and one per joint of the file
    double mass;                               // the sum of the file's link masses
    std::vector<std::string> someFrames;
  };
  const Expected models[] = {
      {"anymal_b/anymal.urdf", 13, 18, 19, 40, 22, 30.421396462, {"LF_HAA", "RH_KFE", "LF_ADAPTER_TO_FOOT"}},
      {"franka_panda/panda.urdf", 10, 15, 16, 11, 13, 17.96,
       {"panda_joint1", "panda_finger_joint2", "panda_grasptarget_hand"}},
      {"humanoid_mjcf_port/humanoid.urdf", 22, 27, 28, 19, 34, 40.84402, {"abdomen_z", "left_elbow", "jointfix_10_33"}},
      {"minitaur/minitaur.urdf", 17, 22, 23, 30, 27, 6.0,
       {"motor_front_rightR_joint", "knee_back_leftL_link", "chassis_left_center"}},
  };
  for (const Expected& e : models) {
    SCOPED_TRACE(e.file);
    StdoutCapture quiet;  // the panda's mimic joint is reported
    ArticulatedSystem s(kModels + e.file);
    quiet.text();
    EXPECT_EQ(s.nbody, e.bodies);
    EXPECT_EQ(s.dof, e.dof);
    EXPECT_EQ(s.gcDim, e.gcDim);
    EXPECT_EQ(s.getRootJointType(), Joint::FLOATING);
    EXPECT_EQ(s.getCollisionBodies().size(), e.geoms);
    EXPECT_EQ(s.getFrames().size(), e.frames);
    EXPECT_NEAR(s.getTotalMass(), e.mass, 1e-9);
    for (const std::string& name : e.someFrames) EXPECT_NE(s.getFrameIdxByName(name), size_t(-1)) << name;
    // Every panda geom is a triangle mesh read from package://meshes.
    for (const auto& d : s.getCollisionBodies())
      EXPECT_TRUE(e.file.find("panda") == std::string::npos || dGeomGetClass(d.colObj) == dTriMeshClass);
  }
}
