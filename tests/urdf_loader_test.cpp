// The URDF reader: every element and addition it knows, what reaches the built
// system, and a located fatal message for each kind of bad input.
#include <gtest/gtest.h>

#include <cfloat>

#include "robot_compare.hpp"
#include "vorsim/object/ArticulatedSystem/ArticulatedSystem.hpp"
#include "vorsim/sensors/DepthCamera.hpp"
#include "vorsim/sensors/InertialMeasurementUnit.hpp"
#include "vorsim/sensors/RGBSensor.hpp"
#include "vorsim/sensors/SpinningLidar.hpp"

using namespace vorsim;

namespace {

const std::string kUrdfDir = std::string(VORSIM_TEST_DATA_DIR) + "/urdf/";

const char* kRobot = R"(<?xml version="1.0"?>
<robot name="test">
  <material name="red"><color rgba="255 0 0 255"/></material>
  <link name="base">
    <inertial>
      <origin xyz="0 0 0.1" rpy="0 0 0.5"/>
      <mass value="2"/>
      <inertia ixx="0.1" iyy="0.2" izz="0.3" ixy="0.01"/>
    </inertial>
    <visual><geometry><box size="0.1 0.2 0.3"/></geometry><material name="red"/></visual>
    <visual><geometry><sphere radius="0.1"/></geometry><material name="white"><color rgba="1 1 1 1"/></material></visual>
    <visual><geometry><sphere radius="0.1"/></geometry><material name="nowhere"/></visual>
    <collision>
      <origin xyz="0 0 0.2" rpy="0 1.5707963267948966 0"/>
      <geometry><capsule radius="0.05" length="0.3"/></geometry>
      <material name="red"><contact name="rubber"/></material>
    </collision>
    <sensor type="imu" name="imu" update_rate="400">
      <origin xyz="0 0 0.05"/>
      <limit acc_limit="100" ang_vel_limit="20"/>
    </sensor>
    <gazebo/>
  </link>
  <joint name="ball" type="spherical">
    <parent link="base"/><child link="upper"/>
    <origin xyz="0 0 0.5" quat="2 0 0 0"/>
    <limit lower="0.8" effort="30"/>
    <dynamics damping="0.1" rotor_inertia="0.01" stiffness="5" spring_mount="1 0 0 0"/>
  </joint>
  <link name="upper">
    <inertial><mass value="1"/><inertia ixx="0.01" iyy="0.01" izz="0.01"/></inertial>
    <sensor type="rgb" name="eye" update_rate="60">
      <origin xyz="0.1 0 0"/>
      <camera horizontal_fov="1.0"><image width="8" height="6"/><clip near="0.01" far="20"/>
        <noise type="Uniform" mean="0.5" stddev="0.1"/></camera>
    </sensor>
    <collision><geometry><cylinder radius="0.04" length="0.4"/></geometry></collision>
  </link>
  <joint name="knee" type="continuous">
    <parent link="upper"/><child link="lower"/>
    <origin xyz="0 0 -0.4"/>
    <axis xyz="0 2 0"/>
    <limit effort="10" velocity="3"/>
    <dynamics friction="0.2" stiffness="2" spring_mount="0.3"/>
  </joint>
  <link name="lower">
    <inertial><mass value="0.5"/><inertia ixx="0.01" iyy="0.01" izz="0.01"/></inertial>
  </link>
  <joint name="slide" type="prismatic">
    <parent link="base"/><child link="rail"/>
    <axis xyz="1 0 0"/>
    <limit lower="-0.1" upper="0.2"/>
  </joint>
  <link name="rail">
    <inertial><mass value="0.25"/><inertia ixx="0.01" iyy="0.01" izz="0.01"/></inertial>
  </link>
  <joint name="tool_mount" type="fixed">
    <parent link="lower"/><child link="tool"/>
    <origin xyz="0 0 -0.2"/>
  </joint>
  <link name="tool">
    <inertial><mass value="0.5"/><inertia ixx="0.002" iyy="0.002" izz="0.002"/></inertial>
  </link>
  <constraints nominal_config="0 0 0 1 0 0 0 1 0 0 0 0.5 0">
    <pin body1="tool" body2="rail" anchor="0 0 0"/>
  </constraints>
  <transmission/>
</robot>)";

// A URDF with only the given body between the robot tags.
std::string robot(const std::string& body) { return "<robot name=\"r\">\n" + body + "\n</robot>"; }

const std::string kTwoLinks = R"(<link name="a"><inertial><mass value="1"/></inertial></link>
<link name="b"><inertial><mass value="1"/></inertial></link>)";

