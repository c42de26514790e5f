// Adding, finding and removing objects and wires.
#include <gtest/gtest.h>

#include "test_helpers.hpp"
#include "vorsim/Collision.hpp"
#include "vorsim/World.hpp"
#include "vorsim/object/Primitives.hpp"

using namespace vorsim;

namespace {
size_t geomIndex(SingleBodyObject* b) { return geomData(b->getCollisionObject()).objectIndex; }
}  // namespace

TEST(Registry, AddFunctionsWriteTheGeomItems) {
  World world;
  const int before = world.getConfigurationNumber();
  auto* g = world.addGround(0.5, "floor", 0xF);
  auto* s = world.addSphere(0.1, 1.0, "rubber", 0x3, (size_t(1) << 35) | 0x6);
  auto* c = world.addCapsule(0.1, 0.3, 1.0);
  EXPECT_EQ(world.getConfigurationNumber(), before + 3);
  EXPECT_EQ(world.getObjList().size(), 3u);
  EXPECT_EQ(s->getIndexInWorld(), 1u);
  EXPECT_EQ(geomIndex(s), 1u);
  EXPECT_EQ(geomData(s->getCollisionObject()).material, "rubber");
  EXPECT_EQ(geomData(s->getCollisionObject()).localIndex, 0u);
  EXPECT_EQ(s->getCollisionGroup(), 0x3u);
  EXPECT_EQ(s->getCollisionMask(), 0x6u);  // cut to 32 bits
  EXPECT_EQ(g->getCollisionGroup(), 0x80000000u);
  EXPECT_EQ(g->getCollisionMask(), 0xFu);
  EXPECT_EQ(g->getAppearance(), "grid");
  EXPECT_EQ(geomData(g->getCollisionObject()).material, "floor");
  EXPECT_EQ(c->getCollisionMask(), 0xFFFFFFFFu);
  EXPECT_EQ(dSpaceGetNumGeoms(world.getCollisionSpace()), 3);
  // Add-functions give no name; a lookup finds the first in list order.
  EXPECT_EQ(world.getObject(""), g);
  s->setName("x");
  c->setName("x");
  EXPECT_EQ(world.getObject("x"), s);
  EXPECT_EQ(world.getObject("y"), nullptr);
}

TEST(Registry, RemovalMovesTheLastObjectIntoTheGap) {
  World world;
  auto* a = world.addSphere(0.1, 1.0);
  auto* b = world.addBox(0.1, 0.1, 0.1, 1.0);
  auto* c = world.addCylinder(0.1, 0.1, 1.0);
  const int before = world.getConfigurationNumber();
  world.removeObject(a);
  ASSERT_EQ(world.getObjList().size(), 2u);
  EXPECT_EQ(world.getObjList()[0], c);
  EXPECT_EQ(world.getObjList()[1], b);
  EXPECT_EQ(c->getIndexInWorld(), 0u);
  EXPECT_EQ(geomIndex(c), 0u);
  EXPECT_EQ(geomIndex(b), 1u);
  EXPECT_EQ(dSpaceGetNumGeoms(world.getCollisionSpace()), 2);
  // Removing the last one leaves the others alone.
  world.removeObject(b);
  EXPECT_EQ(world.getObjList().size(), 1u);
  EXPECT_EQ(c->getIndexInWorld(), 0u);
  // A second removal of a pointer already gone only reports, without touching it.
  {
    StdoutCapture out;
    world.removeObject(a);
    EXPECT_NE(out.text().find("the object is already deleted"), std::string::npos);
  }
  EXPECT_EQ(world.getObjList().size(), 1u);
  EXPECT_EQ(world.getConfigurationNumber(), before + 3);
}

