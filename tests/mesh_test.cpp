// Triangle-mesh bodies: the OBJ reader, mass properties, and meshes that
// collide and come to rest like the primitives they approximate.
#include <gtest/gtest.h>

#include <cmath>
#include <fstream>
#include <map>

#include "test_helpers.hpp"
#include "vorsim/object/Mesh.hpp"
#include "vorsim/object/Primitives.hpp"

using namespace vorsim;

namespace {

const std::string kMeshDir = std::string(VORSIM_TEST_DATA_DIR) + "/meshes/";

// A unit icosphere refined `levels` times, written as an OBJ file.
std::string writeIcosphere(int levels) {
  const double t = (1.0 + std::sqrt(5.0)) / 2.0;
  std::vector<Eigen::Vector3d> v = {{-1, t, 0},  {1, t, 0},  {-1, -t, 0}, {1, -t, 0}, {0, -1, t},  {0, 1, t},
                                    {0, -1, -t}, {0, 1, -t}, {t, 0, -1},  {t, 0, 1},  {-t, 0, -1}, {-t, 0, 1}};
  for (auto& p : v) p.normalize();
  std::vector<std::array<int, 3>> f = {{0, 11, 5}, {0, 5, 1},  {0, 1, 7},   {0, 7, 10}, {0, 10, 11},
                                       {1, 5, 9},  {5, 11, 4}, {11, 10, 2}, {10, 7, 6}, {7, 1, 8},
                                       {3, 9, 4},  {3, 4, 2},  {3, 2, 6},   {3, 6, 8},  {3, 8, 9},
                                       {4, 9, 5},  {2, 4, 11}, {6, 2, 10},  {8, 6, 7},  {9, 8, 1}};
  for (int l = 0; l < levels; ++l) {
    std::map<std::pair<int, int>, int> middle;
    auto mid = [&](int a, int b) {
      auto key = std::minmax(a, b);
      auto it = middle.find(key);
      if (it != middle.end()) return it->second;
      v.push_back((v[size_t(a)] + v[size_t(b)]).normalized());
      return middle[key] = int(v.size()) - 1;
    };
    std::vector<std::array<int, 3>> next;
    for (auto& tri : f) {
      const int a = mid(tri[0], tri[1]), b = mid(tri[1], tri[2]), c = mid(tri[2], tri[0]);
      next.push_back({tri[0], a, c});
      next.push_back({tri[1], b, a});
      next.push_back({tri[2], c, b});
      next.push_back({a, b, c});
    }
    f = next;
  }
  const std::string path = testing::TempDir() + "icosphere" + std::to_string(levels) + ".obj";
  std::ofstream out(path);
  for (auto& p : v) out << "v " << p.x() << " " << p.y() << " " << p.z() << "\n";
  for (auto& tri : f) out << "f " << tri[0] + 1 << " " << tri[1] + 1 << " " << tri[2] + 1 << "\n";
  return path;
}

Mat<3, 3> boxInertia(double m, double x, double y, double z) {
  Mat<3, 3> I;
  I.setZero();
  I(0, 0) = m / 12 * (y * y + z * z);
  I(1, 1) = m / 12 * (x * x + z * z);
  I(2, 2) = m / 12 * (x * x + y * y);
  return I;
}

}  // namespace

