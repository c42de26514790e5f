// Steady-state steps and ray queries must not touch the heap. Every allocation
// function of the C library is replaced by a counting one (operator new goes
// through malloc), and scenes are stepped after a warm-up.
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <sstream>

#include "vorsim/World.hpp"
#include "vorsim/contact/Single3DContactProblem.hpp"
#include "vorsim/object/ArticulatedSystem/ArticulatedSystem.hpp"
#include "vorsim/object/HeightMap.hpp"
#include "vorsim/object/Mesh.hpp"
#include "vorsim/object/Primitives.hpp"
#include "vorsim/object/TerrainGenerator.hpp"

#if defined(__SANITIZE_ADDRESS__)
#define VORSIM_COUNT_ALLOCATIONS 0  // the sanitizer owns malloc
#else
#define VORSIM_COUNT_ALLOCATIONS 1
#endif

namespace {
bool g_counting = false;
long g_allocations = 0;
inline void count() {
  if (g_counting) ++g_allocations;
}
}  // namespace

#if VORSIM_COUNT_ALLOCATIONS
extern "C" {
void* __libc_malloc(size_t);
void* __libc_calloc(size_t, size_t);
void* __libc_realloc(void*, size_t);
void* __libc_memalign(size_t, size_t);
void* malloc(size_t n) { return count(), __libc_malloc(n); }
void* calloc(size_t n, size_t size) { return count(), __libc_calloc(n, size); }
void* realloc(void* p, size_t n) { return count(), __libc_realloc(p, n); }
void* memalign(size_t alignment, size_t n) { return count(), __libc_memalign(alignment, n); }
void* aligned_alloc(size_t alignment, size_t n) { return count(), __libc_memalign(alignment, n); }
int posix_memalign(void** p, size_t alignment, size_t n) {
  return count(), (*p = __libc_memalign(alignment, n)) ? 0 : 12;
}
}
#endif

using namespace vorsim;

