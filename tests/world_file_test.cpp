// World configuration files: arithmetic, the text stage (parameters, arrays,
// expressions), every element kind, object classes, URDF templates, solver
// settings, and one located fatal message per kind of bad input.
#include <gtest/gtest.h>

#include <cmath>
#include <fstream>

#include "helpers.hpp"
#include "robot_compare.hpp"
#include "test_helpers.hpp"
#include "vorsim/Collision.hpp"
#include "vorsim/object/ArticulatedSystem/ArticulatedSystem.hpp"
#include "vorsim/object/HeightMap.hpp"
#include "vorsim/object/Mesh.hpp"
#include "vorsim/object/Primitives.hpp"

using namespace vorsim;
using vorsim_test::fatalOf;

namespace {

const std::string kWorldDir = std::string(VORSIM_TEST_DATA_DIR) + "/world/";

// A file in the temporary directory, named after the running test as well
// (tests run in parallel processes).
std::string tempPath(const std::string& name) {
  return testing::TempDir() + "vorsim_world_" + testing::UnitTest::GetInstance()->current_test_info()->name() + "_" +
         name;
}

std::string writeTemp(const std::string& name, const std::string& text) {
  const std::string path = tempPath(name);
  std::ofstream(path) << text;
  return path;
}

// What f prints while a fatal callback that returns is installed.
template <typename F>
std::string underReturningCallback(F f) {
  VorSimMsg::setFatalCallback([] {});
  StdoutCapture out;
  f();
  VorSimMsg::resetFatalCallback();
  return out.text();
}

// The world written out and read back.
std::unique_ptr<World> exportedAndRead(World& world, const std::string& name) {
  {
    StdoutCapture quiet;
    EXPECT_TRUE(world.exportToXml(testing::TempDir(), name));
  }
  return std::make_unique<World>(testing::TempDir() + name);
}

template <typename T>
T* find(World& world, const std::string& name) {
  auto* object = dynamic_cast<T*>(world.getObject(name));
  EXPECT_NE(object, nullptr) << name;
  return object;
}

}  // namespace

TEST(TextHelpers, ExpressionsNumbersQuotationsAndPaths) {
  const std::pair<const char*, double> values[] = {
      {"1 + 2 * 3 - 4 / 2", 5.0},  // precedence
      {"10 - 2 - 3", 5.0},         // left association
      {"8 / 4 / 2", 1.0},
      {"-pi/2", -M_PI / 2},  // unary minus on the first operand
      {"2*-3", -6.0},        // and after an operator
      {"((1+2)*(3+4))/7", 3.0},
      {"sin(pi/2) + cos(0)", 2.0},
      {"exp(log(3))*2", std::exp(std::log(3.0)) * 2},
      {"1.5e-3 * 2e2", 0.3},
      {"  .5  ", 0.5},
      {"sin (pi)", std::sin(M_PI)},
  };
  for (const auto& [text, value] : values) EXPECT_EQ(evaluateMathExpression(text), value) << text;

  const std::string mismatch = "invalid math expression. Operator and operand number mistmatch.";
  const std::pair<const char*, std::string> bad[] = {
      {"2+", mismatch},
      {"", mismatch},
      {"*2", "Unknown math expression: *2"},
      {"tan(1)", "Unknown math expression: tan(1)"},
      {"(1+2", "Unknown math expression: (1+2"},
      {"1.2.3", "Unknown math expression: 1.2.3"},
  };
  for (const auto& [text, message] : bad) {
    const std::string out = fatalOf([&] { evaluateMathExpression(text); });
    EXPECT_NE(out.find(message), std::string::npos) << text << out;
  }
  double result = 0.0;
  underReturningCallback([&] { result = evaluateMathExpression("foo"); });
  EXPECT_TRUE(std::isnan(result));

  // Numbers print short and read back exactly.
  EXPECT_EQ(formatNumber(14.0), "14");
  EXPECT_EQ(formatNumber(0.1), "0.1");
  for (double x : {M_PI, 1.0 / 3.0, 1e-300, -2.5e17, 0.30000000000000004})
    EXPECT_EQ(std::stod(formatNumber(x)), x) << formatNumber(x);

  // Number lists split at blanks or commas.
  std::vector<double> v;
  ASSERT_TRUE(xml::parseNumbers(" 1  2\t3\n ", v));
  EXPECT_EQ(v, (std::vector<double>{1, 2, 3}));
  ASSERT_TRUE(xml::parseNumbers("1, 2,3", v));
  EXPECT_EQ(v, (std::vector<double>{1, 2, 3}));
  v = {9};
  for (const char* text : {"1,,2", "1 two", "1e999"}) EXPECT_FALSE(xml::parseNumbers(text, v)) << text;
  EXPECT_EQ(v, (std::vector<double>{9}));  // untouched on failure
  double d = 0.0;
  EXPECT_TRUE(xml::parseDouble(" -2.5e-3 ", d));
  EXPECT_EQ(d, -2.5e-3);
  EXPECT_FALSE(xml::parseDouble("2.5x", d));

  EXPECT_EQ(getQuotation(R"(a="x" b="y")", 0, false), "x");
  EXPECT_EQ(getQuotation(R"(a="x" b="y")", 4, false), " b=");
  EXPECT_EQ(getQuotation(R"(a="x" b="y")", 6, true), "y");
  EXPECT_EQ(getQuotation("no quotes", 0, false), "");
  EXPECT_NE(fatalOf([] { getQuotation(R"(v="@@w")", 0, true); }).find("Unresolved param @@w"), std::string::npos);
  EXPECT_EQ(directoryOf("a/b/c.xml"), "a/b");
  EXPECT_EQ(directoryOf("c.xml"), ".");
  EXPECT_EQ(directoryOf("/c.xml"), "/");
  EXPECT_EQ(findFile("pendulum.urdf", kWorldDir), kWorldDir + "/pendulum.urdf");
  EXPECT_EQ(findFile("nowhere.urdf", kWorldDir), "");
}

