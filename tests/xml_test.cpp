#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "vorsim/VorSimMsg.hpp"
#include "vorsim/VorSimTinyXmlWrapper.hpp"

using vorsim::Mat;
using vorsim::VecDyn;
using vorsim::VorSimMsg;
using vorsim::VorSimTinyXmlWrapper;
using Vec2 = Mat<2, 1>;
using Vec3 = Mat<3, 1>;
using Vec4 = Mat<4, 1>;
using Vec6 = Mat<6, 1>;

namespace {

const std::string kDataDir = VORSIM_TEST_DATA_DIR;
const std::string kRobotFile = kDataDir + "/xml/robot.xml";
const std::string kDummy = "You have accessed a dummy node";

// The text of the fatal message printed while f runs; f must end in the
// throwing fatal callback.
std::string fatalMessage(const std::function<void()>& f) {
  testing::internal::CaptureStdout();
  std::string caught = "nothing";
  try {
    f();
  } catch (const std::exception& e) {
    caught = e.what();
  }
  const std::string out = testing::internal::GetCapturedStdout();
  EXPECT_EQ(caught, "fatal") << "printed: " << out;
  const std::string red = "\x1b[1;31m";
  const size_t begin = out.find(red);
  const size_t end = out.find("\x1b[0m", begin == std::string::npos ? 0 : begin);
  if (begin == std::string::npos || end == std::string::npos) return out;
  return out.substr(begin + red.size(), end - begin - red.size());
}

std::string located(int row, int col, const std::string& node, const std::string& file = kRobotFile) {
  return "in '" + file + "' at row:" + std::to_string(row) + " col:" + std::to_string(col) + ", the node '" + node +
         "'";
}

class XmlTest : public testing::Test {
 protected:
  void SetUp() override {
    VorSimMsg::setFatalCallback([] { throw std::runtime_error("fatal"); });
  }
  void TearDown() override { VorSimMsg::resetFatalCallback(); }
};

}  // namespace

TEST_F(XmlTest, VectorSpellingsParseAlike) {
  for (const char* text : {"1,2,3", "1 2 3", "1  2   3", "  1 2 3 ", "1, 2, 3", "1 ,2 , 3"}) {
    VorSimTinyXmlWrapper root(std::string("<r v=\"") + text + "\"/>", "r");
    const auto v = root.getAttributeMust<Vec3>("v");
    EXPECT_EQ((std::vector<double>{v[0], v[1], v[2]}), (std::vector<double>{1, 2, 3})) << text;
  }

  VorSimTinyXmlWrapper root(kRobotFile, "robot");
  const auto base = root.getChildren("link").at(0);
  const auto q = base.getAttributeMust<Vec4>("q");  // " 1  0   0 0 "
  EXPECT_EQ(q[0], 1.0);
  EXPECT_EQ(q[3], 0.0);
  Vec6 six{};
  ASSERT_TRUE(base.getAttributeIfExists("six", six));
  EXPECT_EQ(six[5], 6.0);
  Vec2 two{};
  ASSERT_TRUE(root.getChildren("link").at(1).getAttributeIfExists("xyz", two));
  EXPECT_EQ(two[1], 2.0);

  // Dynamic forms take their length from the text.
  std::vector<double> gains;
  ASSERT_TRUE(base.getAttributeIfExists("gains", gains));
  EXPECT_EQ(gains, (std::vector<double>{1.5, 2.5, 3.5, 4.5, 5.5}));
  VecDyn dyn(2);
  ASSERT_TRUE(base.getAttributeIfExists("rpy", dyn));
  ASSERT_EQ(dyn.size(), 3u);
  EXPECT_EQ(dyn[1], 0.5);
  const auto must = base.getAttributeMust<VecDyn>("gains");
  ASSERT_EQ(must.size(), 5u);
  EXPECT_EQ(must[4], 5.5);

  // Conversion errors of std::stod reach the caller.
  VorSimTinyXmlWrapper bad("<r a=\"1 x 3\" b=\"1e999,0,0\" c=\"\"/>", "r");
  EXPECT_THROW(bad.getAttributeMust<Vec3>("a"), std::invalid_argument);
  EXPECT_THROW(bad.getAttributeMust<Vec3>("b"), std::out_of_range);
  EXPECT_THROW(bad.getAttributeMust<VecDyn>("c"), std::invalid_argument);
}