namespace {

template <typename F>
long allocationsOf(F f) {
  g_allocations = 0;
  g_counting = true;
  f();
  g_counting = false;
  return g_allocations;
}

// Steps after a warm-up and counts allocations over `steps` more steps, and
// checks that the number of contact problems stayed within what the warm-up saw.
long allocationsInSteadySteps(World& world, int warmup, int steps) {
  size_t most = 0, mostAfter = 0;
  for (int i = 0; i < warmup; ++i) {
    world.integrate();
    most = std::max(most, world.getContactProblem().size());
  }
  const long n = allocationsOf([&] {
    for (int i = 0; i < steps; ++i) {
      world.integrate();
      mostAfter = std::max(mostAfter, world.getContactProblem().size());
    }
  });
  EXPECT_LE(mostAfter, most) << "the contact count grew after the warm-up";
  EXPECT_GT(mostAfter, 0u);
  return n;
}

std::string model(const std::string& path) { return std::string(VORSIM_MODELS_DIR) + "/" + path; }

// A robot file's text with its root link fixed to the world at height z.
std::string fixedBaseUrdf(const std::string& file, const std::string& rootLink, double z) {
  std::ifstream in(model(file));
  std::stringstream text;
  text << in.rdbuf();
  std::string urdf = text.str();
  const size_t end = urdf.find('>', urdf.find("<robot")) + 1;
  return urdf.insert(end, "<link name=\"world\"/><joint name=\"fix\" type=\"fixed\"><origin xyz=\"0 0 " +
                              std::to_string(z) + "\"/><parent link=\"world\"/><child link=\"" + rootLink +
                              "\"/></joint>");
}

// PD control that holds every joint where it is.
void holdJoints(ArticulatedSystem& robot, double kp, double kd) {
  VecDyn p(robot.getDOF()), d(robot.getDOF()), velocity(robot.getDOF());
  for (size_t i = 0; i < robot.getDOF(); ++i) p[i] = kp, d[i] = kd, velocity[i] = 0.0;
  robot.setControlMode(ArticulatedSystem::PD_PLUS_FEEDFORWARD_TORQUE);
  robot.setPdGains(p, d);
  robot.setPdTarget(robot.getGeneralizedCoordinate(), velocity);
}

// ----------------------------------------------------------------- scenes --

// 64 spheres settled in a walled bin.
void bin(World& world) {
  world.addGround();
  for (int side = 0; side < 4; ++side) {
    auto* wall = world.addBox(side < 2 ? 0.1 : 1.2, side < 2 ? 1.2 : 0.1, 0.6, 1.0);
    wall->setPosition(side < 2 ? 1.1 * (side - 0.5) : 0.0, side < 2 ? 0.0 : 1.1 * (side - 2.5), 0.3);
    wall->setBodyType(STATIC);
  }
  for (int i = 0; i < 64; ++i)
    world.addSphere(0.1, 1.0)->setPosition(-0.35 + 0.23 * (i % 4) + 0.01 * (i % 3), -0.35 + 0.23 * ((i / 4) % 4),
                                           0.15 + 0.22 * (i / 16));
}

// Boxes sliding to rest, a column, a pendulum on a stiff wire, a compliant and
// a custom wire, and stiff wires with no dynamic end.
void bodiesAndWires(World& world) {
  world.addGround();
  for (int i = 0; i < 4; ++i) {
    auto* box = world.addBox(0.2, 0.2, 0.2, 1.0);
    box->setPosition(0.5 * i, 1.0, 0.1);
    box->setVelocity(2.0 + i, 0.3 * i, 0, 0, 0, 0);
    world.addBox(0.2, 0.2, 0.2, 1.0)->setPosition(0, -1.0, 0.1 + 0.2 * i);
  }
  const Eigen::Vector3d o = Eigen::Vector3d::Zero();
  Box* blocks[4];
  for (int i = 0; i < 4; ++i) {
    blocks[i] = world.addBox(0.1, 0.1, 0.1, 1.0, "default", 0, 0);
    blocks[i]->setPosition(i, 3, 2);
    blocks[i]->setBodyType(i < 2 ? STATIC : KINEMATIC);
  }
  blocks[3]->setVelocity(0.1, 0, 0, 0, 0, 0);
  world.addStiffWire(blocks[0], 0, o, blocks[1], 0, o, 0.5);
  world.addStiffWire(blocks[2], 0, o, blocks[3], 0, o, 0.5);
  auto* bob = world.addSphere(0.05, 1.0, "default", 0, 0);
  bob->setPosition(0.5, 3, 2);
  world.addStiffWire(blocks[0], 0, o, bob, 0, o, 0.5);
  auto* hanging = world.addSphere(0.05, 1.0, "default", 0, 0);
  hanging->setPosition(0, 3, 1.5);
  world.addCompliantWire(blocks[0], 0, o, hanging, 0, o, 0.4, 500.0);
  world.addCustomWire(blocks[1], 0, o, hanging, 0, o, 1.0)->setTension(2.0);
}

// Boxes settled on generated terrain.
void terrain(World& world) {
  auto* map = world.addHeightMap(0.0, 0.0, TerrainProperties(0.3, 8.0, 8.0, 0.8, 48, 48, 4, 2.0, 0.5, 0, 0, 3));
  for (int i = 0; i < 6; ++i) {
    const double x = -1.0 + 0.8 * (i % 3), y = i < 3 ? 0.5 : -0.5;
    world.addBox(0.3, 0.2, 0.1, 1.0)->setPosition(x, y, map->getHeight(x, y) + 0.2);
  }
}

// A quadruped on a fixed base whose feet, held by PD control, touch the
// ground, a mesh cube on the ground and a ball on the robot's base: contacts
// with robot geoms (the static base's only on the ball's side), mesh geoms and
// primitives.
void fixedRobotMeshAndBall(World& world) {
  world.addGround();
  holdJoints(*world.addArticulatedSystem(fixedBaseUrdf("anymal_b/anymal.urdf", "base", 0.5), model("anymal_b")), 200.0,
             10.0);
  world.addMesh(model("../tests/data/meshes/cube.obj"), 1.0, 0.2)->setPosition(2, 0, 0.1);
  world.addSphere(0.05, 0.1)->setPosition(0, 0, 0.75);
}

// A floating quadruped standing on its feet under PD control, its links kept
// apart by their group, and a limited pendulum held against its stop: robot
// contacts and joint limits.
void standingQuadruped(World& world) {
  world.addGround();
  auto* robot = world.addArticulatedSystem(model("anymal_b/anymal.urdf"), "", {}, 2, World::kAllBits & ~size_t(2));
  VecDyn gc(robot->getGeneralizedCoordinateDim());
  const double q[19] = {0, 0, 0.5, 1, 0, 0, 0, 0.03, 0.4, -0.8, -0.03, 0.4, -0.8, 0.03, -0.4, 0.8, -0.03, -0.4, 0.8};
  for (size_t i = 0; i < 19; ++i) gc[i] = q[i];
  robot->setGeneralizedCoordinate(gc);
  holdJoints(*robot, 200.0, 10.0);
  const std::string pendulum = R"(<?xml version="1.0"?><robot name="p"><link name="world"/>
<joint name="mount" type="fixed"><parent link="world"/><child link="base"/><origin xyz="5 5 2"/></joint>
<link name="base"><inertial><mass value="1"/><inertia ixx="0.01" iyy="0.01" izz="0.01"/></inertial></link>
<joint name="hinge" type="revolute"><parent link="base"/><child link="arm"/><axis xyz="1 0 0"/>
  <limit lower="0.2" upper="0.5" effort="100" velocity="100"/></joint>
<link name="arm"><inertial><origin xyz="0 0 -0.5"/><mass value="1"/><inertia ixx="0.01" iyy="0.01" izz="0.01"/>
</inertial></link></robot>)";  // hanging straight down is below the lower stop
  world.addArticulatedSystem(pendulum, "", {}, 1, 0)->setGeneralizedCoordinate({0.3});
}