TEST(ConfigText, ParametersArraysAndExpressions) {
  const std::string path = writeTemp("text.xml", R"(<vorsim>
  <params><r value="0.5"/><rr value="@@r"/><n value="9"/></params>
  <a v="@@r" w="@@rr" dir="[THIS_DIR]" x="{2*(3+4)}" y="{-pi/2}" z="@@n{@@n}"/>
  <array name="i" start="1" increment="0.5" flag count="3"><b i="@@i" twice="{@@i*2}"/></array>
  <array name="i" count="2"><array name="j" start="{@@i*10}" count="2"><c ij="@@i,@@j"/></array></array>
  <array name="e" count="0"><never/></array>
</vorsim>)");
  const std::string text = expandConfigText(path, {{"n", "7"}}, "open: ");
  // The caller's value wins over the file's; a value may name another parameter.
  EXPECT_NE(
      text.find(R"(<a v="0.5" w="0.5" dir=")" + directoryOf(path) + R"(" x="14" y="-1.5707963267948966" z="77"/>)"),
      std::string::npos)
      << text;
  EXPECT_NE(text.find(R"(<b i="1" twice="2"/><b i="1.5" twice="3"/><b i="2" twice="4"/>)"), std::string::npos) << text;
  EXPECT_NE(text.find(R"(<c ij="0,0"/><c ij="0,1"/><c ij="1,10"/><c ij="1,11"/>)"), std::string::npos) << text;
  EXPECT_EQ(text.find("never"), std::string::npos);
  EXPECT_EQ(text.find("array"), std::string::npos);

  // Parameters that the file does not declare are used too; "@@rod" is not
  // "@@r" followed by "od".
  const std::string other = writeTemp("text2.xml", R"(<vorsim><a x="@@rod" y="@@r"/><b y="@@b"/></vorsim>)");
  EXPECT_NE(expandConfigText(other, {{"r", "1"}, {"rod", "2"}, {"b", "4"}}, "").find(R"(x="2" y="1")"),
            std::string::npos);

  // Broken text is fatal; under a returning callback the text is empty.
  const std::pair<std::string, std::string> bad[] = {
      {"<vorsim><params><a value=\"1\"/><b/></params>\n<x y=\"@@b\"/></vorsim>", "Unresolved param b in "},
      {"<vorsim>\n  <array name=\"i\" count=\"2\"><x/>\n</vorsim>",
       "at row:2 col:3, the node 'array': array end not found"},
      {"<vorsim><array name=\"i\"><x/></array></vorsim>",
       "the node 'array' does not contain an attribute called 'count'"},
      {"<vorsim a=\"{1+2\"/>", "the expression has no closing '}'"},
  };
  for (const auto& [file, message] : bad) {
    const std::string path = writeTemp("bad.xml", file);
    EXPECT_NE(fatalOf([&] { expandConfigText(path, {}, ""); }).find(message), std::string::npos) << file;
    std::string expanded = "not empty";
    underReturningCallback([&] { expanded = expandConfigText(path, {}, ""); });
    EXPECT_EQ(expanded, "") << file;
  }
  const std::string none = kWorldDir + "none.xml";
  EXPECT_NE(fatalOf([&] { expandConfigText(none, {}, "Could not open: "); }).find("Could not open: " + none),
            std::string::npos);
}

