// The MJCF reader: a robot written both as MJCF and as URDF builds the same
// system; every element and attribute of the subset reaches the world; bad
// input ends in located messages.
#include <gtest/gtest.h>

#include <fstream>

#include "mjcfLoader.hpp"
#include "robot_compare.hpp"
#include "test_helpers.hpp"
#include "vorsim/Collision.hpp"
#include "vorsim/object/ArticulatedSystem/ArticulatedSystem.hpp"
#include "vorsim/object/Mesh.hpp"
#include "vorsim/object/Primitives.hpp"

using namespace vorsim;

namespace {

const std::string kMjcfDir = std::string(VORSIM_TEST_DATA_DIR) + "/mjcf/";

// A file in the temporary directory, named after the running test (tests run
// in parallel processes).
std::string tempPath() {
  return testing::TempDir() + "vorsim_mjcf_" + testing::UnitTest::GetInstance()->current_test_info()->name() + ".xml";
}

std::string writeTemp(const std::string& text) {
  const std::string path = tempPath();
  std::ofstream(path) << text;
  return path;
}

std::string fatalOfMjcf(const std::string& text) {
  const std::string path = writeTemp(text);
  return vorsim_test::fatalOf([&] { World world(path); });
}

ArticulatedSystem* firstSystem(World& world) {
  for (Object* o : world.getObjList())
    if (auto* s = dynamic_cast<ArticulatedSystem*>(o)) return s;
  return nullptr;
}

}  // namespace

// The same robot written as MJCF and as URDF: the same tables, frames,
// kinematics and mass matrix.
TEST(MjcfLoader, SameRobotAsUrdf) {
  World fromMjcf(kMjcfDir + "arm.xml");
  World fromUrdf;
  ArticulatedSystem* a = firstSystem(fromMjcf);
  ArticulatedSystem* b = fromUrdf.addArticulatedSystem(kMjcfDir + "arm.urdf");
  ASSERT_NE(a, nullptr);
  EXPECT_EQ(fromMjcf.getTimeStep(), 0.004);
  EXPECT_EQ(a->bodyNames, (std::vector<std::string>{"base", "upper", "lower", "lower_2"}));
  vorsim_test::expectSameTables(*a, *b, 1e-12);

  // The MJCF reference angle is the starting coordinate; otherwise the same
  // mass matrix (anything the tables leave out would show there).
  EXPECT_NEAR(a->getGeneralizedCoordinate()[1], 0.17453292519943295, 1e-16);
  VecDyn q(a->gcDim);
  for (size_t i = 0; i < q.n; ++i) q[i] = std::sin(double(i) + 1.0);
  a->setGeneralizedCoordinate(q);
  b->setGeneralizedCoordinate(q);
  EXPECT_LT((vorsim_test::massMatrixOf(*a) - vorsim_test::massMatrixOf(*b)).cwiseAbs().maxCoeff(), 1e-12);
}

