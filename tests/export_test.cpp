// Export: the tree writer; a world written out and read back steps bit for
// bit like the original; a robot built in code, written as URDF and read back,
// has the same tables and mass matrix.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <random>

#include "robot_compare.hpp"
#include "test_helpers.hpp"
#include "vorsim/Collision.hpp"
#include "vorsim/VorSimTinyXmlWriter.hpp"
#include "vorsim/object/ArticulatedSystem/ArticulatedSystem.hpp"
#include "vorsim/object/HeightMap.hpp"
#include "vorsim/object/Mesh.hpp"
#include "vorsim/object/Primitives.hpp"

using namespace vorsim;
using vorsim_test::fatalOf;

namespace {

const std::string kData = std::string(VORSIM_TEST_DATA_DIR);
const std::string kModels = kData + "/../../models/";

std::string readFile(const std::string& path) {
  return std::string(std::istreambuf_iterator<char>(std::ifstream(path).rdbuf()), std::istreambuf_iterator<char>());
}

Mat<3, 3> rotation(double w, double x, double y, double z) {
  Mat<4, 1> q{w, x, y, z};
  q /= q.norm();
  Mat<3, 3> R;
  quatToRotMat(q, R);
  return R;
}

Child body(const std::string& bodyName, const std::string& jointName, Joint::Type type, double mass) {
  Child c;
  c.bodyName = bodyName;
  c.name = jointName;
  c.type = type;
  c.mass = mass;
  c.inertia.setZero();
  c.inertia(0, 0) = c.inertia(1, 1) = c.inertia(2, 2) = 0.01 * (mass + 0.1);
  c.velocityLimit = 10.0;
  return c;
}

// A robot built in code with every joint kind, fixed links (one carrying a
// movable joint), spring, limits, colours and contact materials.
Child robotTree(Joint::Type rootType) {
  Child root = body("base", rootType == Joint::FIXED ? "mount" : "", rootType, 3.0);
  root.pos = {0.0, 0.5, 1.0};
  root.rot = rotation(0.9, 0.0, 0.0, 0.3);
  root.com = {0.01, 0.02, 0.03};
  root.collisionBodies.emplace_back(Shape::Box, Mat<4, 1>{0.3, 0.2, 0.1, 0.0}, Mat<3, 1>{0.0, 0.0, 0.05},
                                    rotation(1.0, 0.1, 0.0, 0.0), Mat<3, 1>{1.0, 1.0, 1.0}, "base/0", "steel", "grey",
                                    "");
  root.addVisualObject(Shape::Box, Mat<4, 1>{0.3, 0.2, 0.1, 0.0}, Mat<3, 1>{0.0, 0.0, 0.05}, Mat<3, 3>::getIdentity(),
                       Mat<4, 1>{0.2, 0.3, 0.4, 1.0}, Mat<3, 1>{1.0, 1.0, 1.0}, "", "base", "");

  Child arm = body("link1", "j1", Joint::REVOLUTE, 1.0);
  arm.pos = {0.1, 0.0, 0.2};
  arm.rot = rotation(1.0, 0.2, 0.3, 0.1);
  arm.axis = {0.0, 1.0, 0.0};
  arm.limit = {-1.0, 1.2};
  arm.effort = 20.0;
  arm.damping = 0.1;
  arm.friction = 0.2;
  arm.rotorInertia = 0.03;
  arm.stiffness = 5.0;
  arm.springMount = {0.1, 0.0, 0.0, 0.0};
  arm.com = {0.05, 0.0, 0.1};
  arm.inertia(0, 1) = arm.inertia(1, 0) = 0.001;
  arm.collisionBodies.emplace_back(Shape::Capsule, Mat<4, 1>{0.03, 0.3, 0.0, 0.0}, Mat<3, 1>{0.0, 0.0, 0.15},
                                   Mat<3, 3>::getIdentity(), Mat<3, 1>{1.0, 1.0, 1.0}, "arm/0", "", "paint", "");
  arm.addVisualObject(Shape::Sphere, Mat<4, 1>{0.05, 0.0, 0.0, 0.0}, Mat<3, 1>{0.0, 0.0, 0.3}, Mat<3, 3>::getIdentity(),
                      Mat<4, 1>{1.0, 0.0, 0.0, 1.0}, Mat<3, 1>{1.0, 1.0, 1.0}, "", "link1", "paint");

  Child mount = body("cam_link", "cam_mount", Joint::FIXED, 0.2);
  mount.pos = {0.0, 0.0, 0.3};
  mount.rot = rotation(1.0, 0.0, 0.5, 0.0);
  mount.com = {0.0, 0.01, 0.0};
  Child carriage = body("carriage", "slider", Joint::PRISMATIC, 0.5);
  carriage.axis = {1.0, 0.0, 0.0};
  carriage.limit = {-0.1, 0.1};
  carriage.pos = {0.02, 0.0, 0.0};
  mount.child.push_back(carriage);
  arm.fixedBodies.push_back(mount);

  Child ball = body("link2", "ball", Joint::SPHERICAL, 0.7);
  ball.pos = {-0.1, 0.0, 0.2};
  ball.limit = {0.5, 0.0};
  ball.stiffness = 2.0;
  ball.springMount = {0.9, 0.1, 0.0, 0.0};
  ball.collisionBodies.emplace_back(Shape::Sphere, Mat<4, 1>{0.04, 0.0, 0.0, 0.0}, Mat<3, 1>{0.0, 0.0, 0.1},
                                    Mat<3, 3>::getIdentity(), Mat<3, 1>{1.0, 1.0, 1.0}, "ball/0", "rubber", "", "");
  Child cylinder = body("link3", "j3", Joint::REVOLUTE, 0.3);
  cylinder.axis = {0.0, 0.0, 1.0};
  cylinder.pos = {0.0, 0.0, 0.2};
  // Pitched by 90 degrees (then rolled): only the difference of roll and yaw
  // is defined there, and the URDF angles must still give this rotation.
  const double c = std::sqrt(0.5), cx = std::cos(0.15), sx = std::sin(0.15);
  cylinder.rot = rotation(c * cx, c * sx, c * cx, -c * sx);
  cylinder.collisionBodies.emplace_back(Shape::Cylinder, Mat<4, 1>{0.02, 0.1, 0.0, 0.0}, Mat<3, 1>{0.0, 0.0, 0.05},
                                        Mat<3, 3>::getIdentity(), Mat<3, 1>{1.0, 1.0, 1.0}, "c/0", "", "", "");
  ball.child.push_back(cylinder);

  root.child.push_back(arm);
  root.child.push_back(ball);
  return root;
}

struct BodyState {
  Mat<3, 1> pos, v, w;
  Mat<4, 1> q;
};

BodyState stateOf(Object* o) {
  auto* s = dynamic_cast<SingleBodyObject*>(o);
  return {s->getPosition(), s->getLinearVelocity(), s->getAngularVelocity(), s->getQuaternion()};
}

bool sameBits(const BodyState& a, const BodyState& b) { return std::memcmp(&a, &b, sizeof(BodyState)) == 0; }

// Writes the world to the temporary directory; what it printed.
std::string exportWorld(World& world, const std::string& file) {
  StdoutCapture out;
  EXPECT_TRUE(world.exportToXml(testing::TempDir(), file));
  return out.text();
}

}  // namespace