TEST(WorldFile, EveryElementKindLoadsAndSteps) {
  const auto owner = vorsim_test::built<World>(kWorldDir + "every_kind.xml").first;
  World& world = *owner;
  EXPECT_EQ(world.getGravity()[2], -9.8);
  EXPECT_EQ(world.getTimeStep(), 0.002);
  EXPECT_EQ(world.getContactSolver().erp2, 0.001);
  // The included material table.
  EXPECT_EQ(world.getMaterialManager().getMaterialPairProp("floor", "rubber").c_r, 0.5);
  EXPECT_EQ(world.getMaterialManager().getDefaultMaterialProperties().c_f, 0.6);

  // ghost is left out; the array made three pebbles.
  std::vector<std::string> names;
  for (Object* o : world.getObjList()) names.push_back(o->getName());
  EXPECT_EQ(names, (std::vector<std::string>{"floor", "ball", "crate", "can", "pill", "cube", "bell", "dd", "pebble1",
                                             "pebble3", "pebble5", "tilted", "terrain", "grid", "textmap", "pngmap",
                                             "pendulum"}));

  auto* ball = find<Sphere>(world, "ball");
  EXPECT_EQ(ball->getRadius(), 0.1);
  EXPECT_EQ(ball->getPosition()[2], 1.1);
  EXPECT_EQ(ball->getCollisionGroup(), 5u);  // collision[0, 2]
  EXPECT_EQ(ball->getCollisionMask(), 0xFFFFFFFFu);
  EXPECT_EQ(geomData(ball->getCollisionObject()).material, "rubber");
  auto* crate = find<Box>(world, "crate");
  EXPECT_EQ(crate->getDim()[1], 0.3);
  EXPECT_EQ(crate->getAppearance(), "red");
  EXPECT_EQ(crate->getCollisionMask(), 7u);
  EXPECT_EQ(crate->getInertiaMatrix_B()(0, 0), 3.0 / 12 * (0.09 + 0.16));  // the box's own formula
  auto* can = find<Cylinder>(world, "can");
  EXPECT_EQ(can->getBodyType(), KINEMATIC);
  EXPECT_EQ(can->getAngularVelocity()[2], 1.0);
  auto* pill = find<Capsule>(world, "pill");
  // Three numbers: the diagonal, which replaces the formula; six: ixx iyy izz ixy ixz iyz.
  EXPECT_EQ(pill->getInertiaMatrix_B().e(), Eigen::Matrix3d(Eigen::Vector3d(0.01, 0.02, 0.03).asDiagonal()));
  EXPECT_EQ(find<Box>(world, "tilted")->getInertiaMatrix_B().e(),
            (Eigen::Matrix3d() << 1, 0.1, 0.2, 0.1, 2, 0.3, 0.2, 0.3, 3).finished());
  EXPECT_EQ(pill->getRotationMatrix()(1, 1), -1.0);                   // quat (0 1 0 0): half turn about x
  EXPECT_EQ(find<Mesh>(world, "cube")->getMeshVertices()[0], -0.1f);  // scaled once

  // box, capsule, and the dumbbell class's three
  auto* bell = find<Compound>(world, "bell");
  ASSERT_EQ(bell->getChildren().size(), 5u);
  EXPECT_EQ(bell->getChildren()[0].appearance, "blue");
  EXPECT_EQ(bell->getChildren()[1].objectParam[1], 0.2);
  EXPECT_EQ(bell->getChildren()[2].material, "steel");
  EXPECT_EQ(bell->getChildren()[4].objectType, CYLINDER);
  EXPECT_EQ(bell->getBodyComOffset()[2], 0.1);
  // A class inside a class: the dumbbell turned a quarter about x and moved
  // to x = 0.5; its sphere at z = 0.2 lands at y = -0.2.
  auto* dd = find<Compound>(world, "dd");
  ASSERT_EQ(dd->getChildren().size(), 4u);
  EXPECT_LE((dd->getChildren()[0].position.e() - Eigen::Vector3d(0.5, -0.2, 0.0)).cwiseAbs().maxCoeff(), 1e-15);
  EXPECT_EQ(dd->getChildren()[3].objectParam[0], 0.05);  // the pebble class
  EXPECT_EQ(dd->getChildren()[3].material, "stone");

  TerrainProperties p(0.3, 4, 4, 0.5, 9, 9, 3, 2, 0.5, -1, -2, 7);
  HeightMap reference(0.0, 10.0, p);
  EXPECT_EQ(find<HeightMap>(world, "terrain")->getHeightMap(), reference.getHeightMap());
  reference.destroyCollisionBodies(nullptr);
  EXPECT_EQ(find<HeightMap>(world, "grid")->getHeight(10.0, 0.0), 1.0);
  EXPECT_EQ(find<HeightMap>(world, "textmap")->getHeightMap(), (std::vector<double>{0, 0.1, 0.2, 0.3, 0.4, 0.5}));
  EXPECT_DOUBLE_EQ(find<HeightMap>(world, "pngmap")->getHeightMap()[0], 150 * 0.01 - 1);  // rows mirrored in x

  auto* pendulum = find<ArticulatedSystem>(world, "pendulum");
  EXPECT_EQ(pendulum->getGeneralizedCoordinate()[0], 0.2);
  EXPECT_EQ(pendulum->getGeneralizedVelocity()[0], 0.1);
  EXPECT_EQ(pendulum->getResourceDir(), kWorldDir.substr(0, kWorldDir.size() - 1));

  ASSERT_EQ(world.getWires().size(), 3u);
  auto* tether = world.getWire("tether");
  EXPECT_EQ(tether->getWireType(), LengthConstraint::STIFF);
  EXPECT_EQ(tether->getBody2(), crate);
  auto* spring = dynamic_cast<CompliantLengthConstraint*>(world.getWire("spring"));
  ASSERT_NE(spring, nullptr);
  EXPECT_EQ(spring->getStiffness(), 50.0);
  EXPECT_EQ(spring->getStretchType(), LengthConstraint::COMPRESSION_ONLY);
  auto* rope = world.getWire("rope");
  EXPECT_EQ(rope->getWireType(), LengthConstraint::CUSTOM);
  EXPECT_EQ(rope->getStretchType(), LengthConstraint::STRETCH_ONLY);  // the add-functions' default
  // The frame "tip_mount" sits 0.35 below the bob's joint: the mount point is
  // given in the frame and kept in the body's.
  EXPECT_EQ(rope->getLocalIdx1(), 1u);
  EXPECT_NEAR(rope->getOb1MountPos()[2], -0.3, 1e-15);

  // It steps: the ball falls and the kinematic can moves at its set velocity.
  for (int i = 0; i < 200; ++i) world.integrate();
  EXPECT_LT(ball->getPosition()[2], 1.1);
  EXPECT_NEAR(can->getPosition()[2], 0.5 + 200 * 0.002 * 0.1, 1e-12);
}