TEST(MeshObj, QuadsSlashesLineEndsBadFilesScalesAndTheBoundingBoxQuirk) {
  std::vector<float> v;
  std::vector<uint32_t> idx;
  Mesh::loadObj(kMeshDir + "cube.obj", v, idx, 2.0);
  ASSERT_EQ(v.size(), 24u);
  ASSERT_EQ(idx.size(), 36u);  // six quads, two triangles each
  // "f 1/1/1 4/1/1 3/1/1 2/1/1": (0, 3, 2) and (2, 1, 0).
  EXPECT_EQ(std::vector<uint32_t>(idx.begin(), idx.begin() + 6), (std::vector<uint32_t>{0, 3, 2, 2, 1, 0}));
  // Runs of blanks between tokens: "f  4  1  5  8".
  EXPECT_EQ(std::vector<uint32_t>(idx.end() - 6, idx.end()), (std::vector<uint32_t>{3, 0, 4, 4, 7, 3}));
  v.clear();
  idx.clear();
  Mesh::loadObj(kMeshDir + "crlf_quad.obj", v, idx, 1.0);
  EXPECT_EQ(v.size(), 12u);
  EXPECT_FLOAT_EQ(v[11], 12.0f);
  // A quad whose fourth vertex repeats the third is one triangle; "1/2/3 4/5/6
  // 2/8/9" counts by the first number of each.
  EXPECT_EQ(idx, (std::vector<uint32_t>{0, 1, 2, 0, 3, 1}));

  const std::pair<std::string, std::string> cases[] = {
      {"missing.obj", kMeshDir + "missing.obj is not found."},
      {"cube.stl", "Only obj files are supported for mesh collision bodies"},
      {"cube.OBJ", "Only obj files are supported"},
      {"bad_number.obj", "bad_number.obj: line 2: 'zero' is not a number"},
      {"bad_index.obj", "a face refers to vertex 7, but the file defines 3 vertices"},
  };
  for (const auto& [file, message] : cases) {
    const std::string text = vorsim_test::fatalOf([&] { Mesh::loadObj(kMeshDir + file, v, idx, 1.0); });
    EXPECT_NE(text.find(message), std::string::npos) << file << ": " << text;
  }

  // The file is scaled once in double precision by loadObj, and the mass-only
  // constructor scales it a second time.
  Mesh twice(kMeshDir + "cube.obj", nullptr, 2.0, 2.0);
  Mesh once(kMeshDir + "cube.obj", nullptr, 2.0, boxInertia(1.0, 1, 1, 1), Mat<3, 1>{0, 0, 0}, 2.0);
  EXPECT_FLOAT_EQ(twice.getMeshVertices()[0], -2.0f);  // 4 x the file's -0.5
  EXPECT_FLOAT_EQ(once.getMeshVertices()[0], -1.0f);
  // Bounding-box inertia: products of squares, box of edge 4 -> 2/12 * 16 * 16.
  EXPECT_NEAR(twice.getInertiaMatrix_B()(0, 0), 2.0 / 12.0 * 256.0, 1e-9);
  EXPECT_EQ(twice.getInertiaMatrix_B()(0, 1), 0.0);
  // A mesh wholly at negative x: the box still reaches x = 0.
  Mesh negative(kMeshDir + "negative_x.obj", nullptr, 12.0, 1.0);
  EXPECT_LT((negative.getBodyComOffset().e() - Eigen::Vector3d(-1.5, 0.5, 1.0)).norm(), 1e-15);
  EXPECT_EQ(negative.getGyroscopicMode(), EXPLICIT_GYROSCOPIC_FORCE);
  EXPECT_NEAR(negative.getInertiaMatrix_B()(2, 2), 3 * 3 * 1 * 1, 1e-6);
  EXPECT_NEAR(negative.getInertiaMatrix_B()(1, 1), 3 * 3 * 2 * 2, 1e-6);
}

TEST(MeshMassProperties, ClosedMeshesMatchTheSolidsTheyBound) {
  std::vector<float> v;
  std::vector<uint32_t> idx;
  Mesh::loadObj(kMeshDir + "cube.obj", v, idx, 0.4);
  // Shift the cube so that the centre of mass is away from the origin.
  for (size_t i = 0; i < v.size(); i += 3) v[i] += 1.0f, v[i + 2] -= 0.5f;
  Mat<3, 3> I;
  Mat<3, 1> com;
  const double volume = Mesh::massPropertiesOfClosedMesh(v, idx, 3.0, I, com);
  EXPECT_NEAR(volume, 0.064, 1e-7);
  EXPECT_LT((com.e() - Eigen::Vector3d(1.0, 0.0, -0.5)).norm(), 1e-7);
  const Mat<3, 3> ref = boxInertia(3.0, 0.4, 0.4, 0.4);
  for (size_t i = 0; i < 9; ++i) EXPECT_NEAR(I[i], ref[i], 1e-7) << i;

  // A single triangle encloses nothing.
  std::vector<float> tri{0, 0, 0, 1, 0, 0, 0, 1, 0};
  std::vector<uint32_t> one{0, 1, 2};
  EXPECT_EQ(Mesh::massPropertiesOfClosedMesh(tri, one, 1.0, I, com), 0.0);
}