TEST(XmlWriter, BuildsChainsAndSaves) {
  VorSimTinyXmlWriter writer("root");
  writer["a"].setAttribute("n", 3).setAttribute("x", 0.1).setAttribute("s", "text <&>");
  writer["a"].setAttribute("n", 4);  // the same child, the attribute replaced
  writer.getRoot().appendChild("a").setAttribute("v", Mat<3, 1>{1.0, -2.5, 1e-20});
  writer["b"]["c"].setAttribute("e", Eigen::Vector3d(0.5, 0.25, 0.125)).setAttribute("z", size_t(7));
  VecDyn q(2);
  q[0] = M_PI;
  q[1] = -0.0;
  writer["b"].setAttribute("q", q).setAttribute("flag", true).setAttribute("list", std::vector<double>{1, 2});
  EXPECT_EQ(writer["a"].findAttribute("missing"), nullptr);

  const std::string text = writer.toString();
  EXPECT_EQ(text.find("<?xml version=\"1.0\" ?>"), 0u) << text;
  EXPECT_NE(text.find("<a n=\"4\" x=\"0.1\" s=\"text &lt;&amp;&gt;\" />"), std::string::npos) << text;
  EXPECT_NE(text.find("<a v=\"1,-2.5,1e-20\" />"), std::string::npos) << text;
  EXPECT_NE(text.find("<c e=\"0.5,0.25,0.125\" z=\"7\" />"), std::string::npos) << text;
  EXPECT_NE(text.find("q=\"3.141592653589793,-0\" flag=\"true\" list=\"1,2\""), std::string::npos) << text;

  const std::string path = testing::TempDir() + "vorsim_writer.xml";
  {
    StdoutCapture out;
    EXPECT_TRUE(writer.saveFile(path));
    EXPECT_NE(out.text().find("Saving world to: " + path), std::string::npos);
  }
  EXPECT_EQ(readFile(path), text);
}