TEST(WorldFile, ParametersFromTheCallerTemplatesAndMjcfComesFirst) {
  const std::string path = writeTemp("params.xml", R"(<vorsim>
  <params><r value="0.1"/></params>
  <object_class name="pebble" type="sphere" radius="0.05" mass="0.1" material="stone"/>
  <objects><sphere name="s" radius="@@r" mass="1" collision_group="-1" collision_mask="collision[2, 63]"/>
    <compound name="c" mass="1" inertia="1 1 1">
      <children><p type="pebble" material="glass"/><b type="box" dim="1 1 1"/></children></compound>
  </objects>
</vorsim>)");
  World world(path, {});
  auto* s = find<Sphere>(world, "s");
  EXPECT_EQ(s->getRadius(), 0.1);
  EXPECT_EQ(s->getCollisionGroup(), 0xFFFFFFFFu);  // -1 is every bit
  EXPECT_EQ(s->getCollisionMask(), 4u);            // bit 63 is allowed, and cut to 32 bits
  // A class's part takes the material of the child that names it.
  EXPECT_EQ(find<Compound>(world, "c")->getChildren().at(0).material, "glass");
  World given(path, {{"r", "0.25"}});
  EXPECT_EQ(find<Sphere>(given, "s")->getRadius(), 0.25);
  // A file holding both tags is MJCF; one holding neither leaves the world empty.
  World mjcf(writeTemp("both.xml", R"(<mujoco><!-- <vorsim> --><worldbody>
<geom type="sphere" size="0.5"/></worldbody></mujoco>)"));
  ASSERT_EQ(mjcf.getObjList().size(), 1u);
  EXPECT_EQ(mjcf.getObjList()[0]->getObjectType(), SPHERE);
  World empty(writeTemp("neither.xml", "<robot/>"));
  EXPECT_TRUE(empty.getObjList().empty());

  // A URDF template expands the caller's parameters and its own defaults.
  std::unordered_map<std::string, std::string> params{{"rod", "0.4"}};
  ArticulatedSystem* t = world.addArticulatedSystem(kWorldDir + "pendulum_template.urdf", params);
  EXPECT_EQ(t->massOf[1], 0.5);    // the file's default
  EXPECT_EQ(t->comB[1][2], -0.4);  // the caller's rod
  EXPECT_EQ(t->getResourceDir(), kWorldDir.substr(0, kWorldDir.size() - 1));
  EXPECT_EQ(t->getUrdfString().find("@@"), std::string::npos);
  const std::string missing = kWorldDir + "missing.urdf";
  EXPECT_NE(fatalOf([&] { world.addArticulatedSystem(missing, params); }).find(missing + " does not exist"),
            std::string::npos);
}

TEST(WorldFile, BadInputEndsInLocatedMessages) {
#define PENDULUM "<articulated_system urdf_path=\"" VORSIM_TEST_DATA_DIR "/world/pendulum.urdf\""
  const std::pair<const char*, const char*> cases[] = {
      // the text inside <objects>, the message
      {"<sphere radius=\"1\"/>", "the node 'sphere' does not contain an attribute called 'mass'"},
      // A read that fails after objects (and a robot) were built unwinds out of
      // the constructor without leaks (the sanitizer build checks them).
      {"<sphere mass=\"1\" radius=\"1\"/>" PENDULUM "/><box mass=\"1\"/>",
       "the node 'box' does not contain an attribute called 'dim'"},
      {"<sphere mass=\"1\" radius=\"one\"/>", "the attribute 'radius' holds text that is not a number: 'one'"},
      {"<box mass=\"1\" dim=\"1 2\"/>", "the attribute 'dim' should have 3 numbers, not 2"},
      {"<cone mass=\"1\" radius=\"1\" height=\"1\"/>", "the node 'cone': Cone shape is not supported"},
      {"<teapot/>", "the node 'teapot': Unrecognized object type"},
      {"<sphere mass=\"1\" radius=\"1\" body_type=\"floating\"/>",
       "Unrecognized body type. Should be \"dynamic\", \"kinematic\" or \"static\". "},
      {"<sphere mass=\"1\" radius=\"1\" collision_group=\"collision[70]\"/>",
       "the collision bits 'collision[70]' need indices from 0 to 63, or -1 for all"},
      {"<sphere mass=\"1\" radius=\"1\" collision_mask=\"1.5\"/>",
       "the collision bits '1.5' are neither a number nor of the form collision[i,j]"},
      {"<sphere mass=\"1\" radius=\"1\" collision_mask=\"-2\"/>",
       "the collision bits '-2' are neither a number nor of the form collision[i,j]"},
      {"<sphere mass=\"1\" radius=\"1 2\"/>", "the attribute 'radius' should be one number"},
      {"<compound mass=\"1\" inertia=\"1 1 1\"><children><c type=\"torus\"/></children></compound>",
       "the node 'c': unrecognized compound child: torus"},
      {"<compound mass=\"1\" inertia=\"1 1 1\"><children><c type=\"box\" radius=\"1\"/></children></compound>",
       "the node 'c': box requires a dimension attribute"},
      {"<compound mass=\"1\" inertia=\"1 1 1\"><children><c type=\"cone\"/></children></compound>",
       "Cone collision body is no longer supported"},
      {"<heightmap center_x=\"0\"/>",
       "Height map in vorsim/objects/heightmap/ does not have a proper initialization properties. Need one of: "
       "height, terrain_properties, text, and png"},
      {"<heightmap><terrain_properties z_scale=\"1\" fractal_octaves=\"0\"/></heightmap>",
       "the node 'terrain_properties': missing or zero attribute: fractal_octaves"},
      {"<heightmap png=\"" VORSIM_TEST_DATA_DIR "/world/heights.png\" x_size=\"1\" y_size=\"1\" z_scale=\"1\"/>",
       "missing or zero attribute: z_offset"},
      {"<heightmap text=\"nowhere.txt\"/>", "the node 'heightmap': Could not find the height map file: nowhere.txt"},
      {"<heightmap x_sample=\"2\" y_sample=\"2\" x_size=\"1\" y_size=\"1\" height=\"1 2 3\"/>",
       "the height map has 3 heights; x_sample * y_sample is 4"},
      {"<heightmap x_sample=\"2.5\" y_sample=\"2\" x_size=\"1\" y_size=\"1\" height=\"1 2 3 4\"/>",
       "the attribute 'x_sample' must be a positive whole number"},
      {"<mesh file_name=\"nowhere.obj\" mass=\"1\"/>", "Could not find the mesh file: nowhere.obj"},
      {"<articulated_system/>", "urdf_path must be defined for \"articulated_system\""},
      {"<articulated_system urdf_path=\"nowhere.urdf\"/>", "Could not find URDF file: nowhere.urdf"},
      {PENDULUM "><state qpos=\"1 2\"/></articulated_system>",
       "the node 'state': qpos has 2 numbers, the system 1 generalized coordinates"},
      {PENDULUM " body_type=\"static\"/>", "body_type is only for single bodies"},
      {PENDULUM "><control mode=\"pid\"/></articulated_system>",
       "the node 'control': Unknown control mode: \"pid\". Available modes are: force_control, "
       "pd_plus_feedforward_torque"},
      {PENDULUM "><control p_gain=\"1 2\"/></articulated_system>",
       "the node 'control': p_gain has 2 numbers, the system needs 1"},
      {PENDULUM "><control force=\"x\"/></articulated_system>",
       "the attribute 'force' holds text that is not a number: 'x'"},
      {"<box mass=\"1\" dim=\"1 1 1\" gyroscopic_mode=\"implicit\"/>",
       "Unknown gyroscopic mode: \"implicit\". Available modes are: implicit_body, implicit_world, explicit, none"},
      {"<sphere mass=\"1\" radius=\"1\"><control mode=\"force_control\"/></sphere>",
       "the node 'control': control is only for articulated systems"},
  };
#undef PENDULUM
  for (const auto& [objects, message] : cases) {
    const std::string path =
        writeTemp("bad.xml", std::string("<vorsim>\n<objects>\n") + objects + "\n</objects>\n</vorsim>");
    const std::string out = fatalOf([&] { World world(path); });
    EXPECT_NE(out.find(message), std::string::npos) << objects << "\n" << out;
    EXPECT_NE(out.find("in '" + path + "' at row:3 col:"), std::string::npos) << objects << "\n" << out;
  }

  // Wires, classes, included files and settings.
  const std::string head =
      "<vorsim>\n<objects><sphere name=\"a\" mass=\"1\" radius=\"0.1\"/>"
      "<box name=\"b\" mass=\"1\" dim=\"1 1 1\"/></objects>\n<wire type=";
  const std::string ab = "<object name=\"a\"/><object name=\"b\"/></wire></vorsim>";
  const std::pair<std::string, std::string> files[] = {
      {head + "\"elastic\" length=\"1\">" + ab,
       "the node 'wire': Unknown wire type: \"elastic\". Available types are: compliant, stiff, custom"},
      {head + "\"stiff\" length=\"1\"><object name=\"a\"/><object name=\"c\"/></wire></vorsim>",
       "the node 'object': could not find object \"c\""},
      {head + "\"stiff\" length=\"1\"><object name=\"a\" local_index=\"1\"/><object name=\"b\"/></wire></vorsim>",
       "local_index 1 is out of range: the object \"a\" has 1 body"},
      {head + "\"stiff\" length=\"1\"><object name=\"a\"/></wire></vorsim>",
       "a wire needs two \"object\" elements, not 1"},
      {head + "\"compliant\" length=\"1\">" + ab, "the node 'wire' does not contain an attribute called 'stiffness'"},
      {head + "\"stiff\" length=\"1\" stretch_type=\"sometimes\">" + ab, "Unknown stretch type: \"sometimes\""},
      {"<vorsim>\n<object_class name=\"x\" type=\"sphere\"/>\n<object_class name=\"x\" type=\"box\"/></vorsim>",
       "contains duplicate object class name: x"},
      {"<vorsim>\n<object_class name=\"x\" type=\"blob\"/></vorsim>",
       "unrecognized object type in vorsim/object_class/"},
      {"<vorsim>\n<object_class name=\"x\" type=\"heightmap\"/>\n<objects><x/></objects></vorsim>",
       "ERROR while reading instance: not supported object type"},
      {"<vorsim>\n<object_class name=\"x\" type=\"compound\" mass=\"1\" inertia=\"1 1 1\"><children><c "
       "type=\"y\"/></children></object_class>\n<objects><x/></objects></vorsim>",
       "Could not find the object class y"},
      {"<vorsim>\n<object_class name=\"x\" type=\"compound\" mass=\"1\" inertia=\"1 1 1\"><children><c "
       "type=\"x\"/></children></object_class>\n<objects><x/></objects></vorsim>",
       "The object class x contains itself"},
      {"<vorsim>\n<include value=\"nowhere.xml\"/></vorsim>",
       "Could not open the vorsim configuration file: nowhere.xml"},
      {"<vorsim>\n<gravity value=\"0 -9.8\"/></vorsim>", "the attribute 'value' should have 3 numbers, not 2"},
      {"<vorsim>\n<material><default friction=\"1\"/></material></vorsim>",
       "does not contain an attribute called 'restitution'"},
      {"<vorsim>\n<objects><sphere radius=\"@@r\" mass=\"1\"/></objects></vorsim>", "Unresolved param r in "},
      // Contact solver settings.
      {"<vorsim><contact_solver warm_start=\"yes\"/></vorsim>",
       "the attribute 'warm_start' should be \"true\" or \"false\", not 'yes'"},
      {"<vorsim><contact_solver exactCoulombSliding=\"1\"/></vorsim>",
       "the attribute 'exact_coulomb_sliding' should be \"true\" or \"false\", not '1'"},
      {"<vorsim><contact_solver warm_start_tolerance=\"-0.1\"/></vorsim>",
       "The warm start tolerance must be zero or positive, not -0.1"},
      {"<vorsim><contact_solver max_iteration=\"0\"/></vorsim>",
       "the attribute 'max_iteration' should be a whole number of at least 1, not 0"},
      {"<vorsim><contact_solver max_iteration=\"2.5\"/></vorsim>",
       "the attribute 'max_iteration' should be a whole number of at least 1, not 2.5"},
      {"<vorsim><contact_solver threshold=\"small\"/></vorsim>",
       "the node 'contact_solver': the attribute 'threshold' is not a number: 'small'"},
      // A file that includes itself.
      {"<vorsim><include value=\"" + tempPath("bad.xml").substr(testing::TempDir().size()) + "\"/></vorsim>",
       "includes itself"},
  };
  for (const auto& [text, message] : files) {
    const std::string path = writeTemp("bad.xml", text);
    const std::string out = fatalOf([&] { World world(path); });
    EXPECT_NE(out.find(message), std::string::npos) << text << "\n" << out;
  }
  const std::string nowhere = kWorldDir + "nowhere.xml";
  EXPECT_NE(fatalOf([&] { World w(nowhere); }).find("Could not open the vorsim configuration file: " + nowhere),
            std::string::npos);
}

TEST(WorldFile, UnderAReturningCallbackBadPartsAreLeftOut) {
  // A client whose fatal callback returns gets the rest of the world; the
  // faulty wires are not made.
  const std::string path = writeTemp("returning.xml", R"(<vorsim><objects>
  <sphere name="a" mass="1" radius="0.1"/><box name="b" mass="1" dim="1 1 1"/>
  <articulated_system name="p" urdf_path=")" + kWorldDir + R"(pendulum.urdf"/></objects>
  <wire type="stiff" length="1"><object name="a" frame="f"/><object name="b"/></wire>
  <wire type="stiff" length="1"><object name="a" local_index="3"/><object name="b"/></wire>
  <wire type="stiff" length="1"><object name="nobody"/><object name="b"/></wire>
  <wire type="stiff" length="1" name="good"><object name="a"/><object name="b"/></wire>
  <wire type="stiff" length="1"><object name="p" frame="nowhere"/><object name="b"/></wire>
</vorsim>)");
  std::unique_ptr<World> world;
  const std::string out = underReturningCallback([&] { world = std::make_unique<World>(path); });
  EXPECT_NE(out.find("The keyword 'frame' only for an articulated system."), std::string::npos);
  EXPECT_NE(out.find("the articulated system \"p\" has no frame named \"nowhere\""), std::string::npos);
  EXPECT_EQ(world->getObjList().size(), 3u);
  ASSERT_EQ(world->getWires().size(), 1u);
  EXPECT_EQ(world->getWires()[0]->getName(), "good");
}

TEST(WorldFile, DampingAndGyroscopicModesReadAndWrittenBack) {
  World world(writeTemp("damped.xml", R"(<vorsim>
<object_class name="heavy" type="box" dim="1 1 1" mass="2" linear_damping="0.5" gyroscopic_mode="none"/>
<objects>
  <box name="a" mass="1" dim="1 1 1" linear_damping="0.25" angular_damping="0.1 0.2 0.3"/>
  <sphere name="b" mass="1" radius="1" linearDamping="2" angularDamping="1 1 1" gyroscopicMode="implicit_world"/>
  <capsule name="c" mass="1" radius="0.1" height="1" gyroscopic_mode="explicit"/>
  <cylinder name="d" mass="1" dim="0.1 1" gyroscopic_mode="implicit_body"/>
  <heavy name="e"/>
  <heavy name="f" linear_damping="0" gyroscopic_mode="explicit"/>
</objects>
</vorsim>)"));
  struct Expected {
    const char* name;
    double linear, angular[3];
    GyroscopicMode mode;
  };
  const Expected expected[] = {
      {"a", 0.25, {0.1, 0.2, 0.3}, IMPLICIT_GYROSCOPIC_FORCE_BODY},
      {"b", 2.0, {1, 1, 1}, IMPLICIT_GYROSCOPIC_FORCE_WORLD},
      {"c", 0.0, {0, 0, 0}, EXPLICIT_GYROSCOPIC_FORCE},
      {"d", 0.0, {0, 0, 0}, IMPLICIT_GYROSCOPIC_FORCE_BODY},
      {"e", 0.5, {0, 0, 0}, NO_GYROSCOPIC_FORCE},
      {"f", 0.0, {0, 0, 0}, EXPLICIT_GYROSCOPIC_FORCE},
  };
  EXPECT_EQ(find<Cylinder>(world, "d")->getRadius(), 0.1);  // its size given as one "dim"
  EXPECT_EQ(find<Cylinder>(world, "d")->getHeight(), 1.0);
  const std::unique_ptr<World> back = exportedAndRead(world, "vorsim_world_damped_back.xml");
  for (World* w : {&world, back.get()})
    for (const Expected& x : expected) {
      auto* body = find<SingleBodyObject>(*w, x.name);
      ASSERT_NE(body, nullptr);
      EXPECT_EQ(body->getLinearDamping(), x.linear) << x.name;
      for (size_t i = 0; i < 3; ++i) EXPECT_EQ(body->getAngularDamping()[i], x.angular[i]) << x.name;
      EXPECT_EQ(body->getGyroscopicMode(), x.mode) << x.name;
    }
}

namespace {

// Boxes dropped on each other and on the ground: contacts that persist, so
// that the warm start has something to start.
const char* kPile =
    "<objects>\n"
    "  <ground name=\"floor\"/>\n"
    "  <box name=\"b0\" mass=\"1\" dim=\"0.2 0.2 0.2\"><state pos=\"0 0 0.099\" lin_vel=\"0.3 0 0\"/></box>\n"
    "  <box name=\"b1\" mass=\"1\" dim=\"0.2 0.2 0.2\"><state pos=\"0.02 0 0.3\" ang_vel=\"0 0 1\"/></box>\n"
    "  <box name=\"b2\" mass=\"5\" dim=\"0.2 0.2 0.2\"><state pos=\"-0.02 0.01 0.52\"/></box>\n"
    "</objects>\n";

}  // namespace

TEST(WorldFile, ContactSolverSettingsReadWriteAndDefaults) {
  // The options off explicitly, the rest left out: the defaults.
  World plain(writeTemp("plain.xml", std::string("<vorsim>\n<contact_solver warm_start=\"false\" "
                                                 "exact_coulomb_sliding=\"False\"/>\n") +
                                         kPile + "</vorsim>"));
  const contact::BisectionContactSolver& defaults = plain.getContactSolver();
  EXPECT_EQ(std::make_tuple(plain.getWarmStart(), plain.getExactCoulombSliding(), plain.getWarmStartTolerance(),
                            defaults.maxIter, defaults.threshold),
            std::make_tuple(false, false, 0.01, 150, 1e-8));

  // Both spellings set the options, which are written out and read back and
  // reach the steps. (What they change in the steps is checked in the
  // warm-start and export tests.)
  for (const char* element :
       {"<contact_solver warm_start=\"true\" warm_start_tolerance=\"0.005\" exact_coulomb_sliding=\"True\" "
        "max_iteration=\"90\" threshold=\"1e-10\" alpha_init=\"0.5\" alpha_min=\"0.25\" alpha_decay=\"0.125\" "
        "forward_order=\"false\"/>",
        "<contactSolver warmStart=\"True\" warmStartTolerance=\"0.005\" exactCoulombSliding=\"true\" "
        "maxIteration=\"90\" threshold=\"1e-10\" alphaInit=\"0.5\" alphaMin=\"0.25\" alphaDecay=\"0.125\" "
        "forwardOrder=\"False\"/>"}) {
    World on(writeTemp("on.xml", std::string("<vorsim>\n") + element + "\n" + kPile + "</vorsim>"));
    const std::unique_ptr<World> back = exportedAndRead(on, "vorsim_world_solver_back.xml");
    for (World* w : {&on, back.get()}) {
      const contact::BisectionContactSolver& s = w->getContactSolver();
      EXPECT_EQ(std::make_tuple(w->getWarmStart(), w->getExactCoulombSliding(), w->getWarmStartTolerance(), s.maxIter,
                                s.threshold, s.alpha_init, s.alpha_min, s.alpha_decay, s.isForwardOrder()),
                std::make_tuple(true, true, 0.005, 90, 1e-10, 0.5, 0.25, 0.125, false))
          << element << (w == &on ? "" : ", read back");
    }
    for (int i = 0; i < 100; ++i) on.integrate();
    EXPECT_GT(on.getWarmStartedProblemCount(), 0u);
  }
}