Eigen::Matrix3d E(const Mat<3, 3>& m) { return m.e(); }
Eigen::Vector3d E(const Mat<3, 1>& m) { return m.e(); }

}  // namespace

TEST(UrdfLoader, ReadsEveryElementIntoTheSystem) {
  const auto [owner, printed] = vorsim_test::built<ArticulatedSystem>(kRobot, "res");
  ArticulatedSystem& s = *owner;
  // base (floating), upper (ball), lower (knee, with the tool merged), rail.
  ASSERT_EQ(s.nbody, 4u);
  EXPECT_EQ(s.bodyNames, (std::vector<std::string>{"base", "upper", "lower", "rail"}));
  EXPECT_EQ(s.gcDim, 7u + 4u + 1u + 1u);

  // Mass properties (inertia rotations are checked against another engine in
  // tests/mujoco): the tool merged into the lower link.
  EXPECT_DOUBLE_EQ(s.massOf[2], 1.0);
  EXPECT_DOUBLE_EQ(s.comB[2][2], -0.1);

  // Visual colours: a named 0..255 colour, an inline one, and an unknown name.
  const auto& vis = s.getVisOb();
  ASSERT_EQ(vis.size(), 3u);
  EXPECT_EQ(vis[0].color.e(), Eigen::Vector4d(1, 0, 0, 1));
  EXPECT_EQ(vis[1].color.e(), Eigen::Vector4d(1, 1, 1, 1));
  EXPECT_EQ(vis[2].color.e(), Eigen::Vector4d(0.7, 0.7, 0.7, 1.0));

  // Collision: capsule, contact material on the geom, visual material kept.
  const auto& defs = s.getCollisionBodies();
  ASSERT_EQ(defs.size(), 2u);
  EXPECT_EQ(geomData(defs[0].colObj).material, "rubber");
  dReal radius, length;
  dGeomCapsuleGetParams(defs[0].colObj, &radius, &length);
  EXPECT_EQ(Eigen::Vector2d(radius, length), Eigen::Vector2d(0.05, 0.3));
  EXPECT_EQ(s.getVisColOb()[0].material, "red");
  EXPECT_NEAR(defs[0].rotOffset(0, 2), 1.0, 1e-15);
  EXPECT_EQ(defs[1].localIdx, 1u);

  // Joints: the spherical cone, effort at its first entry only, damping and
  // rotor inertia on all three, the spring's rest quaternion.
  const size_t ball = s.gvIdx[1], knee = s.gvIdx[2], slide = s.gvIdx[3];
  EXPECT_EQ(s.jointLimits[ball][0], 0.8);
  EXPECT_EQ(s.tauUpper[ball], 30.0);
  EXPECT_EQ(s.tauUpper[ball + 1], 1e150);
  EXPECT_EQ(s.jointDampingGv[ball + 2], 0.1);
  EXPECT_EQ(s.rotorInertiaGv[ball + 1], 0.01);
  ASSERT_EQ(s.springs.size(), 2u);
  EXPECT_EQ(s.springs[0].springRest.e(), Eigen::Vector4d(1, 0, 0, 0));
  EXPECT_EQ(s.springs[1].springRest[0], 0.3);
  EXPECT_EQ(E(s.jointRotP[1]), Eigen::Matrix3d::Identity());  // the quaternion (2,0,0,0) normalised
  // Continuous: axis normalised, no position limit, the file's velocity.
  EXPECT_EQ(E(s.jointAxisB[2]), Eigen::Vector3d(0, 1, 0));
  EXPECT_EQ(s.jointLimits[knee][0], -DBL_MAX);
  EXPECT_EQ(s.velocityLimitOf[2], 3.0);
  EXPECT_EQ(s.tauLower[knee], -10.0);
  EXPECT_EQ(s.jointFrictionGv[knee], 0.2);
  // Prismatic without effort or velocity: the defaults.
  EXPECT_EQ(s.jointLimits[slide][1], 0.2);
  EXPECT_EQ(s.velocityLimitOf[3], 1e6);

  // Sensors: name and frame (their properties are read in the sensor tests);
  // the system knows it has an IMU.
  ASSERT_EQ(s.getSensors().size(), 2u);
  auto eye = std::dynamic_pointer_cast<RGBCamera>(s.getSensors().at("upper:eye"));
  ASSERT_NE(eye, nullptr);
  const CoordinateFrame& eyeFrame = s.getFrames()[eye->getFrameIdx()];
  EXPECT_EQ(eyeFrame.name + "/" + eyeFrame.parentName, "upper:eye/upper");
  EXPECT_EQ(eyeFrame.position[0], 0.1);
  World world;
  EXPECT_NE(vorsim_test::fatalOf([&] { eye->update(world); }).find("RGB sensors can only be updated by the visualizer"),
            std::string::npos);
  auto imu = std::dynamic_pointer_cast<InertialMeasurementUnit>(s.getSensors().at("base:imu"));
  ASSERT_NE(imu, nullptr);
  EXPECT_TRUE(s.hasImu());
  imu->updatePose();
  EXPECT_NEAR(imu->getPosition()[2], 0.05, 1e-15);

  // The pin is located at the nominal configuration, where the system stays.
  EXPECT_EQ(s.gc[11], 0.5);
  ASSERT_EQ(s.getPins().size(), 1u);
  const PinConstraint& pin = s.getPins()[0];
  Mat<3, 1> p1, p2;
  s.getPosition(pin.pinBody1, pin.pinPos1, p1);
  s.getPosition(pin.pinBody2, pin.pinPos2, p2);
  EXPECT_LT((E(p1) - E(p2)).norm(), 1e-15);
  EXPECT_NEAR(p1[2], 0.5 - 0.4 - 0.2 * std::cos(0.5), 1e-15);  // the knee at 0.5 rad
  EXPECT_EQ(printed.find("resDir is not specified"), std::string::npos);
}

