// The XML wrapper: vectors, located fatal messages, children, two-name attributes and copies.
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "test_helpers.hpp"
#include "vorsim/VorSimTinyXmlWrapper.hpp"

using vorsim::Mat;
using vorsim::VecDyn;
using vorsim::VorSimTinyXmlWrapper;
using Vec3 = Mat<3, 1>;

namespace {

const std::string kDataDir = VORSIM_TEST_DATA_DIR;
const std::string kRobotFile = kDataDir + "/xml/robot.xml";

// The text of the one fatal message f prints, without stamp and colour codes.
template <typename F>
std::string fatalText(F f) {
  StdoutCapture out;
  EXPECT_THROW(f(), vorsim_test::FatalError);
  const std::string text = out.text();
  const size_t begin = text.find("\x1b[1;31m");  // the message runs to the closing "\x1b[0m\n"
  return begin == std::string::npos ? text : text.substr(begin + 7, text.size() - std::min(text.size(), begin + 12));
}

std::string located(int row, int col, const std::string& node, const std::string& file = kRobotFile) {
  return "in '" + file + "' at row:" + std::to_string(row) + " col:" + std::to_string(col) + ", the node '" + node +
         "'";
}

class XmlTest : public testing::Test {
  ThrowOnFatal guard_;
};

}  // namespace

TEST_F(XmlTest, VectorsOptionalAttributesAndDimensionMessage) {
  for (const char* text : {"1,2,3", "  1  2 3 ", "1 ,2 , 3"}) {
    const auto v = VorSimTinyXmlWrapper(std::string("<r v=\"") + text + "\"/>", "r").getAttributeMust<Vec3>("v");
    EXPECT_EQ((std::vector<double>{v[0], v[1], v[2]}), (std::vector<double>{1, 2, 3})) << text;
  }
  VorSimTinyXmlWrapper bad("<r a=\"1 x 3\" b=\"1e999,0,0\"/>", "r");  // conversion errors reach the caller
  EXPECT_THROW(bad.getAttributeMust<Vec3>("a"), std::invalid_argument);
  EXPECT_THROW(bad.getAttributeMust<Vec3>("b"), std::out_of_range);

  const VorSimTinyXmlWrapper root(kRobotFile, "robot");
  const auto base = root.getChildren("link").at(0);
  VecDyn dyn(2);  // dynamic forms take their length from the text
  ASSERT_TRUE(base.getAttributeIfExists("rpy", dyn));
  EXPECT_EQ(dyn.size(), 3u);
  Mat<4, 1> target{9, 9, 9, 9};
  EXPECT_EQ(fatalText([&] { base.getAttributeIfExists("xyz", target); }),
            "Dimension mismatch. File: " + kRobotFile +
                ", node: robot/link/, at row:2 col:3, Attribute: xyz should have a dimension of 4");
  EXPECT_EQ(target[0], 9.0);

  double d = 7;
  StdoutCapture out;  // an absent attribute leaves the target alone and prints nothing
  EXPECT_FALSE(base.getAttributeIfExists("inertia", d));
  EXPECT_EQ(out.text(), "");
  EXPECT_EQ(d, 7.0);
  EXPECT_TRUE(base.getAttributeIfExists("mass", "id", d));  // the first name wins
  EXPECT_EQ(d, 2.5);
  EXPECT_TRUE(base.getAttributeIfExists("inertia", "id", d));  // the second is a fallback
  EXPECT_EQ(d, 12.0);
  size_t z = 7;
  EXPECT_FALSE(base.getAttributeIfExists("inertia", "weight", z));
  EXPECT_EQ(z, 7u);
}

TEST_F(XmlTest, ConstructionChildrenAndLocatedMessages) {
  EXPECT_EQ(fatalText([] { VorSimTinyXmlWrapper("<vorsim/>", "robot"); }),
            "<vorsim/> file does not contain node 'robot'");
  for (const std::string& file : {kDataDir + "/xml/missing.xml", kDataDir + "/xml/broken.xml"})
    EXPECT_EQ(fatalText([&] { VorSimTinyXmlWrapper(file, "robot"); }), "cannot read the xml file: " + file);
  // Malformed text is refused rather than read half-parsed.
  EXPECT_EQ(fatalText([] { VorSimTinyXmlWrapper("<robot><link></robot>", "robot"); }).substr(0, 27),
            "cannot parse the xml text: ");

  VorSimTinyXmlWrapper root(kRobotFile, "robot");
  const auto links = root.getChildrenMust("link");
  ASSERT_EQ(links.size(), 3u);
  std::string names;
  for (auto const& child : root.getChildren()) names += child.getName() + " ";
  EXPECT_EQ(names, "link link joint link ");

  EXPECT_EQ(fatalText([&] { root.getChildrenMust("sensor"); }), located(1, 1, "robot") + " does not contain a child");
  EXPECT_EQ(fatalText([&] { links[2].getChildrenMust(); }), located(5, 3, "link") + " does not contain a child");
  EXPECT_EQ(fatalText([&] { links[1].getAttributeMust<double>("mass"); }),
            located(3, 3, "link") + " does not contain an attribute called 'mass'");
  EXPECT_EQ(fatalText([&] { links[1].getAttributeMust<size_t>("bad_id"); }),
            located(3, 3, "link") + ": the attribute 'bad_id' is not an unsigned integer: 'many'");
  VorSimTinyXmlWrapper text("<robot><link name=\"a\"/></robot>", "robot");
  EXPECT_EQ(fatalText([&] { text.getChildren("link").at(0).errorMessage("boom"); }),
            located(1, 8, "link", "URDF from a string") + ": boom");
  EXPECT_EQ(fatalText([] { VorSimTinyXmlWrapper().getChildren("a"); }), "You have accessed a dummy node");
}

TEST_F(XmlTest, CopiesOwnTheirDocument) {
  auto original = std::make_unique<VorSimTinyXmlWrapper>(kRobotFile, "robot");
  VorSimTinyXmlWrapper copy(*original);
  VorSimTinyXmlWrapper assigned("<robot><joint type=\"x\"/></robot>", "robot");
  assigned = copy;
  std::vector<VorSimTinyXmlWrapper> many;  // owners moved by a growing vector stay usable
  for (int k = 0; k < 5; ++k) many.push_back(VorSimTinyXmlWrapper(kRobotFile, "robot"));

  original->getChildren("joint").at(0).setAttribute("type", "fixed");
  original.reset();
  for (auto* w : {&copy, &assigned, &many.front(), &many.back()}) {
    const auto joints = w->getChildren("joint");
    ASSERT_EQ(joints.size(), 1u);
    EXPECT_EQ(joints[0].getAttributeMust<std::string>("type"), "revolute");
    EXPECT_EQ(joints[0].getRow(), 4);
    EXPECT_EQ(w->getFileName(), kRobotFile);
  }
  VorSimTinyXmlWrapper linkCopy = copy.getChildren("link").at(0);  // a child copy shares the document
  linkCopy.setAttribute("mass", "3");
  EXPECT_EQ(copy.getChildren("link").at(0).getAttributeMust<double>("mass"), 3.0);
}
