// Building a system from a Child tree: merging of fixed links, the body-, gc-
// and gv-indexed tables, frames, geoms, names, and a robot's place in a world.
#include <gtest/gtest.h>

#include <cmath>

#include "robot_compare.hpp"
#include "vorsim/object/Primitives.hpp"
#include "vorsim/sensors/InertialMeasurementUnit.hpp"

using namespace vorsim;
using namespace vorsim_test;

namespace {

constexpr size_t kNone = size_t(-1);
constexpr size_t kFixedBaseIdx = 0xFFFFFFFFu;

Eigen::Matrix3d E(const Mat<3, 3>& m) { return m.e(); }
Eigen::Vector3d E(const Mat<3, 1>& m) { return m.e(); }

void expectFatal(const std::function<void()>& fn, const std::string& text) {
  const std::string out = fatalOf(fn);
  EXPECT_NE(out.find(text), std::string::npos) << "expected: " << text << "\ngot: " << out;
}

Child withShape(Child c, Shape::Type shape = Shape::Box) {
  c.collisionBodies.emplace_back(shape, Mat<4, 1>{0.1, 0.1, 0.1, 0}, Mat<3, 1>{0, 0, 0}, Mat<3, 3>::getIdentity(),
                                 Mat<3, 1>{1, 1, 1}, c.bodyName + "/0", "", "", "");
  return c;
}

}  // namespace

TEST(Building, FixedLinksMergeIntoTheirMovableAncestor) {
  // base (floating) -> fixed f1 -> fixed f2 -> revolute arm
  //                 \-> fixed f3 (massless, with a collision body and a sensor)
  Child base = root("base", Joint::FLOATING, 2.0, {0.1, 0, 0}, {0.1, 0.2, 0.3});
  Child f1 = link("f1", Joint::FIXED, 1.5, {0, 0.2, 0}, {0.01, 0.02, 0.03});
  f1.pos = {0.5, 0, 0.1};
  f1.rot = rotation(0.6, {0, 0, 1});
  f1.inertia(0, 1) = f1.inertia(1, 0) = 0.004;
  Child f2 = link("f2", Joint::FIXED, 0.5, {0, 0, -0.1}, {0.002, 0.003, 0.004});
  f2.pos = {0, 0.3, 0};
  f2.rot = rotation(-1.1, {1, 0, 1});
  Child arm = link("arm", Joint::REVOLUTE, 1.0, {0, 0, 0.2}, {0.05, 0.05, 0.01});
  arm.pos = {0.1, 0.1, 0.1};
  arm.rot = rotation(0.3, {0, 1, 0});
  Child f3 = link("f3", Joint::FIXED);
  f3.pos = {-0.4, 0, 0};
  f3.rot = rotation(M_PI / 2, {0, 1, 0});
  f3.collisionBodies.emplace_back(Shape::Sphere, Mat<4, 1>{0.05, 0, 0, 0}, Mat<3, 1>{0, 0, 0.1},
                                  Mat<3, 3>::getIdentity(), Mat<3, 1>{1, 1, 1}, "f3/0", "rubber", "", "");
  f3.sensors.push_back(std::make_shared<InertialMeasurementUnit>(
      InertialMeasurementUnit::ImuProperties{"f3:imu"}, nullptr, Mat<3, 1>{0, 0, 0.2}, Mat<3, 3>::getIdentity()));
  f2.child.push_back(arm);
  f1.fixedBodies.push_back(f2);
  base.fixedBodies = {f1, f3};

  // The reference, computed link by link in the base frame.
  const Eigen::Matrix3d R1 = E(f1.rot), R12 = R1 * E(f2.rot);
  const Eigen::Vector3d p1 = E(f1.pos), p12 = p1 + R1 * E(f2.pos);
  const std::vector<std::tuple<double, Eigen::Vector3d, Eigen::Matrix3d>> parts = {
      {2.0, E(base.com), E(base.inertia)},
      {1.5, p1 + R1 * E(f1.com), R1 * E(f1.inertia) * R1.transpose()},
      {0.5, p12 + R12 * E(f2.com), R12 * E(f2.inertia) * R12.transpose()}};
  Eigen::Vector3d c = Eigen::Vector3d::Zero();
  for (const auto& [m, pc, pI] : parts) c += m * pc / 4.0;
  Eigen::Matrix3d I = Eigen::Matrix3d::Zero();
  for (const auto& [m, pc, pI] : parts)
    I += pI + m * ((pc - c).squaredNorm() * Eigen::Matrix3d::Identity() - (pc - c) * (pc - c).transpose());

  ArticulatedSystem sys(base, "res");
  ASSERT_EQ(sys.nbody, 2u);
  EXPECT_DOUBLE_EQ(sys.massOf[0], 4.0);
  EXPECT_TRUE(E(sys.comB[0]).isApprox(c, 1e-14));
  EXPECT_TRUE(E(sys.inertiaB[0]).isApprox(I, 1e-13)) << E(sys.inertiaB[0]) << "\n" << I;
  // The arm's joint carries both fixed transforms.
  EXPECT_TRUE(E(sys.jointPosP[1]).isApprox(p12 + R12 * E(arm.pos), 1e-14));
  EXPECT_TRUE(E(sys.jointRotP[1]).isApprox(R12 * E(arm.rot), 1e-14));

  // Frames: root, movable child arm, then each fixed link followed by its sensors.
  const auto& frames = sys.getFrames();
  std::vector<std::string> names;
  for (const CoordinateFrame& f : frames) names.push_back(f.name);
  ASSERT_EQ(names, (std::vector<std::string>{"ROOT", "arm_joint", "f1_joint", "f3_joint", "f3:imu", "f2_joint"}));
  EXPECT_TRUE(E(frames[5].orientation).isApprox(R12, 1e-14));
  EXPECT_EQ(frames[5].bodyName + "/" + frames[5].parentName, "f2/base");

  // The massless fixed link still brings its collision body and sensor.
  ASSERT_EQ(sys.getCollisionBodies().size(), 1u);
  const CollisionDefinition& d = sys.getCollisionBodies()[0];
  EXPECT_TRUE(E(d.posOffset).isApprox(Eigen::Vector3d(-0.4 + 0.1, 0, 0), 1e-14));
  EXPECT_EQ(geomData(d.colObj).material, "rubber");
  auto imu = sys.getSensors().at("f3:imu");
  EXPECT_EQ(imu->getFrameIdx(), 4u);
  EXPECT_TRUE(E(imu->getPositionInBody()).isApprox(Eigen::Vector3d(-0.4 + 0.2, 0, 0), 1e-14));

  // Names: a merged link is a frame, not a body.
  EXPECT_EQ(sys.getBodyIdx("nothing"), kNone);
  expectFatal([&] { sys.getBodyIdx("f2"); }, "This is a link name. In VorSim, links with fixed joints are consumed");
  expectFatal([&] { sys.getFrameByName("nope"); }, "There is no frame named \"nope\"");
}