TEST_F(XmlTest, DimensionMismatchIsLocated) {
  VorSimTinyXmlWrapper root(kRobotFile, "robot");
  const auto links = root.getChildren("link");
  EXPECT_EQ(fatalMessage([&] { links[1].getAttributeMust<Vec3>("xyz"); }),
            "Dimension mismatch. File: " + kRobotFile +
                ", node: robot/link/, at row:3 col:3, Attribute: xyz should have a dimension of 3");
  Vec4 target{9, 9, 9, 9};
  EXPECT_EQ(fatalMessage([&] { links[0].getAttributeIfExists("xyz", target); }),
            "Dimension mismatch. File: " + kRobotFile +
                ", node: robot/link/, at row:2 col:3, Attribute: xyz should have a dimension of 4");
  EXPECT_EQ(target[0], 9.0);
}

TEST_F(XmlTest, ConstructionFromTextAndFiles) {
  VorSimTinyXmlWrapper text("<robot><link name=\"a\"/></robot>", "robot");
  EXPECT_EQ(text.getFileName(), "URDF from a string");
  EXPECT_EQ(fatalMessage([&] { text.getChildren("link").at(0).errorMessage("boom"); }),
            located(1, 8, "link", "URDF from a string") + ": boom");
  EXPECT_EQ(fatalMessage([] { VorSimTinyXmlWrapper("<vorsim/>", "robot"); }),
            "<vorsim/> file does not contain node 'robot'");
  // Malformed text is refused rather than read half-parsed.
  EXPECT_EQ(fatalMessage([] {
              VorSimTinyXmlWrapper("<robot><link></robot>", "robot");
            }).rfind("cannot parse the xml text: ", 0),
            0u);

  // A readable file whose name holds '<' is still treated as text.
  const std::string odd = testing::TempDir() + "vorsim<odd>.xml";
  std::ofstream(odd) << "<robot/>";
  EXPECT_EQ(fatalMessage([&] { VorSimTinyXmlWrapper(odd, "robot"); }).rfind("cannot parse the xml text: ", 0), 0u);
  std::remove(odd.c_str());

  const std::string missing = kDataDir + "/xml/missing.xml";
  EXPECT_EQ(fatalMessage([&] { VorSimTinyXmlWrapper(missing, "robot"); }), "cannot read the xml file: " + missing);
  const std::string broken = kDataDir + "/xml/broken.xml";
  EXPECT_EQ(fatalMessage([&] { VorSimTinyXmlWrapper(broken, "robot"); }), "cannot read the xml file: " + broken);
  EXPECT_EQ(fatalMessage([] { VorSimTinyXmlWrapper(kRobotFile, "vorsim"); }),
            kRobotFile + " file does not contain node 'vorsim'");
}

TEST_F(XmlTest, Navigation) {
  VorSimTinyXmlWrapper root(kRobotFile, "robot");
  EXPECT_EQ(root.getFullTree(), "robot/");
  EXPECT_EQ(root.getRow(), 1);
  EXPECT_EQ(root.getColumn(), 1);

  const auto links = root.getChildrenMust("link");
  ASSERT_EQ(links.size(), 3u);
  EXPECT_EQ(links[0].getAttributeMust<std::string>("name"), "base");
  EXPECT_EQ(links[2].getAttributeMust<std::string>("name"), "tip");
  EXPECT_EQ(links[1].getFullTree(), "robot/link/");
  std::string names;
  for (auto const& child : root.getChildren()) names += child.getName() + " ";
  EXPECT_EQ(names, "link link joint link ");

  EXPECT_TRUE(root.getChildren("sensor").empty());
  EXPECT_EQ(fatalMessage([&] { root.getChildrenMust("sensor"); }),
            located(1, 1, "robot") + " does not contain a child");
  EXPECT_EQ(fatalMessage([&] { links[2].getChildrenMust(); }), located(5, 3, "link") + " does not contain a child");

  EXPECT_FALSE(root.removeFirstChild("sensor"));
  EXPECT_TRUE(root.removeFirstChild("link"));
  const auto rest = root.getChildren("link");
  ASSERT_EQ(rest.size(), 2u);
  EXPECT_EQ(rest[0].getAttributeMust<std::string>("name"), "arm");
}