class Allocations : public testing::Test {
 protected:
  void SetUp() override {
    if (!VORSIM_COUNT_ALLOCATIONS) GTEST_SKIP() << "allocation counting is off under AddressSanitizer";
    // The counter itself must see allocations, or the test proves nothing.
    std::vector<double>* volatile probe = nullptr;
    ASSERT_GE(allocationsOf([&] { probe = new std::vector<double>(100); }), 1);
    delete probe;
  }
};

}  // namespace

TEST_F(Allocations, SteadyStepsAllocateNothing) {
  // Each scene plain and, where the solver's options matter, with the warm
  // start (lists that keep their capacity) and exact Coulomb sliding (on the
  // stack) switched on.
  struct Scene {
    const char* name;
    void (*build)(World&);
    int warmup;
    bool options;
  };
  const Scene scenes[] = {{"bin", bin, 3000, false},
                          {"bin with options", bin, 3000, true},
                          {"bodies and wires", bodiesAndWires, 1500, false},
                          {"bodies and wires with options", bodiesAndWires, 1500, true},
                          {"terrain", terrain, 2000, false},
                          {"fixed robot, mesh and ball", fixedRobotMeshAndBall, 500, false},
                          {"standing quadruped", standingQuadruped, 500, false},
                          {"standing quadruped with options", standingQuadruped, 500, true}};
  for (const Scene& s : scenes) {
    World world;
    world.setTimeStep(0.001);
    world.setWarmStart(s.options);
    world.setExactCoulombSliding(s.options);
    s.build(world);
    EXPECT_EQ(allocationsInSteadySteps(world, s.warmup, 1000), 0) << s.name;
    EXPECT_EQ(world.getWarmStartedProblemCount() > 0, s.options) << s.name;
  }
}