TEST(Building, TablesFollowTheDepthFirstBodyOrder) {
  // fixed root -> A (revolute) -> A1 (prismatic), A2 (spherical); root -> B (revolute).
  // The values of the joint tables are read in the loader tests.
  Child top = root("root", Joint::FIXED, 1.0, {0, 0, 0}, {1, 1, 1});
  Child A = link("A", Joint::REVOLUTE, 1.0, {0, 0, 0}, {1, 1, 1});
  A.jointRef = 0.3;  // turns the joint frame back, after its own rotation
  A.rot = rotation(0.4, {1, 1, 1});
  Child A2 = link("A2", Joint::SPHERICAL, 3.0, {0, 0, 0}, {1, 1, 1});
  A2.limit = {0.7, 0};
  A2.effort = -5;  // only a positive effort is a limit
  A.child = {link("A1", Joint::PRISMATIC, 2.0, {0, 0, 0}, {1, 1, 1}), A2};
  top.child = {A, link("B", Joint::REVOLUTE, 4.0, {0, 0, 0}, {1, 1, 1})};

  StdoutCapture quiet;
  ArticulatedSystem sys(top, "");
  EXPECT_NE(quiet.text().find("resDir is not specified."), std::string::npos);
  ASSERT_EQ(sys.nbody, 5u);
  EXPECT_EQ(sys.bodyNames, (std::vector<std::string>{"root", "A", "A1", "A2", "B"}));
  EXPECT_EQ(sys.parent, (std::vector<size_t>{kNone, 0, 1, 1, 0}));
  EXPECT_EQ(sys.gcIdx, (std::vector<size_t>{kFixedBaseIdx, 0, 1, 2, 6}));
  EXPECT_EQ(sys.gvIdx, (std::vector<size_t>{kFixedBaseIdx, 0, 1, 2, 5}));
  EXPECT_EQ(sys.gvChain, (std::vector<size_t>{0, 1, 2, 4, 1}));
  EXPECT_EQ(sys.dofParent, (std::vector<size_t>{kNone, 0, 0, 2, 3, kNone}));
  EXPECT_EQ(sys.jointNameToGv.at("B_joint"), 5u);
  EXPECT_TRUE(E(sys.jointRotP[1]).isApprox(E(rotation(0.4, {1, 1, 1})) * E(rotation(-0.3, {0, 0, 1})), 1e-14));
  EXPECT_EQ(sys.jointLimits[2][0], 0.7);
  EXPECT_EQ(sys.jointLimits[3][0], 0.0);  // a spherical joint's other entries stay zero
  EXPECT_EQ(sys.tauUpper[2], 1e150);
  // Defaults of gc: the reference coordinate, and unit quaternions.
  EXPECT_EQ(sys.gc.e(), (Eigen::VectorXd(7) << 0.3, 0, 1, 0, 0, 0, 0).finished());
  EXPECT_EQ(sys.getBodyType(0), STATIC);
  Body body;
  body.setInertiaMjcfOrder(Mat<6, 1>{1, 2, 3, 4, 5, 6});  // xx yy zz xy xz yz
  EXPECT_EQ(E(body.inertia), (Eigen::Matrix3d() << 1, 4, 5, 4, 2, 6, 5, 6, 3).finished());
}

