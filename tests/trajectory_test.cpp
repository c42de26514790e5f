// The demo's trajectory files read back as they were written.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <fstream>

#include "../examples/trajectory.hpp"
#include "test_helpers.hpp"
#include "vorsim/World.hpp"
#include "vorsim/object/Primitives.hpp"

namespace {
std::string readAll(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}
}  // namespace

TEST(Trajectory, RoundTripAndTruncation) {
  const std::string path = testing::TempDir() + "vorsim_trajectory_test.vtrj";
  vorsim::World world;
  world.addGround();
  auto* s = world.addSphere(0.1, 1.0);
  s->setPosition(0, 0, 1);
  auto* b = world.addBox(0.1, 0.2, 0.3, 1.0);
  b->setPosition(1, 0, 1);
  const std::vector<trajectory::BodyInfo> table = {{vorsim::SPHERE, 1, {0.1, 0, 0}}, {vorsim::BOX, 2, {0.1, 0.2, 0.3}}};
  std::vector<std::vector<trajectory::Pose>> written;
  {
    trajectory::Writer writer(path, table, 0.01);
    ASSERT_TRUE(writer.ok());
    for (int f = 0; f < 5; ++f) {
      std::vector<trajectory::Pose> poses;
      for (vorsim::SingleBodyObject* o : std::vector<vorsim::SingleBodyObject*>{s, b}) {
        const auto& p = o->getPosition();
        const auto& q = o->getQuaternion();
        poses.push_back(
            {{float(p[0]), float(p[1]), float(p[2])}, {float(q[0]), float(q[1]), float(q[2]), float(q[3])}});
      }
      writer.frame(world.getWorldTime(), poses);
      written.push_back(poses);
      world.integrate();
      world.integrate();
    }
  }
  trajectory::Recording rec;
  ASSERT_TRUE(trajectory::read(path, rec));
  EXPECT_DOUBLE_EQ(rec.frameInterval, 0.01);
  ASSERT_EQ(rec.bodies.size(), 2u);
  const trajectory::BodyInfo& box = rec.bodies[1];
  EXPECT_EQ(std::make_tuple(box.type, box.material, box.owner), std::make_tuple(int32_t(vorsim::BOX), 2, -1));
  EXPECT_EQ(std::vector<double>(box.size, box.size + 3), (std::vector<double>{0.1, 0.2, 0.3}));
  ASSERT_EQ(rec.frames.size(), 5u);
  EXPECT_DOUBLE_EQ(rec.times[4], 8 * world.getTimeStep());
  for (size_t f = 0; f < 5; ++f)
    for (size_t k = 0; k < 2; ++k)
      EXPECT_EQ(std::memcmp(&rec.frames[f][k], &written[f][k], sizeof(trajectory::Pose)), 0);

  // A file cut in the middle of a frame is refused.
  const std::string bytes = readAll(path);
  std::ofstream(path, std::ios::binary).write(bytes.data(), std::streamsize(bytes.size() - 10));
  EXPECT_FALSE(trajectory::read(path, rec));
  std::ofstream(path, std::ios::binary) << "not a trajectory";
  EXPECT_FALSE(trajectory::read(path, rec));
  std::remove(path.c_str());
}

// A robot is recorded as its collision shapes, each with the pose of the body
// that carries it times the shape's offset; the owner field survives the trip,
// and a file of the first version (no owner field) is still read.
TEST(Trajectory, RobotsAsTheirShapesAndTheFirstVersion) {
  const std::string path = testing::TempDir() + "vorsim_trajectory_robot.vtrj";
  vorsim::World world;
  // Anymal: boxes, spheres and cylinders, many turned against their links.
  auto* robot = world.addArticulatedSystem(std::string(VORSIM_TEST_DATA_DIR) + "/../../models/anymal_b/anymal.urdf");
  vorsim::VecDyn gc(robot->gcDim);  // the base turned by the unit quaternion (0.5, 0.5, 0.5, 0.5)
  for (size_t i = 0; i < robot->gcDim; ++i) gc[i] = i >= 3 && i < 7 ? 0.5 : 0.3 + 0.2 * double(i);
  robot->setGeneralizedCoordinate(gc);
  std::vector<trajectory::BodyInfo> table = {{vorsim::SPHERE, 1, {0.1, 0, 0}}};
  trajectory::appendRobot(*robot, 0, 3, table);
  const auto& shapes = robot->getVisColOb();
  ASSERT_EQ(shapes.size(), 40u);
  ASSERT_EQ(table.size(), 1 + shapes.size());
  std::vector<trajectory::Pose> poses(table.size());
  trajectory::robotPoses(*robot, poses, 1);
  {
    trajectory::Writer writer(path, table, 0.02);
    writer.frame(0.0, poses);
  }
  trajectory::Recording rec;
  ASSERT_TRUE(trajectory::read(path, rec));
  ASSERT_EQ(rec.bodies.size(), table.size());
  EXPECT_EQ(rec.bodies[0].owner, -1);
  for (size_t k = 0; k < shapes.size(); ++k) {
    const trajectory::BodyInfo& b = rec.bodies[1 + k];
    EXPECT_EQ(b.owner, 0);
    EXPECT_EQ(b.material, 3);
    // The recorded pose maps the shape's offset from its body's frame.
    vorsim::Mat<3, 1> expected;
    vorsim::Mat<3, 3> bodyRot;
    robot->getPosition(shapes[k].localIdx, shapes[k].offset, expected);
    robot->getOrientation(shapes[k].localIdx, bodyRot);
    const trajectory::Pose& pose = rec.frames[0][1 + k];
    EXPECT_LT((Eigen::Map<const Eigen::Vector3f>(pose.position).cast<double>() - expected.e()).norm(), 1e-6);
    const Eigen::Quaterniond read(pose.quaternion[0], pose.quaternion[1], pose.quaternion[2], pose.quaternion[3]);
    EXPECT_TRUE(read.toRotationMatrix().isApprox(bodyRot.e() * shapes[k].rot.e(), 1e-6));
  }

  // The same table as a first-version file: no owner field after each size.
  std::string v1 = readAll(path).substr(0, 24);
  v1[8] = 1;
  for (const trajectory::BodyInfo& b : table) v1.append(reinterpret_cast<const char*>(&b), 32);
  std::ofstream(path, std::ios::binary).write(v1.data(), std::streamsize(v1.size()));
  trajectory::Recording old;
  ASSERT_TRUE(trajectory::read(path, old));
  ASSERT_EQ(old.bodies.size(), table.size());
  EXPECT_EQ(old.bodies.back().owner, -1);
  EXPECT_EQ(old.bodies.back().type, table.back().type);
  EXPECT_EQ(old.frames.size(), 0u);
  std::remove(path.c_str());
}