TEST_F(XmlTest, ScalarAttributes) {
  VorSimTinyXmlWrapper root(kRobotFile, "robot");
  const auto links = root.getChildren("link");
  const auto& base = links[0];
  EXPECT_EQ(base.getAttributeMust<double>("mass"), 2.5);
  EXPECT_EQ(base.getAttributeMust<int>("count"), -3);
  EXPECT_EQ(base.getAttributeMust<size_t>("id"), 12u);
  EXPECT_EQ(fatalMessage([&] { base.getAttributeMust<double>("inertia"); }),
            located(2, 3, "link") + " does not contain an attribute called 'inertia'");
  EXPECT_EQ(fatalMessage([&] { links[1].getAttributeMust<Vec3>("rpy"); }),
            located(3, 3, "link") + " does not contain an attribute called 'rpy'");
  EXPECT_EQ(fatalMessage([&] { links[1].getAttributeMust<size_t>("bad_id"); }),
            located(3, 3, "link") + ": the attribute 'bad_id' is not an unsigned integer: 'many'");

  // Absent attributes leave the target alone and print nothing.
  double d = 7;
  std::string s = "keep";
  size_t z = 7;
  Vec3 m{7, 7, 7};
  std::vector<double> vec{7};
  testing::internal::CaptureStdout();
  EXPECT_FALSE(base.getAttributeIfExists("inertia", d));
  EXPECT_FALSE(base.getAttributeIfExists("inertia", s));
  EXPECT_FALSE(base.getAttributeIfExists("inertia", z));
  EXPECT_FALSE(base.getAttributeIfExists("inertia", m));
  EXPECT_FALSE(base.getAttributeIfExists("inertia", vec));
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
  EXPECT_EQ(d, 7.0);
  EXPECT_EQ(s, "keep");
  EXPECT_EQ(z, 7u);
  EXPECT_EQ(m[0], 7.0);
  EXPECT_EQ(vec.size(), 1u);

  // Two names: the first wins, the second is a fallback.
  EXPECT_TRUE(base.getAttributeIfExists("mass", "id", d));
  EXPECT_EQ(d, 2.5);
  EXPECT_TRUE(base.getAttributeIfExists("inertia", "id", d));
  EXPECT_EQ(d, 12.0);
  int i = 0;
  EXPECT_TRUE(base.getAttributeIfExists("id", "count", i));
  EXPECT_EQ(i, 12);
  EXPECT_TRUE(base.getAttributeIfExists("inertia", "name", s));
  EXPECT_EQ(s, "base");
  EXPECT_FALSE(base.getAttributeIfExists("inertia", "weight", z));
  EXPECT_EQ(z, 7u);
}

TEST_F(XmlTest, ErrorMessageAndSetAttribute) {
  VorSimTinyXmlWrapper root(kRobotFile, "robot");
  auto joint = root.getChildren("joint").at(0);
  EXPECT_EQ(fatalMessage([&] { joint.errorMessage("bad joint"); }), located(4, 3, "joint") + ": bad joint");
  joint.setAttribute("type", "fixed");
  joint.setAttribute<std::string>("axis", "0 0 1");
  const auto again = root.getChildren("joint").at(0);
  EXPECT_EQ(again.getAttributeMust<std::string>("type"), "fixed");
  EXPECT_EQ(again.getAttributeMust<Vec3>("axis")[2], 1.0);
}

TEST_F(XmlTest, DummyNode) {
  VorSimTinyXmlWrapper dummy;
  EXPECT_TRUE(dummy.isDummy());
  EXPECT_EQ(fatalMessage([&] { dummy.getAttributeMust<double>("a"); }), kDummy);
  EXPECT_EQ(fatalMessage([&] { dummy.getAttributeMust<Vec3>("a"); }), kDummy);
  EXPECT_EQ(fatalMessage([&] { dummy.getChildren("a"); }), kDummy);
  EXPECT_EQ(fatalMessage([&] { dummy.getChildrenMust(); }), kDummy);
  EXPECT_EQ(fatalMessage([&] { dummy.setAttribute("a", "b"); }), kDummy);
  EXPECT_EQ(fatalMessage([&] { dummy.removeFirstChild("a"); }), kDummy);
  EXPECT_EQ(fatalMessage([&] { dummy.errorMessage("x"); }), kDummy);

  double d = 1;
  VecDyn v;
  testing::internal::CaptureStdout();
  EXPECT_FALSE(dummy.getAttributeIfExists("a", d));
  EXPECT_FALSE(dummy.getAttributeIfExists("a", v));
  EXPECT_FALSE(dummy.getAttributeIfExists("a", "b", d));
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
  EXPECT_EQ(d, 1.0);
}