TEST(UrdfLoader, SensorSetFilesMeshesAndResourceDirectory) {
  ArticulatedSystem s(kUrdfDir + "sensor_robot.urdf");
  EXPECT_EQ(s.getResourceDir(), kUrdfDir.substr(0, kUrdfDir.size() - 1));
  EXPECT_EQ(s.getRobotFileName(), "sensor_robot.urdf");
  ASSERT_EQ(s.nbody, 2u);
  // The camera link's content comes from sensors/camera.xml.
  EXPECT_DOUBLE_EQ(s.massOf[1], 0.75);
  ASSERT_EQ(s.getSensors().size(), 2u);
  auto depth = std::dynamic_pointer_cast<DepthCamera>(s.getSensors().at("camera:depth"));
  ASSERT_NE(depth, nullptr);
  EXPECT_NE(std::dynamic_pointer_cast<SpinningLidar>(s.getSensors().at("camera:lidar")), nullptr);
  EXPECT_FALSE(s.hasImu());
  // The depth camera sits 0.02 m along the camera link's x, which the fixed
  // joint turned by 90 degrees about z: in the head's frame at (0.1, 0.02, 0).
  const CoordinateFrame& f = s.getFrames()[depth->getFrameIdx()];
  EXPECT_EQ(f.parentId, 1u);
  EXPECT_NEAR(f.position[1], 0.02, 1e-15);
  EXPECT_NEAR(f.orientation(1, 0), 1.0, 1e-15);

  // "package://meshes/cube.obj" next to the file, scaled per axis.
  ASSERT_EQ(s.getCollisionBodies().size(), 1u);
  ASSERT_EQ(s.meshVertices.size(), 1u);
  EXPECT_FLOAT_EQ(s.meshVertices[0][0], -0.05f);
  EXPECT_FLOAT_EQ(s.meshVertices[0][2], -0.15f);
}