TEST(MjcfLoader, SceneElementsReachTheWorld) {
  const auto [owner, printed] = vorsim_test::built<World>(kMjcfDir + "scene.xml");
  World& world = *owner;
  EXPECT_EQ(world.getTimeStep(), 0.002);  // an option without a time step
  // floor, post, ball, brick, the mesh (body 2 of the worldbody has no name), robot, pendulum.
  std::vector<std::string> names;
  for (Object* o : world.getObjList()) names.push_back(o->getName());
  EXPECT_EQ(names, (std::vector<std::string>{"floor", "post", "ball", "brick", "2", "robot", "pendulum"}));

  auto* floor = dynamic_cast<Ground*>(world.getObject("floor"));
  ASSERT_NE(floor, nullptr);
  EXPECT_EQ(floor->getHeight(), -0.1);
  EXPECT_EQ(geomData(floor->getCollisionObject()).material, "ice");
  EXPECT_EQ(floor->getCollisionGroup(), 8u);
  // A worldbody geom is static; full lengths from half sizes.
  auto* post = dynamic_cast<Box*>(world.getObject("post"));
  ASSERT_NE(post, nullptr);
  EXPECT_EQ(post->getBodyType(), STATIC);
  EXPECT_EQ(post->getDim()[2], 1.0);

  // A body with a free joint and no sub-body is a dynamic single body; the
  // density comes from the grandparent class.
  auto* ball = dynamic_cast<Sphere*>(world.getObject("ball"));
  ASSERT_NE(ball, nullptr);
  EXPECT_EQ(ball->getBodyType(), DYNAMIC);
  EXPECT_DOUBLE_EQ(ball->getMass(), 4.0 / 3.0 * M_PI * 0.001 * 2000);

  // The inertial of the body gives mass and inertia; euler in the order zyx.
  auto* brick = dynamic_cast<Box*>(world.getObject("brick"));
  ASSERT_NE(brick, nullptr);
  EXPECT_EQ(brick->getMass(), 3.0);
  EXPECT_EQ(brick->getInertiaMatrix_B()(1, 1), 2.0);
  EXPECT_NEAR(brick->getRotationMatrix()(2, 1), 1.0, 1e-15);  // a quarter turn about x

  // A mesh at the density of water, from the closed cube (edge 0.5).
  auto* cube = dynamic_cast<Mesh*>(world.getObject("2"));
  ASSERT_NE(cube, nullptr);
  EXPECT_NEAR(cube->getMass(), 125.0, 1e-9);
  EXPECT_EQ(cube->getMeshVertices()[0], -0.25f);

  auto* robot = dynamic_cast<ArticulatedSystem*>(world.getObject("robot"));
  ASSERT_NE(robot, nullptr);
  EXPECT_EQ(robot->getRootJointType(), Joint::FLOATING);
  EXPECT_EQ(robot->bodyNames, (std::vector<std::string>{"robot", "leg", "tail"}));
  EXPECT_EQ(robot->jointType[1], Joint::SPHERICAL);
  EXPECT_EQ(robot->jointLimits[robot->gvIdx[2]][1], 0.5);  // radians as written
  EXPECT_EQ(robot->posW[0][1], 2.0);                       // the free body starts where the file puts it
  // The site is a frame; the toe (a joint type that is not read, with a
  // warning) is merged into the leg.
  const size_t foot = robot->getFrameIdxByName("foot");
  ASSERT_NE(foot, ArticulatedSystem::kNone);
  EXPECT_EQ(robot->getFrames()[foot].parentId, 1u);
  EXPECT_EQ(robot->getFrames()[foot].position[2], -0.3);
  EXPECT_NE(printed.find("the node 'joint': the joint type \"weird\" is not read"), std::string::npos) << printed;
  const double capsule = (M_PI * 0.0004 * 0.3 + 4.0 / 3.0 * M_PI * 8e-6) * 1000;
  const double toe = 4.0 / 3.0 * M_PI * 8e-6 * 1000;
  EXPECT_NEAR(robot->massOf[1], capsule + toe, 1e-12);
  // conaffinity 0 keeps the default bits (the world's 1 and all); others are
  // contype and conaffinity.
  const auto& geoms = robot->getCollisionBodies();
  ASSERT_EQ(geoms.size(), 5u);
  EXPECT_EQ(getCollideBits(geoms[0].colObj), 0xFFFFFFFFu);
  EXPECT_EQ(getCategoryBits(geoms[2].colObj), 2u);
  EXPECT_EQ(getCollideBits(geoms[2].colObj), 4u);
  // Colours: the class's red, the element's material over its class, and no
  // visual for a transparent geom or site (the tail's box and "hidden").
  const auto& visuals = robot->getVisOb();
  ASSERT_EQ(visuals.size(), 6u);  // 2 on the base, the capsule, the toe, the foot site, the marker site
  EXPECT_EQ(visuals[0].color[0], 1.0);
  EXPECT_EQ(visuals[1].color[1], 1.0);
  std::vector<const VisObject*> onTail;
  for (const VisObject& v : visuals)
    if (v.localIdx == 2) onTail.push_back(&v);
  ASSERT_EQ(onTail.size(), 1u);
  // A site without a size anywhere has the format's default, 0.005 per half.
  EXPECT_EQ(onTail[0]->shape, Shape::Box);
  for (size_t d = 0; d < 3; ++d) EXPECT_EQ(onTail[0]->shapeParam[d], 0.01);
  EXPECT_EQ(onTail[0]->color[0], 0.7);
  EXPECT_NE(robot->getFrameIdxByName("hidden"), ArticulatedSystem::kNone);
  // The pin between tail and leg.
  EXPECT_EQ(robot->getPins().size(), 1u);

  // A hinge at the root hangs from a fixed, massless "root".
  auto* pendulum = dynamic_cast<ArticulatedSystem*>(world.getObject("pendulum"));
  ASSERT_NE(pendulum, nullptr);
  EXPECT_EQ(pendulum->bodyNames, (std::vector<std::string>{"root", "pendulum", "bob"}));
  EXPECT_EQ(pendulum->jointType[0], Joint::FIXED);
  EXPECT_EQ(pendulum->jointPosP[1][1], -2.0);
  EXPECT_EQ(pendulum->movableJointNames, (std::vector<std::string>{"swing", "bob_joint"}));
  // A class's material gives the colour.
  EXPECT_EQ(pendulum->getVisOb()[0].color[1], 1.0);

  for (int i = 0; i < 10; ++i) world.integrate();
  EXPECT_LT(ball->getPosition()[2], 1.0);
}