TEST_F(XmlTest, CopiesOfTheOwningWrapperAreIndependent) {
  auto original = std::make_unique<VorSimTinyXmlWrapper>(kRobotFile, "robot");
  VorSimTinyXmlWrapper copy(*original);
  VorSimTinyXmlWrapper assigned;
  assigned = *original;
  VorSimTinyXmlWrapper overwritten("<robot><joint type=\"x\"/></robot>", "robot");
  overwritten = copy;
  // Owners moved around by a growing vector must stay usable.
  std::vector<VorSimTinyXmlWrapper> many;
  for (int k = 0; k < 5; ++k) many.push_back(VorSimTinyXmlWrapper(kRobotFile, "robot"));

  original->getChildren("joint").at(0).setAttribute("type", "fixed");
  original.reset();
  for (auto* w : {&copy, &assigned, &overwritten, &many.front(), &many.back()}) {
    const auto joints = w->getChildren("joint");
    ASSERT_EQ(joints.size(), 1u);
    EXPECT_EQ(joints[0].getAttributeMust<std::string>("type"), "revolute");
    EXPECT_EQ(joints[0].getRow(), 4);
    EXPECT_EQ(joints[0].getColumn(), 3);
    EXPECT_EQ(w->getFileName(), kRobotFile);
  }

  // The root is found again after other top-level nodes.
  VorSimTinyXmlWrapper text("<?xml version=\"1.0\"?><!-- c --><other a=\"1\"/><robot a=\"2\"/>", "robot");
  const VorSimTinyXmlWrapper textCopy = text;
  EXPECT_EQ(textCopy.getAttributeMust<int>("a"), 2);

  // Copies of a child wrapper share the parent's document.
  auto link = copy.getChildren("link").at(0);
  VorSimTinyXmlWrapper linkCopy = link;
  linkCopy.setAttribute("mass", "3");
  EXPECT_EQ(copy.getChildren("link").at(0).getAttributeMust<double>("mass"), 3.0);
}

TEST_F(XmlTest, ReturningFatalCallbackLeavesSafeDefaults) {
  int fatals = 0;
  VorSimMsg::setFatalCallback([&fatals] { ++fatals; });
  testing::internal::CaptureStdout();
  VorSimTinyXmlWrapper missing(kDataDir + "/xml/missing.xml", "robot");
  VorSimTinyXmlWrapper wrongRoot(kRobotFile, "vorsim");
  VorSimTinyXmlWrapper root(kRobotFile, "robot");
  const auto arm = root.getChildren("link").at(1);
  const double d = root.getAttributeMust<double>("mass");
  const std::string s = root.getAttributeMust<std::string>("mass");
  const auto v = root.getAttributeMust<VecDyn>("mass");
  const auto m = arm.getAttributeMust<Vec3>("xyz");
  Vec3 target{4, 4, 4};
  const bool found = arm.getAttributeIfExists("xyz", target);
  const auto kids = missing.getChildren("link");
  const auto noKids = root.getChildrenMust("sensor");
  testing::internal::GetCapturedStdout();

  EXPECT_EQ(fatals, 9);
  EXPECT_TRUE(missing.isDummy());
  EXPECT_TRUE(wrongRoot.isDummy());
  EXPECT_EQ(d, 0.0);
  EXPECT_EQ(s, "");
  EXPECT_EQ(v.size() + kids.size() + noKids.size(), 0u);
  EXPECT_EQ(m[0], 0.0);
  EXPECT_EQ(m[2], 0.0);
  EXPECT_FALSE(found);
  EXPECT_EQ(target[1], 4.0);
}