TEST(WorldExport, RoundTripStepsBitForBit) {
  World original;
  original.setTimeStep(0.002);
  original.setGravity(Mat<3, 1>{0.1, 0.0, -9.7});
  original.setERP(0.2, 0.003);
  original.setMaterialPairProp("rubber", "floor", 0.9, 0.4, 0.05);
  original.setMaterialPairProp("steel", "floor", 0.3, 0.1, 0.05);
  original.addGround(0.0, "floor")->setName("floor");

  auto place = [](SingleBodyObject* o, const Mat<4, 1>& q, const Mat<3, 1>& p) {
    o->setOrientation(q);
    o->setPosition(p);
  };
  auto* ball = original.addSphere(0.1, 2.0, "rubber", 1, 5);
  place(ball, {1.0, 0.0, 0.0, 0.0}, {0.0, 0.0, 0.5});
  ball->setVelocity(0.3, 0.1, 0.0, 0.0, 2.0, 0.0);  // left unnamed
  auto* crate = original.addBox(0.2, 0.3, 0.4, 3.0, "steel");
  crate->setName("crate");
  place(crate, {0.9, 0.1, 0.2, 0.3}, {0.6, 0.0, 0.4});
  crate->setAppearance("red");
  crate->setLinearDamping(0.3);
  crate->setAngularDamping(Mat<3, 1>{0.1, 0.2, 0.05});
  auto* can = original.addCylinder(0.05, 0.2, 0.5, "steel");
  can->setName("can");
  place(can, {0.7, 0.7, 0.0, 0.0}, {-0.5, 0.0, 0.3});
  can->setInertia(Mat<3, 3>{0.01, 0.0, 0.0, 0.0, 0.02, 0.0, 0.0, 0.0, 0.03});
  can->setGyroscopicMode(EXPLICIT_GYROSCOPIC_FORCE);
  auto* pill = original.addCapsule(0.05, 0.2, 0.5, "rubber", 2, 3);
  pill->setName("pill");
  place(pill, {1.0, 0.0, 0.0, 0.0}, {1.5, 0.0, 1.0});
  pill->setBodyType(KINEMATIC);
  pill->setVelocity(0.0, 0.0, -0.2, 0.0, 0.0, 0.5);
  auto* cube = original.addMesh(kData + "/meshes/cube.obj", 1.0, Mat<3, 3>{0.02, 0, 0, 0, 0.02, 0, 0, 0, 0.02},
                                Mat<3, 1>{0.05, 0.0, 0.0}, 0.2, "steel");
  cube->setName("cube");
  place(cube, {0.95, 0.0, 0.3, 0.0}, {0.0, 0.8, 0.3});
  auto* scaled = original.addMesh(kData + "/meshes/cube.obj", 2.0, 0.3, "rubber");
  scaled->setName("scaled");
  place(scaled, {1.0, 0.0, 0.0, 0.0}, {0.0, -0.8, 0.3});
  auto* twin = original.addMesh(cube, "steel");
  twin->setMeshSource("", 1.0);  // its triangles only, from no file: written as OBJ
  twin->setName("twin");
  place(twin, {0.9, 0.3, 0.0, 0.1}, {0.8, -0.8, 0.3});

  // name, type, size, material, appearance, rotation, position
  const std::vector<Compound::CompoundObjectChild> parts = {
      {"", BOX, {0.1, 0.1, 0.1, 0.0}, "steel", "", rotation(1.0, 0.3, 0.2, 0.1), {0.0, 0.0, 0.1}},
      {"", SPHERE, {0.05, 0.0, 0.0, 0.0}, "default", "blue", Mat<3, 3>::getIdentity(), {0.1, 0.0, -0.1}},
      {"", CAPSULE, {0.02, 0.2, 0.0, 0.0}, "default", "", rotation(0.0, 1.0, 0.0, 0.0)}};
  auto* bell = original.addCompound(parts, 1.5, Mat<3, 1>{0.0, 0.0, 0.05},
                                    Mat<3, 3>{0.05, 0.0, 0.0, 0.0, 0.05, 0.0, 0.0, 0.0, 0.02});
  bell->setName("bell");
  place(bell, {0.8, 0.0, 0.6, 0.0}, {-1.0, -1.0, 0.6});

  TerrainProperties terrain(0.5, 4.0, 4.0, 0.3, 17, 17, 3, 2.0, 0.5, 0.0, -0.25, 11);
  original.addHeightMap(3.0, 3.0, terrain, "floor")->setName("terrain");
  auto* moved = original.addHeightMap(3, 3, 1.0, 1.0, 0.0, 0.0, {0, 0, 0, 0, 0.2, 0, 0, 0, 0}, "floor");
  moved->setName("moved");
  moved->setPosition(-3.0, 3.0, -0.1);

  auto* turned = original.addHeightMap(3, 3, 1.0, 1.0, 5.0, -5.0, {0, 0, 0, 0, 0.1, 0, 0, 0, 0}, "floor");
  turned->setName("turned");
  turned->setOrientation(Mat<4, 1>{std::cos(0.05), std::sin(0.05), 0.0, 0.0});  // turned, not moved

  ArticulatedSystem* pendulum = original.addArticulatedSystem(kData + "/world/pendulum.urdf");
  pendulum->setName("pendulum");
  // A robot of the model files under PD control with a feed-forward force:
  // gains, targets and force are part of what the file carries. (Robots do not
  // yet meet the ground: this one falls on its floating base.)
  ArticulatedSystem* anymal = original.addArticulatedSystem(kModels + "anymal_b/anymal.urdf");
  anymal->setName("anymal");
  VecDyn q0 = anymal->getGeneralizedCoordinate(), target = q0, u(anymal->dof), p(anymal->dof), d(anymal->dof);
  for (size_t i = 7; i < anymal->gcDim; ++i) {
    q0[i] = 0.3 * std::sin(double(i) + 1.0);
    target[i] = 0.2 * std::cos(double(i));
  }
  for (size_t i = 0; i < anymal->dof; ++i) {
    u[i] = 0.1 * double(i % 3);
    p[i] = 50.0 + double(i);
    d[i] = 2.0 + 0.1 * double(i);
  }
  anymal->setGeneralizedCoordinate(q0);
  anymal->setGeneralizedVelocity(u);
  anymal->setControlMode(ArticulatedSystem::PD_PLUS_FEEDFORWARD_TORQUE);
  anymal->setPdGains(p, d);
  anymal->setPdTarget(target, d);  // any distinct numbers serve as velocity target and force
  anymal->setGeneralizedForce(u);

  original.addStiffWire(ball, 0, {0.0, 0.0, 0.05}, crate, 0, {0.0, 0.0, 0.2}, 0.7)
      ->setStretchType(LengthConstraint::BOTH);
  auto* spring = original.addCompliantWire(crate, 0, {0.1, 0.0, 0.0}, can, 0, {0.0, 0.0, 0.1}, 1.0, 40.0);
  spring->setName("spring");
  spring->setStretchType(LengthConstraint::COMPRESSION_ONLY);
  auto* rope = original.addCustomWire(pendulum, 1, {0.0, 0.0, -0.3}, cube, 0, {0.0, 0.0, 0.0}, 0.5);
  rope->setName("rope");
  rope->setTension(3.0);
  original.addCompliantWire(cube, 0, {0.0, 0.05, 0.0}, pendulum, 1, {0.0, 0.0, -0.2}, 0.9, 25.0)->setName("band");

  // One step before the export: the sweep order has turned, which the file
  // carries. The solver options go on afterwards (switching the warm start
  // forgets the step), so that both worlds start without a last step.
  original.integrate();
  original.setWarmStart(true);
  original.setWarmStartTolerance(0.02);
  original.setExactCoulombSliding(true);
  original.setContactSolverParam(1.0, 1.0, 1.0, 120, 1e-9);

  const std::string dir = testing::TempDir();
  exportWorld(original, "vorsim_roundtrip.xml");
  const std::string text = readFile(dir + "vorsim_roundtrip.xml");
  EXPECT_NE(text.find("<vorsim version=\"1.1.7\">"), std::string::npos);
  // Only the compound's turned box needs its matrix: the other children's
  // quaternions give their rotations back exactly.
  EXPECT_NE(text.find("rot=\""), std::string::npos);
  EXPECT_EQ(text.find("rot=\"", text.find("rot=\"") + 1), std::string::npos);
  EXPECT_EQ(text.find("object_class"), std::string::npos);

  const auto owner = vorsim_test::built<World>(dir + "vorsim_roundtrip.xml").first;
  World& copy = *owner;
  // Material pairs are not written.
  EXPECT_EQ(copy.getMaterialManager().getMaterialPairProp("rubber", "floor").c_f, 0.8);
  copy.updateMaterialProp(original.getMaterialManager());

  ASSERT_EQ(copy.getObjList().size(), original.getObjList().size());
  EXPECT_EQ(copy.getObjList()[1]->getName(), "unnamed_1");
  for (size_t i = 0; i < copy.getObjList().size(); ++i) {
    Object* a = original.getObjList()[i];
    Object* b = copy.getObjList()[i];
    EXPECT_EQ(a->getObjectType(), b->getObjectType()) << i;
    EXPECT_EQ(a->getBodyType(), b->getBodyType()) << i;
    auto* sa = dynamic_cast<SingleBodyObject*>(a);
    auto* sb = dynamic_cast<SingleBodyObject*>(b);
    if (sa == nullptr) continue;
    EXPECT_EQ(std::make_tuple(sa->getCollisionGroup(), sa->getCollisionMask(), sa->getAppearance(),
                              geomData(sa->getCollisionObject()).material),
              std::make_tuple(sb->getCollisionGroup(), sb->getCollisionMask(), sb->getAppearance(),
                              geomData(sb->getCollisionObject()).material))
        << i;
    // The rest of a body's properties show in the steps below, for the bodies that move.
    EXPECT_EQ(std::memcmp(&sa->getInertiaMatrix_B(), &sb->getInertiaMatrix_B(), sizeof(Mat<3, 3>)), 0) << i;
  }
  auto* twinCopy = dynamic_cast<Mesh*>(copy.getObject("twin"));
  ASSERT_NE(twinCopy, nullptr);
  EXPECT_EQ(twinCopy->getMeshVertices(), twin->getMeshVertices());
  EXPECT_EQ(twinCopy->getMeshIndices(), twin->getMeshIndices());
  EXPECT_NE(text.find("fileName=\"[THIS_DIR]/vorsim_roundtrip_twin.obj\""), std::string::npos);
  auto* bellCopy = dynamic_cast<Compound*>(copy.getObject("bell"));
  for (size_t k = 0; k < 3; ++k) {
    EXPECT_EQ(std::memcmp(&bellCopy->getChildren()[k].rotation, &parts[k].rotation, sizeof(Mat<3, 3>)), 0) << k;
    EXPECT_EQ(bellCopy->getChildren()[k].material, bell->getChildren()[k].material);
    EXPECT_EQ(bellCopy->getChildren()[k].appearance, bell->getChildren()[k].appearance);
  }
  EXPECT_EQ(dynamic_cast<HeightMap*>(copy.getObject("terrain"))->getHeightMap(),
            dynamic_cast<HeightMap*>(original.getObject("terrain"))->getHeightMap());
  ASSERT_EQ(copy.getWires().size(), 4u);
  for (size_t k = 0; k < 4; ++k) {
    const LengthConstraint& a = *original.getWires()[k];
    const LengthConstraint& b = *copy.getWires()[k];
    EXPECT_EQ(std::make_tuple(a.getWireType(), a.getStretchType(), a.getName(), a.getBody2()->getIndexInWorld()),
              std::make_tuple(b.getWireType(), b.getStretchType(), b.getName(), b.getBody2()->getIndexInWorld()))
        << k;
    EXPECT_EQ(a.getLocalIdx1(), b.getLocalIdx1()) << k;
  }
  EXPECT_EQ(dynamic_cast<const CustomLengthConstraint&>(*copy.getWires()[2]).getTension(), 3.0);

  EXPECT_FALSE(copy.getContactSolver().isForwardOrder());
  auto* anymalCopy = dynamic_cast<ArticulatedSystem*>(copy.getObject("anymal"));
  ASSERT_NE(anymalCopy, nullptr);
  EXPECT_EQ(anymalCopy->getControlMode(), ArticulatedSystem::PD_PLUS_FEEDFORWARD_TORQUE);
  const VecDyn anymalStart = anymal->getGeneralizedCoordinate();

  // 1000 steps: every single body's state and the state of every robot read
  // from a URDF file the same to the bit, every step.
  auto sameVector = [](const VecDyn& a, const VecDyn& b) {
    return a.n == b.n && std::memcmp(a.v, b.v, a.n * sizeof(double)) == 0;
  };
  int contacts = 0;
  size_t warmStarted = 0;
  for (int step = 0; step < 1000; ++step) {
    original.integrate();
    copy.integrate();
    contacts += int(original.getContactProblem().size());
    warmStarted += original.getWarmStartedProblemCount();
    ASSERT_EQ(original.getContactProblem().size(), copy.getContactProblem().size()) << "step " << step;
    for (size_t i = 0; i < original.getObjList().size(); ++i) {
      Object* a = original.getObjList()[i];
      if (dynamic_cast<SingleBodyObject*>(a)) {
        ASSERT_TRUE(sameBits(stateOf(a), stateOf(copy.getObjList()[i]))) << "object " << i << " at step " << step;
      } else {
        auto* ra = static_cast<ArticulatedSystem*>(a);
        auto* rb = static_cast<ArticulatedSystem*>(copy.getObjList()[i]);
        ASSERT_TRUE(sameVector(ra->getGeneralizedCoordinate(), rb->getGeneralizedCoordinate()) &&
                    sameVector(ra->getGeneralizedVelocity(), rb->getGeneralizedVelocity()))
            << a->getName() << " at step " << step;
      }
    }
  }
  EXPECT_GT(contacts, 1000);  // the scene is not a free fall
  EXPECT_GT(warmStarted, 1000u);
  // the robot went somewhere under its control
  EXPECT_GT((anymal->getGeneralizedCoordinate().e() - anymalStart.e()).cwiseAbs().maxCoeff(), 0.1);
}

