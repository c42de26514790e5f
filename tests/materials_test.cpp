// Material pairs: the XML table, symmetric lookup, default fallback and threshold reciprocals.
#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <utility>
#include <vector>

#include "test_helpers.hpp"
#include "vorsim/Materials.hpp"
#include "vorsim/VorSimTinyXmlWrapper.hpp"
#include "vorsim/World.hpp"
#include "vorsim/object/Primitives.hpp"

using vorsim::MaterialManager;
using vorsim::VorSimTinyXmlWrapper;

TEST(Materials, XmlTableSymmetryAndDefaultFallback) {
  using V = std::vector<double>;
  const MaterialManager m(VorSimTinyXmlWrapper(std::string(VORSIM_TEST_DATA_DIR) + "/materials.xml", "material"));
  const auto& d = m.getDefaultMaterialProperties();
  // Only the first "default" is read, and it leaves the static-friction fields alone.
  EXPECT_EQ((V{d.c_f, d.c_r, d.r_th, d.c_static_f, d.v_static, d.v_static_inv}), (V{0.6, 0.2, 0.05, 0.8, 1, 1}));
  const auto& sr = m.getMaterialPairProp("steel", "rubber");
  EXPECT_EQ(&sr, &m.getMaterialPairProp("rubber", "steel"));
  EXPECT_EQ((V{sr.c_f, sr.c_r, sr.r_th, sr.c_static_f, sr.v_static, sr.v_static_inv}),
            (V{0.9, 0.3, 0.02, 1.1, 0.25, 4}));
  EXPECT_EQ(m.getMaterialPairProp("ice", "ice").c_f, 0.01);
  // Known names never paired together, unknown names and the empty name fall back.
  for (const auto& [a, b] : {std::pair<const char*, const char*>{"steel", "ice"}, {"wood", "steel"}, {"", ""}})
    EXPECT_EQ(&m.getMaterialPairProp(a, b), &d) << a << "/" << b;

  ThrowOnFatal guard;
  const VorSimTinyXmlWrapper noFriction(
      "<material>\n <default restitution=\"0\" restitution_threshold=\"0\"/></material>", "material");
  StdoutCapture out;
  EXPECT_THROW(MaterialManager{noFriction}, vorsim_test::FatalError);
  EXPECT_NE(
      out.text().find("] \x1b[1;31min 'URDF from a string' at row:2 col:2, the node 'default' does not contain an "
                      "attribute called 'friction'\x1b[0m\n"),
      std::string::npos);
}

TEST(Materials, OnlyPairsTakeTheReciprocal) {
  vorsim::World world;  // the world setters take the static friction from the friction, and 1 mm/s
  world.setDefaultMaterial(0.5, 0.1, 0.2);
  world.setMaterialPairProp("x", "y", 0.6, 0.1, 0.2);
  const auto& d = world.getMaterialManager().getDefaultMaterialProperties();
  const auto& p = world.getMaterialManager().getMaterialPairProp("y", "x");
  EXPECT_EQ((std::vector<double>{d.c_static_f, d.v_static, d.v_static_inv, p.c_static_f, p.v_static}),
            (std::vector<double>{0.5, 0.001, 1, 0.6, 0.001}));
  EXPECT_DOUBLE_EQ(p.v_static_inv, 1000.0);

  MaterialManager m;
  m.setMaterialPairProp("b", "c", 0.6, 0.0, 0.01, 0.6, 1.0);
  m.setMaterialPairProp("c", "b", 0.7, 0.0, 0.01, 0.7, 0.1);  // the reversed pair overwrites the entry
  EXPECT_DOUBLE_EQ(m.getMaterialPairProp("b", "c").v_static_inv, 10.0);
}

TEST(Materials, EveryContactTakesItsOwnPair) {
  // Two floors of different materials, each with a row of boxes whose
  // materials alternate, and opposite ones on the two rows: from one collision
  // point to the next the floor, the box or both change material, and each
  // problem must carry its own pair.
  vorsim::World world;
  world.setMaterialPairProp("floor", "ice", 0.1, 0.0, 0.01);
  world.setMaterialPairProp("floor", "rubber", 0.9, 0.2, 0.01);
  world.setMaterialPairProp("steel", "ice", 0.3, 0.1, 0.01);
  world.setMaterialPairProp("steel", "rubber", 0.6, 0.3, 0.01);
  const std::string floors[] = {"floor", "steel"}, boxes[] = {"ice", "rubber"};
  for (int f = 0; f < 2; ++f) {
    auto* floor = world.addBox(4.0, 1.0, 0.2, 1.0, floors[f]);
    floor->setPosition(1.0, f == 0 ? -0.6 : 0.6, -0.1);
    floor->setBodyType(vorsim::STATIC);
    for (int i = 0; i < 4; ++i)
      world.addBox(0.2, 0.2, 0.2, 1.0, boxes[(i + f) % 2])->setPosition(0.5 * i, f == 0 ? -0.6 : 0.6, 0.099);
  }
  world.integrate1();
  const auto& problems = world.getContactProblem();
  ASSERT_EQ(problems.size(), 32u);
  for (const auto& P : problems) {
    const int f = P.getPosition()[1] > 0.0 ? 1 : 0, i = int(std::lround(P.getPosition()[0] / 0.5));
    const auto& expected = world.getMaterialManager().getMaterialPairProp(floors[f], boxes[(i + f) % 2]);
    EXPECT_EQ(P.mu, expected.c_f) << "floor " << f << ", box " << i;
    EXPECT_EQ(P.restitution, expected.c_r) << "floor " << f << ", box " << i;
  }
}