TEST(Building, FloatingBaseLayoutAndEdgeTrees) {
  Child top = root("base", Joint::FLOATING, 1.0, {0, 0, 0}, {1, 1, 1});
  top.child.push_back(link("hip", Joint::SPHERICAL, 1.0, {0, 0, 0}, {1, 1, 1}));
  top.child[0].child.push_back(link("leg", Joint::REVOLUTE, 1.0, {0, 0, 0}, {1, 1, 1}));
  ArticulatedSystem sys(top, "r");  // its index tables are exercised by every dynamics test
  EXPECT_EQ(sys.movableJointNames, (std::vector<std::string>{"ROOT", "hip_joint", "leg_joint"}));
  EXPECT_EQ(sys.gc.e(), (Eigen::VectorXd(12) << 0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0, 0).finished());

  // Only fixed links: one body, no degrees of freedom, everything combined.
  Child lone = root("lone", Joint::FIXED, 1.0, {0, 0, 0}, {1, 1, 1});
  Child weight = link("w", Joint::FIXED, 3.0, {0, 0, 0}, {0, 0, 0});
  weight.pos = {0, 0, 1};
  lone.fixedBodies.push_back(weight);
  ArticulatedSystem rigid(lone, "r");
  EXPECT_EQ(rigid.nbody, 1u);
  EXPECT_EQ(rigid.dof, 0u);
  EXPECT_DOUBLE_EQ(rigid.comB[0][2], 0.75);
  EXPECT_DOUBLE_EQ(rigid.inertiaB[0](0, 0), 1.0 + 1.0 * 0.75 * 0.75 + 3.0 * 0.25 * 0.25);

  // Links of total mass zero: centre of mass zero, no division.
  Child ghost = root("ghost", Joint::FIXED);
  ghost.fixedBodies.push_back(link("g", Joint::FIXED));
  ghost.fixedBodies[0].pos = {1, 0, 0};
  EXPECT_EQ(E(ArticulatedSystem(ghost, "r").comB[0]), Eigen::Vector3d::Zero());
}

TEST(Building, IgnoringTheNearestMassiveAncestor) {
  Child base = withShape(root("base", Joint::FLOATING, 1.0, {0, 0, 0}, {1, 1, 1}));
  Child hollow = withShape(link("hollow", Joint::REVOLUTE));  // massless
  hollow.child.push_back(withShape(link("tip", Joint::REVOLUTE, 1.0, {0, 0, 0}, {1, 1, 1})));
  base.child.push_back(hollow);
  ArticulatedSystemOption option;
  option.ignoreParentCollision = true;
  ArticulatedSystem sys(base, "r", option);
  const auto& defs = sys.getCollisionBodies();
  ASSERT_EQ(defs.size(), 3u);
  auto ignores = [&](size_t a, size_t b) { return geomData(defs[a].colObj).ignoredGeoms.count(defs[b].colObj) == 1; };
  EXPECT_TRUE(ignores(2, 0) && ignores(0, 2));  // tip skips the massless hollow
  EXPECT_FALSE(ignores(2, 1));

  // A massless fixed root: the walk runs past it without reading out of
  // range, and the massless subtree is reported.
  Child fixedRoot = withShape(root("root", Joint::FIXED));
  fixedRoot.child.push_back(withShape(link("free", Joint::REVOLUTE)));
  const auto [none, warning] = built<ArticulatedSystem>(fixedRoot, "r", option);
  EXPECT_TRUE(geomData(none->getCollisionBodies()[1].colObj).ignoredGeoms.empty());
  EXPECT_NE(warning.find("Body \"free\" and the bodies below it have no mass"), std::string::npos);
}