TEST(WorldExport, MessagesAndWhatIsNotWritten) {
  World world;
  world.addSphere(0.1, 1.0);
  const std::string bad = testing::TempDir() + "no_such_dir";
  const std::string failed = fatalOf([&] { world.exportToXml(bad, "w.xml"); });
  EXPECT_NE(failed.find("failed to save file: " + bad + "/w.xml. Make sure the directory exists"), std::string::npos);

  // A robot read from URDF is named by its file; URDF text is written out.
  ArticulatedSystem* fromFile = world.addArticulatedSystem(kData + "/world/pendulum.urdf");
  fromFile->setName("fromFile");
  const std::string text = readFile(kData + "/world/pendulum.urdf");
  ArticulatedSystem* fromText = world.addArticulatedSystem(text, kData + "/world");
  fromText->setName("fromText");
  exportWorld(world, "vorsim_robots.xml");
  const std::string written = readFile(testing::TempDir() + "vorsim_robots.xml");
  EXPECT_NE(written.find("urdf_path=\"" + kData + "/world/pendulum.urdf\""), std::string::npos) << written;
  EXPECT_NE(written.find("urdf_path=\"[THIS_DIR]/vorsim_robots_fromText.urdf\""), std::string::npos) << written;
  EXPECT_EQ(readFile(testing::TempDir() + "vorsim_robots_fromText.urdf"), text);
  World back(testing::TempDir() + "vorsim_robots.xml");
  ASSERT_EQ(back.getObjList().size(), 3u);
  vorsim_test::expectSameTables(*fromText, *dynamic_cast<ArticulatedSystem*>(back.getObject("fromText")), 0.0);

  // A wire on the second of two objects of one name: read back, it would hold
  // the first, and the writer says so.
  World twins;
  twins.addSphere(0.1, 1.0)->setName("twin");
  Sphere* second = twins.addSphere(0.1, 1.0);
  second->setName("twin");
  twins.addStiffWire(second, 0, {0, 0, 0}, twins.getObject("twin"), 0, {0, 0, 0}, 1.0)->setName("w");
  const std::string said = exportWorld(twins, "vorsim_twins.xml");
  EXPECT_NE(said.find("the wire w holds the object \"twin\", a name that another object has too"), std::string::npos)
      << said;
  EXPECT_EQ(said.find("a name that another object has too", said.find("has too") + 1), std::string::npos);

  // A URDF system is not written again; the extension must be ".urdf".
  {
    StdoutCapture out;
    EXPECT_FALSE(fromFile->exportRobotDescriptionToURDF(testing::TempDir(), "again.urdf"));
    EXPECT_NE(out.text().find("This articulated system was created with an existing urdf file"), std::string::npos);
  }
  EXPECT_FALSE(std::ifstream(testing::TempDir() + "again.urdf").good());
  ArticulatedSystem* coded = world.addArticulatedSystem(robotTree(Joint::FLOATING), kData);
  const std::string refused = fatalOf([&] { coded->exportRobotDescriptionToURDF(testing::TempDir(), "robot.xml"); });
  EXPECT_NE(refused.find("Articulated System is only saved to a URDF format"), std::string::npos);
}

