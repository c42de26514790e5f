// The demo's trajectory files read back as they were written.
#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>

#include "../examples/trajectory.hpp"
#include "vorsim/World.hpp"
#include "vorsim/object/Primitives.hpp"

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
      for (vorsim::SingleBodyObject* o :
           {static_cast<vorsim::SingleBodyObject*>(s), static_cast<vorsim::SingleBodyObject*>(b)}) {
        const auto& p = o->getPosition();
        const auto& q = o->getQuaternion();
        poses.push_back(
            {{float(p[0]), float(p[1]), float(p[2])}, {float(q[0]), float(q[1]), float(q[2]), float(q[3])}});
      }
      writer.frame(world.getWorldTime(), poses);
      written.push_back(poses);
      for (int i = 0; i < 2; ++i) world.integrate();
    }
  }
  trajectory::Recording rec;
  ASSERT_TRUE(trajectory::read(path, rec));
  EXPECT_DOUBLE_EQ(rec.frameInterval, 0.01);
  ASSERT_EQ(rec.bodies.size(), 2u);
  EXPECT_EQ(std::memcmp(&rec.bodies[1], &table[1], sizeof(trajectory::BodyInfo)), 0);
  ASSERT_EQ(rec.frames.size(), 5u);
  EXPECT_DOUBLE_EQ(rec.times[4], 8 * world.getTimeStep());
  for (size_t f = 0; f < 5; ++f)
    for (size_t k = 0; k < 2; ++k)
      EXPECT_EQ(std::memcmp(&rec.frames[f][k], &written[f][k], sizeof(trajectory::Pose)), 0);

  // A file cut in the middle of a frame is refused.
  std::ifstream in(path, std::ios::binary);
  std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  std::ofstream(path, std::ios::binary).write(bytes.data(), std::streamsize(bytes.size() - 10));
  trajectory::Recording cut;
  EXPECT_FALSE(trajectory::read(path, cut));
  std::ofstream(path, std::ios::binary) << "not a trajectory";
  EXPECT_FALSE(trajectory::read(path, cut));
  std::remove(path.c_str());
}