TEST_F(Allocations, WorldsReadFromFilesAllocateNothing) {
  // Every kind a world file holds (bodies, terrain, compounds resting on the
  // ground, classes, wires, a robot), the same with the solver's options on,
  // and an MJCF scene.
  for (const char* file : {"/world/every_kind.xml", "/world/with_options.xml", "/mjcf/scene.xml"}) {
    testing::internal::CaptureStdout();
    World world(std::string(VORSIM_TEST_DATA_DIR) + file);
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(std::string(file) == "/world/with_options.xml", world.getWarmStart()) << file;
    EXPECT_EQ(allocationsInSteadySteps(world, 2000, 1000), 0) << file;
    // The compound of the first file stands on the ground.
    EXPECT_TRUE(std::string(file) != "/world/every_kind.xml" || !world.getObject("bell")->getContacts().empty());
  }
}

TEST_F(Allocations, SensorUpdatesInStepsAllocateNothing) {
  // A fixed-base robot with an inertial unit (which makes its step update the
  // sensors), a depth camera and a lidar, over a height map with primitives:
  // the sensors fire every few steps, each casting into a fresh snapshot of
  // the scene.
  World world;
  world.setTimeStep(0.001);
  world.addHeightMap(0.0, 0.0, TerrainProperties(0.2, 12.0, 12.0, 1.0, 40, 40, 3, 2.0, 0.5, 0, 0, 4));
  for (int i = 0; i < 12; ++i) {
    SingleBodyObject* box = world.addBox(0.4, 0.3, 0.5, 1.0);
    SingleBodyObject* capsule = world.addCapsule(0.1, 0.4, 1.0);
    box->setPosition(-3.0 + 0.5 * i, 2.0, 1.5);
    capsule->setPosition(-3.0 + 0.5 * i, -2.0, 1.5);
    box->setBodyType(STATIC);
    capsule->setBodyType(STATIC);
  }
  world.addSphere(0.1, 1.0)->setPosition(-3.0, 2.0, 1.85);  // resting on the first box
  const std::string urdf = R"(<?xml version="1.0"?><robot name="r"><link name="world"/>
<joint name="mount" type="fixed"><parent link="world"/><child link="base"/><origin xyz="0 0 2.5"/></joint>
<link name="base"><inertial><mass value="1"/><inertia ixx="0.1" iyy="0.1" izz="0.1"/></inertial>
  <collision><geometry><sphere radius="0.1"/></geometry></collision>
  <sensor type="imu" name="imu" update_rate="1000"/>
  <sensor type="depth" name="cam" update_rate="250"><origin rpy="0 0.6 0"/><data/>
    <camera horizontal_fov="1.4"><image width="32" height="32"/><clip near="0.1" far="20"/>
    <noise type="none" mean="0" stddev="0"/></camera></sensor>
  <sensor type="spinning_lidar" name="lidar" update_rate="100"><yaw samples="256"/>
    <pitch samples="8" min_angle="-0.5" max_angle="0.1"/><range min="0.2" max="30"/>
    <spin direction="counter" rate="10"/></sensor>
</link></robot>)";
  ArticulatedSystem* robot = world.addArticulatedSystem(urdf);
  robot->getSensor("base:cam")->setMeasurementSource(Sensor::SIMULATOR);
  EXPECT_EQ(allocationsInSteadySteps(world, 300, 400), 0);
  EXPECT_GT(robot->getSensor("base:cam")->getLastUpdateTime(), 0.6);
  EXPECT_GT(robot->getSensor("base:lidar")->getLastUpdateTime(), 0.6);
}

TEST_F(Allocations, RayQueriesAllocateNothing) {
  World world;
  world.addGround();
  for (int i = 0; i < 20; ++i) world.addSphere(0.1, 1.0)->setPosition(0.3 * (i % 5), 0.3 * (i / 5), 0.1);
  world.integrate();
  world.rayTest({0, 0, 3}, {0, 0, -1}, 10.0, true);  // the first query may size internal lists
  size_t hits = 0;
  EXPECT_EQ(allocationsOf([&] {
              for (int i = 0; i < 5000; ++i) {
                const double a = 0.001 * i;
                const Eigen::Vector3d dir(std::cos(a) * 0.3, std::sin(a) * 0.3, -1.0);
                hits += world.rayTest({0.6, 0.45, 2.0}, dir.normalized(), 10.0, i % 2 == 0).size;
              }
            }),
            0);
  EXPECT_GT(hits, 5000u);
}