TEST(RobotExport, ChildTreeRoundTripHasTheSameTablesAndMassMatrix) {
  for (Joint::Type rootType : {Joint::FIXED, Joint::FLOATING}) {
    World world;
    ArticulatedSystem* a = world.addArticulatedSystem(robotTree(rootType), kData);
    a->setName("robot");
    {
      StdoutCapture quiet;
      ASSERT_TRUE(a->exportRobotDescriptionToURDF(testing::TempDir(), "vorsim_robot.urdf"));
    }
    ArticulatedSystem* b = world.addArticulatedSystem(testing::TempDir() + "vorsim_robot.urdf", kData);
    // The merged link keeps its frame; the movable joint below it moved up.
    EXPECT_EQ(a->bodyNames, (std::vector<std::string>{"base", "link1", "carriage", "link2", "link3"}));
    vorsim_test::expectSameTables(*a, *b, 1e-12);
    EXPECT_EQ(a->getFrameIdxByName("cam_mount"), b->getFrameIdxByName("cam_mount"));
    EXPECT_NE(a->getFrameIdxByName("cam_mount"), ArticulatedSystem::kNone);
    for (size_t k = 0; k < a->getCollisionBodies().size(); ++k)
      EXPECT_EQ(geomData(a->getCollisionBodies()[k].colObj).material,
                geomData(b->getCollisionBodies()[k].colObj).material);
    if (rootType == Joint::FIXED) {
      vorsim_test::expectNear(a->posW[0], b->posW[0], 0.0, "base position");
      vorsim_test::expectNear(a->rotW[0], b->rotW[0], 1e-15, "base rotation");
    }

    std::mt19937 rng(3);
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    for (int trial = 0; trial < 4; ++trial) {
      VecDyn q(a->gcDim);
      for (size_t i = 0; i < q.n; ++i) q[i] = u(rng);
      a->setGeneralizedCoordinate(q);
      b->setGeneralizedCoordinate(q);
      for (size_t i = 0; i < a->nbody; ++i) {
        vorsim_test::expectNear(a->posW[i], b->posW[i], 1e-12, "posW");
        vorsim_test::expectNear(a->rotW[i], b->rotW[i], 1e-12, "rotW");
      }
      const Eigen::MatrixXd Ma = vorsim_test::massMatrixOf(*a);
      const Eigen::MatrixXd Mb = vorsim_test::massMatrixOf(*b);
      EXPECT_LT((Ma - Mb).cwiseAbs().maxCoeff(), 1e-12);
      EXPECT_GT(Ma.diagonal().minCoeff(), 1e-3);
    }
  }
}