TEST(MeshDynamics, AMeshBallRollsDownASlopeLikeASphere) {
  World world;
  world.setTimeStep(0.001);
  const double angle = 15.0 * M_PI / 180.0, r = 0.1;
  auto* slope = world.addBox(20.0, 4.0, 1.0, 1.0);
  slope->setBodyType(STATIC);
  const Eigen::Matrix3d R = Eigen::AngleAxisd(-angle, Eigen::Vector3d::UnitY()).toRotationMatrix();
  slope->setPose(Eigen::Vector3d::Zero(), R);
  // Start both on the surface, 1 m apart across the slope.
  const Eigen::Vector3d normal = R.col(2);
  const Eigen::Vector3d down = (-Eigen::Vector3d::UnitZ() + normal.z() * normal).normalized();
  auto* sphere = world.addSphere(r, 1.0);
  sphere->setPosition(Eigen::Vector3d(normal * (0.5 + r) - down * 5.0 + Eigen::Vector3d(0, -0.5, 0)));
  auto* ball = world.addMesh(writeIcosphere(5), 1.0, r);
  ball->setPosition(Eigen::Vector3d(normal * (0.5 + r) - down * 5.0 + Eigen::Vector3d(0, 0.5, 0)));
  const Eigen::Vector3d start = ball->getPositionEigen(), sphereStart = sphere->getPositionEigen();
  const double t = 1.5;
  for (int i = 0; i < int(t / 0.001); ++i) world.integrate();
  const double travelled = (ball->getPositionEigen() - start).dot(down);
  const double sphereTravelled = (sphere->getPositionEigen() - sphereStart).dot(down);
  const double rolling = 0.5 * 5.0 / 7.0 * 9.81 * std::sin(angle) * t * t;
  EXPECT_NEAR(sphereTravelled, rolling, 0.02 * rolling);
  // Facets cost energy at every edge: measured 12 % short with 1280 triangles, 6 % with
  // 5120, 4 % with these 20480.
  EXPECT_NEAR(travelled, sphereTravelled, 0.05 * sphereTravelled);
  // Rolling, not sliding: the spin matches the speed.
  EXPECT_NEAR(ball->getAngularVelocity().norm() * r, ball->getLinearVelocity().norm(),
              0.05 * ball->getLinearVelocity().norm());
}

TEST(MeshDynamics, MeshesCollideWithPrimitivesAndEachOther) {
  World world;
  world.setTimeStep(0.001);
  world.addGround();
  const double edge = 0.2;
  const Mat<3, 3> I = boxInertia(1.0, edge, edge, edge);
  // A mesh cube on a mesh cube (a mesh on a box rolls down the slope above).
  auto* meshBase = world.addMesh(kMeshDir + "cube.obj", 1.0, I, Mat<3, 1>{0, 0, 0}, edge);
  meshBase->setPosition(1, 0, edge / 2);
  auto* onMesh = world.addMesh(meshBase);
  onMesh->setPosition(1, 0, 1.5 * edge + 0.01);
  // A sphere dropped on a mesh cube.
  auto* meshBase2 = world.addMesh(meshBase);
  meshBase2->setPosition(2, 0, edge / 2);
  auto* ball = world.addSphere(0.05, 0.5);
  ball->setPosition(2, 0, edge + 0.1);
  for (int i = 0; i < 1500; ++i) world.integrate();
  EXPECT_NEAR(onMesh->getPosition()[2], 1.5 * edge, 3e-3);
  EXPECT_NEAR(ball->getPosition()[2], edge + 0.05, 3e-3);
  EXPECT_EQ(onMesh->getMeshVertices(), meshBase->getMeshVertices());
}

TEST(MeshDynamics, LoadCollideRemoveCycles) {
  // A copy shares its source's triangles; removing the source first leaves the copy working.
  World world;
  world.addGround();
  world.addSphere(0.1, 1.0)->setPosition(3, 0, 0.1);
  for (int cycle = 0; cycle < 5; ++cycle) {
    auto* a = world.addMesh(kMeshDir + "cube.obj", 1.0, 0.2);
    a->setPosition(0, 0, 0.1);
    auto* b = world.addMesh(a);
    b->setPosition(0.05, 0, 0.3);
    for (int i = 0; i < 20; ++i) world.integrate();
    EXPECT_GT(world.getContactProblem().size(), 0u);
    world.removeObject(a);
    EXPECT_EQ(geomData(b->getCollisionObject()).objectIndex, 2u);
    for (int i = 0; i < 5; ++i) world.integrate();
    world.removeObject(b);
  }
  EXPECT_EQ(world.getObjList().size(), 2u);
}