TEST(MjcfLoader, MovedFixedBodiesKeepsTheSwapOrder) {
  // Each fixed child moves to the fixed bodies and the last child takes its
  // place (F3, then B, for F1); a fixed grandchild moves into its parent's
  // fixed bodies.
  Child top;
  for (const char* name : {"F1", "A", "F2", "B", "F3"}) {
    top.child.emplace_back();
    top.child.back().bodyName = name;
    top.child.back().type = name[0] == 'F' ? Joint::FIXED : Joint::REVOLUTE;
    top.child.back().child.resize(1);
    top.child.back().child[0].type = Joint::FIXED;
  }
  mjcf::movedFixedBodies(top);
  std::vector<std::string> order;  // movable children with their numbers of fixed and movable children, then fixed
  for (const Child& k : top.child)
    order.push_back(k.bodyName + std::to_string(k.fixedBodies.size()) + std::to_string(k.child.size()));
  for (const Child& k : top.fixedBodies) order.push_back(k.bodyName);
  EXPECT_EQ(order, (std::vector<std::string>{"B10", "A10", "F1", "F2", "F3"}));
}

TEST(MjcfLoader, ClassesPosesOrientationsAndSizes) {
  // A class value found through two parents; an element's own value wins.
  // A single body cannot hold a hinge: "door" becomes a robot hanging from
  // "root"; without a joint "crate" is a single body. Every orientation
  // form, and fromto for position and size.
  const std::string path = writeTemp(R"(<mujoco><compiler angle="degree" eulerseq="zyz"/><default><joint damping="1"/>
  <default class="p"><joint stiffness="2"/><default class="q"><default class="r"/></default></default></default>
  <worldbody><body name="b"><geom type="sphere" size="0.1"/>
    <body name="c" pos="1 0 0"><joint class="r" name="j" armature="3" springref="30" ref="30"/><geom type="sphere" size="0.1"/></body>
    <body name="d" pos="0 1 0"><joint class="r" name="k" damping="5" type="slide" range="0 10" ref="0.1"/><geom type="sphere" size="0.1"/></body>
  </body>
  <body name="door" pos="0 0 1"><joint type="hinge" axis="0 0 1"/><geom type="box" size="0.5 0.02 1"/></body>
  <body name="crate" pos="2 0 1"><geom type="box" size="0.1 0.1 0.1"/></body>
  <geom name="q" type="sphere" size="1" quat="2 0 0 2"/>
  <geom name="aa" type="sphere" size="1" axisangle="0 0 3 90"/>
  <geom name="xy" type="sphere" size="1" xyaxes="0 0.6 0.8 0 -0.8 0.6"/>
  <geom name="z" type="sphere" size="1" zaxis="0 0 -2"/>
  <geom name="e" type="sphere" size="1" euler="90 90 0"/>
  <geom name="ft" type="capsule" size="0.1" fromto="1 0 0 1 0 2"/>
  <geom name="cyl" type="cylinder" size="0.1 0.3"/>
</worldbody></mujoco>)");
  World world(path);
  auto* s = firstSystem(world);
  ASSERT_NE(s, nullptr);
  EXPECT_EQ(s->jointDampingGv[0], 1.0);
  EXPECT_EQ(s->rotorInertiaGv[0], 3.0);
  ASSERT_EQ(s->springs.size(), 2u);
  EXPECT_EQ(s->springs[0].springStiffness, 2.0);
  // Degrees: springref and range are converted for every joint kind, ref for
  // a hinge only (a slide's ref is a length).
  EXPECT_EQ(s->springs[0].springRest[0], 30 * 0.017453292519943295);
  EXPECT_EQ(s->gc[0], 30 * 0.017453292519943295);
  EXPECT_EQ(s->jointLimits[1][1], 10 * 0.017453292519943295);
  EXPECT_EQ(s->gc[1], 0.1);
  EXPECT_EQ(s->jointDampingGv[1], 5.0);
  // A prismatic reference shifts all three components of the joint's place.
  EXPECT_EQ(s->jointPosP[2][0], -0.1);
  EXPECT_EQ(s->jointPosP[2][1], 0.9);

  auto* door = dynamic_cast<ArticulatedSystem*>(world.getObject("door"));
  ASSERT_NE(door, nullptr);
  EXPECT_EQ(door->bodyNames, (std::vector<std::string>{"root", "door"}));
  EXPECT_EQ(door->jointType[1], Joint::REVOLUTE);
  EXPECT_NE(dynamic_cast<Box*>(world.getObject("crate")), nullptr);

  auto R = [&](const std::string& name) {
    return dynamic_cast<SingleBodyObject*>(world.getObject(name))->getRotationMatrix();
  };
  // quat 2 0 0 2 is a quarter turn about z (normalised); xyaxes gives the
  // columns x, y and x cross y; zyz with (90, 90, 0) is Rz(90) Ry(90).
  const std::pair<std::string, Eigen::Matrix3d> expected[] = {
      {"q", (Eigen::Matrix3d() << 0, -1, 0, 1, 0, 0, 0, 0, 1).finished()},
      {"aa", (Eigen::Matrix3d() << 0, -1, 0, 1, 0, 0, 0, 0, 1).finished()},
      {"xy", (Eigen::Matrix3d() << 0, 0, 1, 0.6, -0.8, 0, 0.8, 0.6, 0).finished()},
      {"e", (Eigen::Matrix3d() << 0, -1, 0, 0, 0, 1, -1, 0, 0).finished()}};
  for (const auto& [name, m] : expected) EXPECT_LT((R(name).e() - m).norm(), 1e-14) << name;
  EXPECT_NEAR(R("z")(2, 2), -1.0, 1e-15);
  auto* ft = dynamic_cast<Capsule*>(world.getObject("ft"));
  EXPECT_EQ(ft->getRadius(), 0.1);
  EXPECT_EQ(ft->getHeight(), 2.0);  // half length 1, doubled
  EXPECT_EQ(ft->getPosition().e(), Eigen::Vector3d(1, 0, 1));
  for (size_t k = 0; k < 9; ++k) EXPECT_EQ(ft->getRotationMatrix().v[k], k % 4 == 0 ? 1.0 : 0.0);  // along z
  EXPECT_EQ(dynamic_cast<Cylinder*>(world.getObject("cyl"))->getHeight(), 0.6);
}