TEST(Registry, WiresGoWithTheirObjects) {
  World world;
  world.setGravity(Mat<3, 1>{0, 0, 0});
  Sphere* spheres[4];
  for (int i = 0; i < 4; ++i) (spheres[i] = world.addSphere(0.1, 1.0))->setPosition(i, 0, 0);
  Sphere *a = spheres[0], *b = spheres[1], *c = spheres[2], *d = spheres[3];
  const Eigen::Vector3d o = Eigen::Vector3d::Zero();
  auto* ab = world.addStiffWire(a, 0, o, b, 0, o, 1.0);
  auto* cd = world.addCompliantWire(c, 0, o, d, 0, o, 1.0, 100.0);
  auto* ac = world.addCustomWire(a, 0, o, c, 0, o, 2.0);
  ab->setName("ab");
  EXPECT_EQ(world.getWire("ab"), ab);
  EXPECT_EQ(world.getConstraint("ab"), ab);
  EXPECT_EQ(ab->getStretchType(), LengthConstraint::STRETCH_ONLY);
  EXPECT_EQ(cd->getWireType(), LengthConstraint::COMPLIANT);
  EXPECT_EQ(world.getWires().size(), 3u);

  // An unknown wire pointer changes nothing but the counter.
  const int before = world.getConfigurationNumber();
  world.removeObject(reinterpret_cast<LengthConstraint*>(&world));
  EXPECT_EQ(world.getWires().size(), 3u);
  EXPECT_EQ(world.getConfigurationNumber(), before + 1);

  // Removing c takes cd; ac moves into cd's slot and is skipped by the walk, so
  // it stays behind: a caller that needs certainty removes wires first.
  world.removeObject(c);
  ASSERT_EQ(world.getWires().size(), 2u);
  EXPECT_EQ(world.getWires()[1].get(), ac);
  world.removeObject(ac);
  ASSERT_EQ(world.getWires().size(), 1u);
  EXPECT_EQ(world.getWires()[0].get(), ab);
  world.removeObject(b);
  EXPECT_TRUE(world.getWires().empty());
  for (int i = 0; i < 10; ++i) world.integrate();
}

TEST(Registry, StepsStayCorrectAfterRemovingFromASettledPile) {
  World world;
  world.setTimeStep(0.002);
  world.addGround();
  std::vector<SingleBodyObject*> column;
  for (int i = 0; i < 6; ++i) {
    auto* b = world.addBox(0.2, 0.2, 0.2, 1.0);
    b->setPosition(0, 0, 0.1 + 0.2 * i);
    column.push_back(b);
  }
  auto* side = world.addSphere(0.1, 1.0);
  side->setPosition(1.0, 0, 0.1);
  for (int i = 0; i < 1000; ++i) world.integrate();
  EXPECT_NEAR(column[5]->getPosition()[2], 1.1, 0.01);

  // Take out the second and the third body of the column: the four above fall
  // by 0.4 m and settle again on the lowest one.
  world.removeObject(column[1]);
  world.removeObject(column[2]);
  for (int i = 0; i < 1500; ++i) {
    world.integrate();
    // Every contact names an existing partner whose geoms agree on its index.
    const auto& objects = world.getObjList();
    for (size_t k = 0; k < objects.size(); ++k) {
      ASSERT_EQ(objects[k]->getIndexInWorld(), k);
      for (const Contact& c : objects[k]->getContacts()) {
        ASSERT_LT(c.pairObjectIndex, objects.size());
        ASSERT_EQ(geomData(c.colObjectA).objectIndex, c.isObjectA ? k : c.pairObjectIndex);
      }
    }
  }
  for (int i = 3; i < 6; ++i) EXPECT_NEAR(column[size_t(i)]->getPosition()[2], 0.1 + 0.2 * (i - 2), 0.01) << i;
  EXPECT_NEAR(column[0]->getPosition()[2], 0.1, 0.005);
  EXPECT_NEAR(std::hypot(column[5]->getPosition()[0], column[5]->getPosition()[1]), 0.0, 0.02);
  EXPECT_NEAR(side->getPosition()[0], 1.0, 1e-6);
}