TEST(Building, BadTreesEndInFatalMessages) {
  Child unnamed = root("root", Joint::FLOATING);
  unnamed.child.push_back(link("arm", Joint::REVOLUTE));
  unnamed.child[0].name.clear();
  Child untyped;
  untyped.bodyName = "u";
  Child misplaced = root("root", Joint::FIXED);
  misplaced.child.push_back(link("welded", Joint::FIXED));
  // A primitive made before the failing mesh must not leak.
  Child stl = withShape(root("root", Joint::FIXED), Shape::Sphere);
  stl.collisionBodies.emplace_back(Shape::Mesh, Mat<4, 1>{1, 1, 1, 0}, Mat<3, 1>{0, 0, 0}, Mat<3, 3>::getIdentity(),
                                   Mat<3, 1>{1, 1, 1}, "m", "", "", "part.STL");
  const std::pair<Child, std::string> cases[] = {
      {unnamed, "All joints must have a name"},
      {untyped, "must have a FIXED or FLOATING joint"},
      {misplaced, "Body \"welded\" is in child but its joint is fixed"},
      {stl, "Mesh collision bodies must be in an obj format"},
  };
  for (const auto& [tree, message] : cases) expectFatal([&] { ArticulatedSystem s(tree, "r"); }, message);
  expectFatal([] { VisObject v(Shape::Mesh, {}, {}, Mat<3, 3>::getIdentity(), {}, {}, "", "v", ""); },
              "Provide a valid mesh file name");
}

TEST(Building, RobotsInAWorld) {
  Child base = root("base", Joint::FIXED, 1.0, {0, 0, 0}, {1, 1, 1});
  base.pos = {0, 0, 1};
  Child arm = link("arm", Joint::REVOLUTE, 1.0, {0, 0, 0}, {1, 1, 1});
  arm.axis = {0, 1, 0};
  arm.pos = {0, 0, 0.5};
  arm.collisionBodies.emplace_back(Shape::Mesh, Mat<4, 1>{0.2, 0.2, 0.2, 0}, Mat<3, 1>{0, 0, 0.5},
                                   Mat<3, 3>::getIdentity(), Mat<3, 1>{0.2, 0.2, 0.2}, "arm/0", "steel", "",
                                   "package://cube.obj");
  arm = withShape(arm, Shape::Sphere);
  arm.collisionBodies[1].shapeParam = {0.05, 0, 0, 0};
  arm.collisionBodies[1].name = "arm/1";
  arm.collisionBodies[1].collisionGroup = 4;
  arm.collisionBodies[1].collisionMask = 8;
  base.child.push_back(arm);

  World world;
  world.addGround();
  auto* sphere = world.addSphere(0.1, 1.0);
  sphere->setPosition(5, 5, 0.1);
  auto* robot = world.addArticulatedSystem(base, std::string(VORSIM_TEST_DATA_DIR) + "/meshes", 2, 3);
  ASSERT_EQ(robot->getIndexInWorld(), 2u);
  const auto& defs = robot->getCollisionBodies();
  ASSERT_EQ(defs.size(), 2u);
  // The caller's group and mask reach the geom that kept the defaults only.
  EXPECT_EQ(getCategoryBits(defs[0].colObj), 2u);
  EXPECT_EQ(getCollideBits(defs[0].colObj), 3u);
  EXPECT_EQ(getCategoryBits(defs[1].colObj), 4u);
  EXPECT_EQ(getCollideBits(defs[1].colObj), 8u);
  for (const auto& d : defs) EXPECT_EQ(geomData(d.colObj).localIndex, 1u);

  // Geoms follow the bodies, bounding boxes included: a ray finds the mesh
  // where the joint put it.
  robot->setGeneralizedCoordinate({M_PI / 2});
  robot->updateCollision();
  EXPECT_NEAR(dGeomGetPosition(defs[0].colObj)[0], 0.5, 1e-12);
  const auto& hits = world.rayTest({0.5, 0, 3}, {0, 0, -1}, 5.0, true);
  ASSERT_EQ(hits.getNumOfHits(), 1u);
  EXPECT_EQ(hits[0].getObject(), robot);
  EXPECT_NEAR(hits[0].getPosition()[2], 1.6, 1e-6);

  // Offsets and sizes of geoms can be changed after building.
  robot->setCollisionObjectShapeParameters(1, Mat<4, 1>{0.08, 0, 0, 0});
  EXPECT_EQ(dGeomSphereGetRadius(defs[1].colObj), 0.08);
  robot->setCollisionObjectShapeParameters(0, Mat<4, 1>{5, 5, 5, 0});  // a mesh keeps its triangles
  EXPECT_EQ(robot->getVisColOb()[0].shapeParam[0], 5.0);
  robot->setCollisionObjectPositionOffset(1, Mat<3, 1>{0, 0, 1});
  robot->updateCollision();
  EXPECT_NEAR(dGeomGetPosition(defs[1].colObj)[0], 1.0, 1e-12);  // the arm's z is the world's x now

  // Removing the sphere moves the robot into its place, geoms included.
  world.removeObject(sphere);
  EXPECT_EQ(robot->getIndexInWorld(), 1u);
  for (const auto& d : defs) EXPECT_EQ(geomData(d.colObj).objectIndex, 1u);
  world.removeObject(robot);
  EXPECT_EQ(dSpaceGetNumGeoms(world.getCollisionSpace()), 1);
}