TEST(MjcfLoader, UnderAReturningCallbackBadGeomsAreLeftOut) {
  const std::string path = writeTemp(R"(<mujoco><worldbody>
  <geom name="colour" type="sphere" size="1" rgba="1 0"/>
  <geom name="kind" type="torus" size="1"/>
  <geom name="asset" type="mesh" mesh="none"/>
  <geom name="good" type="sphere" size="1"/>
</worldbody></mujoco>)");
  VorSimMsg::setFatalCallback([] {});
  const auto world = vorsim_test::built<World>(path).first;
  VorSimMsg::resetFatalCallback();
  ASSERT_EQ(world->getObjList().size(), 1u);
  EXPECT_EQ(world->getObjList()[0]->getName(), "good");
}

TEST(MjcfLoader, BadInputEndsInLocatedMessages) {
  struct Case {
    std::string text;
    std::string message;
  };
  const std::string open = "<mujoco>\n<worldbody>\n";
  const std::string close = "\n</worldbody>\n</mujoco>";
  const Case cases[] = {
      {"<mujoco>\n<compiler eulerseq=\"xy\"/></mujoco>",
       "the node 'compiler': eulerseq attribute in the compiler node should be 3-character long"},
      {"<mujoco>\n<compiler eulerseq=\"XXY\"/></mujoco>",
       "xxy is not a proper euler angle. Allowed values are xyz, xzy, xyx, xzx, yxz, yzx, yzy, yxy, zxy, zyx, zyz, "
       "zxz"},
      {"<mujoco>\n<compiler angle=\"grad\"/></mujoco>",
       "the angle attribute in the compiler node should be \"degree\" or \"radian\""},
      {open + "<geom type=\"hfield\" size=\"1\"/>" + close, "the node 'geom': hfield geom is not supported."},
      {open + "<geom type=\"mesh\" mesh=\"nomesh\"/>" + close, "nomesh asset not found"},
      {open + "<geom type=\"box\" size=\"1 2\"/>" + close, "box requires 3 size parameters"},
      {open + "<geom type=\"capsule\" size=\"1\"/>" + close, "capsule and cylinder requires 2 size parameters"},
      {open + "<geom type=\"sphere\"/>" + close, "sphere requires 1 size parameter"},
      {open + "<geom class=\"nope\" size=\"1\"/>" + close,
       "invalid unordered_map<K, T> key: the default class \"nope\" is not defined"},
      {open + "<geom size=\"1\" rgba=\"1 0 0\"/>" + close, "the colour '1 0 0' should be four numbers"},
      {open + "<geom size=\"1\" fromto=\"1 1 1 1 1 1\" type=\"capsule\"/>" + close,
       "the segment 'fromto' has zero length"},
      {open + "<body><inertial mass=\"1\" pos=\"0 0 0\"/><geom size=\"1\"/></body>" + close,
       "Inertia is not defined. \"inertial\" tag must have either \"fullinertia\" or \"diaginertia\" attribute"},
      {open + "<body><joint/><geom size=\"1\"/><body><inertial pos=\"0 0 0\" diaginertia=\"1 1 1\"/></body></body>" +
           close,
       "the node 'inertial' does not contain an attribute called 'mass'"},
      {open + "<body><joint/><site/><body/></body>" + close,
       "the node 'site' does not contain an attribute called 'name'"},
      {open + "<body><joint type=\"hinge\"/><geom size=\"-\"/></body>" + close,
       "the attribute 'size' holds text that is not a number: '-'"},
      {"<mujoco>\n<default><default><geom/></default></default></mujoco>", "a nested default needs a class attribute"},
      {"<mujoco>\n<asset><mesh name=\"m\" file=\"../meshes/cube.obj\" scale=\"1 1 2\"/></asset>\n<worldbody>"
       "<geom type=\"mesh\" mesh=\"m\"/></worldbody></mujoco>",
       "a mesh geom outside a robot takes one scale for all three axes"},
      {"<mujoco>\n<asset><mesh name=\"m\"/></asset></mujoco>",
       "the node 'mesh' does not contain an attribute called 'file'"},
      {"<mujoco>\n<worldbody><body name=\"a\"><joint/><body name=\"b\"><joint/></body></body></worldbody>\n"
       "<equality><connect body1=\"a\" body2=\"z\" anchor=\"0 0 0\"/></equality></mujoco>",
       "Equality constraints - unknown body name: no articulated system has both \"a\" and \"z\""},
  };
  for (const Case& c : cases) {
    const std::string out = fatalOfMjcf(c.text);
    EXPECT_NE(out.find(c.message), std::string::npos) << c.text << "\n" << out;
    EXPECT_NE(out.find("in '" + tempPath() + "' at row:"), std::string::npos) << out;
  }
}