TEST_F(Allocations, KinematicQueriesAllocateNothing) {
  ArticulatedSystem robot(model("humanoid_mjcf_port/humanoid.urdf"));
  VecDyn gc(robot.getGeneralizedCoordinateDim()), gv(robot.getDOF());
  gc = robot.getGeneralizedCoordinate();
  SparseJacobian J, Jr, dJ;
  Mat<3, 1> p{0.1, 0.0, 0.0}, v;
  double sum = 0.0;
  auto queries = [&] {
    for (size_t b = 0; b < robot.getNumberOfBodies(); ++b) {
      robot.getSparseJacobian(b, ArticulatedSystem::BODY_FRAME, p, J);
      robot.getSparseRotationalJacobian(b, Jr);
      robot.getTimeDerivativeOfSparseJacobian(b, ArticulatedSystem::BODY_FRAME, p, dJ);
      robot.getVelocity(J, v);
      sum += v[0];
    }
  };
  queries();  // the Jacobians grow to the longest chain once
  EXPECT_EQ(allocationsOf([&] {
              for (int i = 0; i < 1000; ++i) {
                for (size_t k = 7; k < gc.n; ++k) gc[k] = 0.001 * i;
                for (size_t k = 0; k < gv.n; ++k) gv[k] = 0.01 * double(k);
                robot.setGeneralizedCoordinate(gc);
                robot.setGeneralizedVelocity(gv);
                robot.updateCollision();
                queries();
              }
            }),
            0);
  EXPECT_NE(sum, 0.0);
}

TEST_F(Allocations, ContactFreeRobotStepsAllocateNothing) {
  // A floating quadruped in the air under PD control with a push every step,
  // and an arm on a fixed base stepped by the Runge-Kutta scheme, with the
  // services a controller calls between steps; no ground, and collision masks
  // of 0, so no contact.
  World world;
  world.setTimeStep(0.001);
  auto* quadruped = world.addArticulatedSystem(model("anymal_b/anymal.urdf"), "", {}, 1, 0);
  holdJoints(*quadruped, 100.0, 5.0);
  auto* arm = world.addArticulatedSystem(fixedBaseUrdf("franka_panda/panda.urdf", "panda_link0", 0.0),
                                         model("franka_panda"), {}, 1, 0);
  arm->setIntegrationScheme(ArticulatedSystem::RUNGE_KUTTA_4);
  const Mat<3, 1> push{0.0, 1.0, 0.0}, twist{0.0, 0.0, 0.2}, gravity{0.0, 0.0, -9.81};
  VecDyn tau(arm->getDOF()), acceleration(arm->getDOF());
  double sum = 0.0;
  auto steps = [&](int n) {
    for (int i = 0; i < n; ++i) {
      quadruped->setExternalForce(3, push);
      quadruped->setExternalTorque(0, twist);
      arm->setExternalForce(5, ArticulatedSystem::BODY_FRAME, push, ArticulatedSystem::BODY_FRAME, twist);
      world.integrate();
      for (size_t k = 0; k < arm->getDOF(); ++k) acceleration[k] = 0.01 * double(i % 7);
      arm->recursiveNewtonEuler(gravity, true, true, acceleration, tau);
      arm->getNonlinearities(gravity);
      arm->getInverseMassMatrix();
      sum += arm->getEnergy(gravity) + quadruped->getKineticEnergy();
    }
  };
  steps(100);
  EXPECT_EQ(allocationsOf([&] { steps(1000); }), 0);
  for (const auto& P : world.getContactProblem()) EXPECT_EQ(P.rank, 5);  // only the arm's joint limits
  EXPECT_TRUE(std::isfinite(sum));
  EXPECT_LT(quadruped->getGeneralizedCoordinate()[2], -1.0);  // it fell
}
