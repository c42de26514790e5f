#include <gtest/gtest.h>

#include <functional>
#include <stdexcept>
#include <string>

#include "vorsim/Materials.hpp"
#include "vorsim/VorSimMsg.hpp"
#include "vorsim/VorSimTinyXmlWrapper.hpp"
#include "vorsim/World.hpp"

using vorsim::MaterialManager;
using vorsim::VorSimMsg;
using vorsim::VorSimTinyXmlWrapper;

namespace {

const std::string kMaterialFile = std::string(VORSIM_TEST_DATA_DIR) + "/materials.xml";

// The text of the fatal message printed while f runs; f must end in the
// throwing fatal callback.
std::string fatalMessage(const std::function<void()>& f) {
  VorSimMsg::setFatalCallback([] { throw std::runtime_error("fatal"); });
  testing::internal::CaptureStdout();
  std::string caught = "nothing";
  try {
    f();
  } catch (const std::exception& e) {
    caught = e.what();
  }
  const std::string out = testing::internal::GetCapturedStdout();
  VorSimMsg::resetFatalCallback();
  EXPECT_EQ(caught, "fatal") << "printed: " << out;
  const std::string red = "\x1b[1;31m";
  const size_t begin = out.find(red);
  const size_t end = out.find("\x1b[0m", begin == std::string::npos ? 0 : begin);
  if (begin == std::string::npos || end == std::string::npos) return out;
  return out.substr(begin + red.size(), end - begin - red.size());
}

}  // namespace

TEST(Materials, ReadsFirstDefaultAndEveryPair) {
  const MaterialManager m(VorSimTinyXmlWrapper(kMaterialFile, "material"));
  const auto& d = m.getDefaultMaterialProperties();
  EXPECT_EQ(d.c_f, 0.6);
  EXPECT_EQ(d.c_r, 0.2);
  EXPECT_EQ(d.r_th, 0.05);
  // The static-friction fields are not read from "default".
  EXPECT_EQ(d.c_static_f, 0.8);
  EXPECT_EQ(d.v_static, 1.0);
  EXPECT_EQ(d.v_static_inv, 1.0);

  const auto& sr = m.getMaterialPairProp("steel", "rubber");
  EXPECT_EQ(&sr, &m.getMaterialPairProp("rubber", "steel"));
  EXPECT_EQ(sr.c_f, 0.9);
  EXPECT_EQ(sr.r_th, 0.02);
  EXPECT_EQ(sr.c_static_f, 1.1);
  EXPECT_EQ(sr.v_static, 0.25);
  EXPECT_EQ(sr.v_static_inv, 4.0);
  EXPECT_EQ(m.getMaterialPairProp("ice", "rubber").c_f, 0.05);
  const auto& ii = m.getMaterialPairProp("ice", "ice");
  EXPECT_EQ(ii.c_f, 0.01);
  EXPECT_EQ(ii.v_static_inv, 0.5);

  // Known names never paired with each other, unknown names and the empty
  // name all fall back to the default pair.
  EXPECT_EQ(&m.getMaterialPairProp("steel", "ice"), &d);
  EXPECT_EQ(&m.getMaterialPairProp("steel", "steel"), &d);
  EXPECT_EQ(&m.getMaterialPairProp("wood", "steel"), &d);
  EXPECT_EQ(&m.getMaterialPairProp("", ""), &d);
}

TEST(Materials, MissingAttributesEndInTheXmlLayersMessage) {
  const std::string where = "in 'URDF from a string' at row:2 col:3, ";
  VorSimTinyXmlWrapper noFriction("<material>\n  <default restitution=\"0\" restitution_threshold=\"0\"/>\n</material>",
                                  "material");
  EXPECT_EQ(fatalMessage([&] { MaterialManager m(noFriction); }),
            where + "the node 'default' does not contain an attribute called 'friction'");

  VorSimTinyXmlWrapper noName2(
      "<material>\n  <pair_prop name1=\"a\" friction=\"1\" restitution=\"0\" restitution_threshold=\"0\" "
      "static_friction=\"1\" static_friction_velocity_threshold=\"1\"/>\n</material>",
      "material");
  EXPECT_EQ(fatalMessage([&] { MaterialManager m(noName2); }),
            where + "the node 'pair_prop' does not contain an attribute called 'name2'");

  // A second, incomplete "default" is never read.
  VorSimTinyXmlWrapper twoDefaults(
      "<material><default friction=\"0.3\" restitution=\"0\" restitution_threshold=\"0\"/><default/></material>",
      "material");
  MaterialManager m(twoDefaults);
  EXPECT_EQ(m.getDefaultMaterialProperties().c_f, 0.3);
}

TEST(Materials, PairTable) {
  MaterialManager m;
  m.setMaterialPairProp("a", "a", 0.3, 0.1, 0.2, 0.4, 0.5);
  const auto& aa = m.getMaterialPairProp("a", "a");
  ASSERT_NE(&aa, &m.getDefaultMaterialProperties());
  EXPECT_EQ(aa.c_f, 0.3);
  EXPECT_EQ(aa.c_static_f, 0.4);
  EXPECT_EQ(aa.v_static_inv, 2.0);

  // The reversed pair overwrites the same entry.
  m.setMaterialPairProp("b", "c", 0.6, 0.0, 0.01, 0.6, 1.0);
  m.setMaterialPairProp("c", "b", 0.7, 0.0, 0.01, 0.7, 0.1);
  EXPECT_EQ(m.getMaterialPairProp("b", "c").c_f, 0.7);
  EXPECT_DOUBLE_EQ(m.getMaterialPairProp("b", "c").v_static_inv, 10.0);
  EXPECT_EQ(&m.getMaterialPairProp("a", "b"), &m.getDefaultMaterialProperties());

  // The default keeps its reciprocal whatever threshold is set.
  m.setDefaultMaterialProperties(0.2, 0.1, 0.3, 0.25, 0.5);
  EXPECT_EQ(m.getDefaultMaterialProperties().v_static, 0.5);
  EXPECT_EQ(m.getDefaultMaterialProperties().v_static_inv, 1.0);
}

TEST(Materials, WorldSettersDifferInTheReciprocal) {
  vorsim::World world;
  world.setDefaultMaterial(0.5, 0.1, 0.2);
  const auto& d = world.getMaterialManager().getDefaultMaterialProperties();
  EXPECT_EQ(d.c_f, 0.5);
  EXPECT_EQ(d.c_r, 0.1);
  EXPECT_EQ(d.r_th, 0.2);
  EXPECT_EQ(d.c_static_f, 0.5);
  EXPECT_EQ(d.v_static, 0.001);
  EXPECT_EQ(d.v_static_inv, 1.0);

  world.setMaterialPairProp("x", "y", 0.5, 0.1, 0.2);
  const auto& p = world.getMaterialManager().getMaterialPairProp("y", "x");
  EXPECT_EQ(p.c_static_f, 0.5);
  EXPECT_EQ(p.v_static, 0.001);
  EXPECT_DOUBLE_EQ(p.v_static_inv, 1000.0);

  world.updateMaterialProp(MaterialManager(VorSimTinyXmlWrapper(kMaterialFile, "material")));
  EXPECT_EQ(world.getMaterialManager().getDefaultMaterialProperties().c_f, 0.6);
  EXPECT_EQ(world.getMaterialManager().getMaterialPairProp("rubber", "steel").c_f, 0.9);
  EXPECT_EQ(&world.getMaterialManager().getMaterialPairProp("x", "y"),
            &world.getMaterialManager().getDefaultMaterialProperties());
}