TEST(UrdfLoader, WorldRootJointOrderAndWarnings) {
  const std::string urdf = robot(R"(
<link name="world"/>
<joint name="fix" type="revolute"><parent link="world"/><child link="base"/>
  <origin xyz="0 0 1" rpy="0 0 1.5707963267948966"/><axis xyz="0 0 1"/></joint>
<link name="base"><inertial><mass value="1"/></inertial></link>
<joint name="j1" type="revolute"><parent link="base"/><child link="a"/><axis xyz="1 0 0"/></joint>
<joint name="j2" type="revolute"><parent link="base"/><child link="b"/><axis xyz="1 0 0"/>
  <mimic joint="j1"/></joint>
<link name="a"><inertial><mass value="1"/></inertial></link>
<link name="b"><inertial><mass value="1"/></inertial></link>
<joint name="other" type="fixed"><parent link="world"/><child link="stray"/><origin xyz="5 5 5" rpy="0 0 0.3"/></joint>
<link name="stray"/>)");
  const auto [owner, text] = vorsim_test::built<ArticulatedSystem>(urdf, "r");
  ArticulatedSystem& s = *owner;
  EXPECT_EQ(s.getRootJointType(), Joint::FIXED);
  // The first link under "world" is the robot, placed at its own joint's
  // origin; the base orientation comes from the last joint from "world" (the
  // format's rule), here the stray one.
  EXPECT_EQ(s.bodyNames, (std::vector<std::string>{"base", "a", "b"}));
  EXPECT_EQ(E(s.posW[0]), Eigen::Vector3d(0, 0, 1));
  EXPECT_NEAR(s.rotW[0](1, 0), std::sin(0.3), 1e-15);
  EXPECT_EQ(s.getFrames()[0].name, "fix");
  EXPECT_NE(text.find("joint \"fix\" connects the robot to \"world\""), std::string::npos);
  EXPECT_NE(text.find("link \"stray\" also hangs from \"world\" and is left out"), std::string::npos);
  EXPECT_NE(text.find("joint \"j2\" has a mimic element"), std::string::npos);

  // With one link under "world", its joint's origin is the whole base pose.
  ArticulatedSystem single(robot(R"(<link name="world"/><link name="base"/>
<joint name="fix" type="fixed"><parent link="world"/><child link="base"/>
<origin xyz="0 0 1" rpy="0 0 1.5707963267948966"/></joint>)"),
                           "r");
  EXPECT_NEAR(single.rotW[0](1, 0), 1.0, 1e-15);
  EXPECT_EQ(E(single.posW[0]), Eigen::Vector3d(0, 0, 1));

  // The caller's joint order comes first among siblings.
  const auto reordered = vorsim_test::built<ArticulatedSystem>(urdf, "r", std::vector<std::string>{"j2"}).first;
  EXPECT_EQ(reordered->bodyNames, (std::vector<std::string>{"base", "b", "a"}));
}

namespace {
// A description and a piece of the fatal message it must end in.
struct BadInput {
  std::string urdf, message;
  std::vector<std::string> jointOrder = {};
};
const std::string kJointAB = R"(<joint name="j" type="fixed"><parent link="a"/><child link="b"/></joint>)";
std::string joint(const std::string& attributes, const std::string& content) {
  return robot(kTwoLinks + "\n<joint name=\"j\" " + attributes + "><parent link=\"a\"/><child link=\"b\"/>" + content +
               "</joint>");
}
std::string linkWith(const std::string& content) { return robot("<link name=\"a\">" + content + "</link>"); }
const std::string kRevolute = R"(<joint name="j" type="revolute"><parent link="a"/><child link="b"/>
<axis xyz="0 0 1"/></joint>)";
}  // namespace

TEST(UrdfLoader, BadInputEndsInLocatedFatalMessages) {
  const std::vector<BadInput> cases = {
      // Files.
      {kUrdfDir + "missing.urdf", kUrdfDir + "missing.urdf does not exist"},
      {kUrdfDir + "sensor_robot.txt", "sensor_robot.txt: unsupported file type"},
      {"<robot><link name=\"a\"></robot>", "cannot parse the xml text"},
      {"<model><link name=\"a\"/></model>", " file does not contain node 'robot'"},
      // Structure. The location names the source, row, column and node.
      {robot(kTwoLinks + "\n" + R"(<joint name="j" type="fixed"><parent link="a"/><child link="ghost"/></joint>)"),
       "in 'URDF from a string' at row:4 col:1, the node 'joint': link named \"ghost\" does not exist. It was "
       "defined as a child of joint \"j\""},
      {robot(kTwoLinks + R"(<joint name="j" type="fixed"><parent link="x"/><child link="b"/></joint>)"),
       "link named \"x\" does not exist. It was defined as a parent of joint \"j\""},
      {robot(kTwoLinks + "<link name=\"c\"/>" + kJointAB +
             R"(<joint name="k" type="fixed"><parent link="c"/><child link="b"/></joint>)"),
       "link \"b\" has two parents: joint \"j\" and joint \"k\""},
      {robot(kTwoLinks + kJointAB + R"(<joint name="k" type="fixed"><parent link="b"/><child link="a"/></joint>)"),
       "has no root link: every link has a parent, so its joints form a cycle"},
      {robot(kTwoLinks + R"(<link name="c"/><link name="d"/>)" + kJointAB +
             R"(<joint name="k" type="fixed"><parent link="c"/><child link="d"/></joint>
<joint name="l" type="fixed"><parent link="d"/><child link="c"/></joint>)"),
       "link \"c\" is not connected to the root: its joints form a cycle"},
      {robot(kTwoLinks), "at row:3 col:1, the node 'link': the description has two root links, \"a\" and \"b\""},
      {robot("<link name=\"world\"/>"), "the link \"world\" has no child: there is no robot to fix to it"},
      {robot(kTwoLinks + R"(<link name="a"/>)"), "a link named \"a\" is defined twice"},
      {robot(kTwoLinks + kJointAB), "given joint names are not found in the file", {"j", "missing"}},
      {robot(kTwoLinks + kJointAB + kJointAB), "given joint names are not found in the file"},
      // Joints.
      {joint("", ""), "at row:4 col:1, the node 'joint' does not contain an attribute called 'type'"},
      {joint("type=\"planar\"", ""), "currently only support revolute/prismatic/fixed joint/spherical"},
      {joint("type=\"revolute\"", ""), "the node 'joint': joint \"j\" needs an axis element"},
      {joint("type=\"revolute\"", "<axis xyz=\"0 0 0\"/>"), "has zero length"},
      {joint("type=\"revolute\"", "<axis xyz=\"0 x 1\"/>"),
       "the node 'axis': the attribute 'xyz' holds text that is not a number: '0 x 1'"},
      {joint("type=\"revolute\"", "<axis xyz=\"0 1\"/>"), "should have a dimension of 3"},
      {joint("type=\"revolute\"", "<axis xyz=\"0 0 1\"/><limit lower=\"1\" upper=\"0\"/>"),
       "Lower joint limit cannot be higher than the upper one. If you want to disable the joint limit, remove "
       "\"lower\" and \"upper\" attributes."},
      {joint("type=\"spherical\"", "<limit upper=\"1\"/>"),
       "Spherical joint needs the attribute \"lower\" to have a limit."},
      {joint("type=\"spherical\"", "<limit lower=\"-0.1\"/>"), "Spherical joint cannot have negative limit"},
      {joint("type=\"fixed\"", "<origin rpy=\"0 0 1\"/>"),
       "the node 'origin' does not contain an attribute called 'xyz'"},
      {robot(kTwoLinks + R"(<joint name="j" type="fixed"><child link="b"/></joint>)"),
       "the node 'joint' does not contain a child"},
      {joint("type=\"revolute\"", "<axis xyz=\"0 0 1\"/><limit effort=\"lots\"/>"),
       "the attribute 'effort' is not a number: 'lots'"},
      // Links.
      {linkWith("<inertial><mass value=\"-2\"/></inertial>"),
       "the node 'mass': the mass of link \"a\" must not be negative"},
      {linkWith("<inertial><mass value=\"heavy\"/></inertial>"),
       "the node 'mass': the attribute 'value' is not a number: 'heavy'"},
      {linkWith("<inertial/>"), "the node 'inertial' does not contain a child"},
      {linkWith("<inertial><mass value=\"1\"/><inertia ixx=\"1\" iyy=\"1\"/></inertial>"),
       "the node 'inertia' does not contain an attribute called 'izz'"},
      {robot("<link/>"), "does not contain an attribute called 'name'"},
      {linkWith("<collision><geometry><cone radius=\"1\"/></geometry></collision>"),
       "the node 'cone': cone unrecognized shape: \"cone\""},
      {linkWith("<collision><geometry><box/></geometry></collision>"),
       "the node 'box' does not contain an attribute called 'size'"},
      {linkWith("<collision><geometry><sphere radius=\"r\"/></geometry></collision>"),
       "the attribute 'radius' is not a number: 'r'"},
      {linkWith("<collision><geometry><mesh filename=\"a.stl\"/></geometry></collision>"),
       "Mesh collision bodies must be in an obj format"},
      {linkWith("<collision><geometry><mesh filename=\"none.obj\"/></geometry></collision>"),
       "r/none.obj is not found."},
      // Constraints.
      {robot("<constraints><pin body1=\"a\" body2=\"a\" anchor=\"0 0 0\"/></constraints><link name=\"a\"/>"),
       "does not contain an attribute called 'nominal_config'"},
      {robot(kTwoLinks + kRevolute + R"(<constraints nominal_config="0 0 0 1 0 0 0 0">
<pin body1="a" body2="nope" anchor="0 0 0"/></constraints>)"),
       "Equality constraints - unknown body name: nope"},
      {robot(kTwoLinks + kRevolute + R"(<constraints nominal_config="0 0 0 1">
<pin body1="a" body2="b" anchor="0 0 0"/></constraints>)"),
       "The configuration of the pin constraints has 4 entries, but the system has 8"},
  };
  for (const BadInput& c : cases) {
    const std::string text = vorsim_test::fatalOf([&] { ArticulatedSystem s(c.urdf, "r", c.jointOrder); });
    EXPECT_NE(text.find(c.message), std::string::npos) << "expected: " << c.message << "\ngot: " << text;
  }
}
