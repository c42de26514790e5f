// Compounds: one rigid body of several primitive shapes.
#include <gtest/gtest.h>

#include <cmath>

#include "test_helpers.hpp"
#include "vorsim/Collision.hpp"
#include "vorsim/World.hpp"
#include "vorsim/object/Compound.hpp"
#include "vorsim/object/Primitives.hpp"

using namespace vorsim;
using Piece = Compound::CompoundObjectChild;

namespace {

Piece box(double x, double y, double z, const Mat<3, 1>& pos, const std::string& material = "wood") {
  Piece c;
  c.objectType = BOX;
  c.objectParam = {x, y, z, 0.0};
  c.position = pos;
  c.material = material;
  return c;
}

// A table: a top (child 0) on four legs (children 1-4) that reach into it, so
// that children overlap. The body origin is at the feet.
struct Table {
  std::vector<Piece> children;
  double mass = 10.0;  // a top of 6 kg, legs of 1 kg
  Mat<3, 1> com{0, 0, (6 * 0.72 + 4 * 0.36) / 10.0};
  Mat<3, 3> inertia{0.915, 0, 0, 0, 1.795, 0, 0, 0, 1.741};  // of the parts, about the centre of mass
  Table() {
    children.push_back(box(1.0, 0.6, 0.04, {0, 0, 0.72}, "top"));
    for (int k = 0; k < 4; ++k)
      children.push_back(box(0.04, 0.04, 0.72, {k & 1 ? 0.45 : -0.45, k & 2 ? 0.25 : -0.25, 0.36}));
  }
};

}  // namespace

TEST(Compound, ChildrenGeomsAndPose) {
  World world;
  Table t;
  auto* table = world.addCompound(t.children, t.mass, t.com, t.inertia, 0x6, 0x3);
  ASSERT_EQ(table->getCollisionObjects().size(), 5u);
  EXPECT_EQ(table->getObjectType(), COMPOUND);
  EXPECT_EQ(table->getMass(), 10.0);
  EXPECT_EQ(dSpaceGetNumGeoms(world.getCollisionSpace()), 5);
  for (size_t i = 0; i < 5; ++i) {
    const GeomData& d = geomData(table->geoms[i]);
    EXPECT_EQ(d.localIndex, i);
    EXPECT_EQ(d.objectIndex, 0u);
    EXPECT_EQ(d.material, i == 0 ? "top" : "wood");
    EXPECT_EQ(getCategoryBits(table->geoms[i]), 0x6u);
    EXPECT_EQ(getCollideBits(table->geoms[i]), 0x3u);
  }
  EXPECT_NEAR(table->getComPosition()[2], (6 * 0.72 + 4 * 0.36) / 10.0, 1e-12);
  // Children are placed from the body's position, rotated with the body.
  table->setPosition(1.0, 2.0, 3.0);
  table->setOrientation(Eigen::Quaterniond(Eigen::AngleAxisd(M_PI / 2, Eigen::Vector3d::UnitZ())));
  const dReal* leg = dGeomGetPosition(table->geoms[4]);  // (0.45, 0.25, 0.36) in the body
  EXPECT_NEAR(leg[0], 1.0 - 0.25, 1e-12);
  EXPECT_NEAR(leg[1], 2.0 + 0.45, 1e-12);
  EXPECT_NEAR(leg[2], 3.36, 1e-12);
  const dReal* R = dGeomGetRotation(table->geoms[4]);
  EXPECT_NEAR(R[1], -1.0, 1e-12);  // row 0: (cos, -sin, 0)

  // Two children at one pose are fine.
  Piece s;
  s.objectParam = {0.1, 0, 0, 0};
  Compound twins({s, s}, 1.0, Mat<3, 1>{}, Mat<3, 3>::getIdentity());
  EXPECT_EQ(twins.geoms.size(), 2u);
}

TEST(Compound, BadChildrenAreFatal) {
  Piece s;
  s.objectParam = {0.1, 0, 0, 0};
  EXPECT_NE(vorsim_test::fatalOf([&] {
              Compound({s}, 1.0, Mat<3, 1>{}, Mat<3, 3>::getIdentity());
            }).find("\x1b[1;31mProvided less than 2 children. Compound needs at least 2.\x1b[0m"),
            std::string::npos);
  for (ObjectType bad : {MESH, CONE, GROUND, HEIGHTMAP, COMPOUND}) {
    Piece other = s;
    other.objectType = bad;
    World world;
    EXPECT_NE(vorsim_test::fatalOf([&] {
                world.addCompound({s, other}, 1.0, Mat<3, 1>{}, Mat<3, 3>::getIdentity());
              })
                  .find("Unsupported shape: " + objectTypeToString(bad) + " (" + std::to_string(int(bad)) +
                        ") for a compound object"),
              std::string::npos);
    EXPECT_EQ(world.getObjList().size(), 0u);
    EXPECT_EQ(world.getConfigurationNumber(), 1);
  }
}

TEST(Compound, TableStandsOnItsLegsAndSlidesAsOneBody) {
  World world;
  world.setTimeStep(0.001);
  world.setMaterialPairProp("floor", "wood", 0.5, 0.0, 0.01);
  world.addGround(0.0, "floor");
  Table t;
  auto* table = world.addCompound(t.children, t.mass, t.com, t.inertia);
  table->setPosition(0.0, 0.0, 0.002);
  auto legsInContact = [&] {
    int seen = 0;
    for (const Contact& c : table->getContacts()) {
      EXPECT_NE(c.getLocalBodyIndex(), 0u);                         // the top never touches the floor
      EXPECT_NE(c.getPairObjectIndex(), table->getIndexInWorld());  // nor a leg the top
      seen |= 1 << c.getLocalBodyIndex();
    }
    return seen;
  };
  for (int i = 0; i < 1000; ++i) world.integrate();
  EXPECT_EQ(legsInContact(), 0x1E);
  EXPECT_NEAR(table->getPosition()[2], 0.0, 2e-3);
  EXPECT_LT(table->getLinearVelocity().norm(), 1e-3);

  // Pushed, it slides on all four legs and slows at mu g, staying level.
  table->setVelocity(2.0, 0.0, 0.0, 0.0, 0.0, 0.0);
  for (int i = 0; i < 200; ++i) {
    world.integrate();
    EXPECT_EQ(legsInContact(), 0x1E) << i;
  }
  EXPECT_NEAR((2.0 - table->getLinearVelocity()[0]) / 0.2, 0.5 * 9.81, 0.05 * 0.5 * 9.81);
  EXPECT_NEAR(table->getRotationMatrix()(2, 2), 1.0, 1e-6);
  EXPECT_NEAR(table->getPosition()[2], 0.0, 2e-3);

  // Upside down it lies on its top alone.
  World flipped;
  flipped.addGround();
  auto* upside = flipped.addCompound(t.children, t.mass, t.com, t.inertia);
  upside->setPose(Eigen::Vector3d(0, 0, 0.739), Eigen::Quaterniond(Eigen::AngleAxisd(M_PI, Eigen::Vector3d::UnitX())));
  flipped.integrate();
  ASSERT_GT(upside->getContacts().size(), 0u);
  for (const Contact& c : upside->getContacts()) EXPECT_EQ(c.getLocalBodyIndex(), 0u);
}

TEST(Compound, RemovingAnEarlierObjectRestampsEveryChildGeom) {
  World world;
  auto* first = world.addSphere(0.1, 1.0);
  world.addGround();
  Table t;
  auto* table = world.addCompound(t.children, t.mass, t.com, t.inertia);
  table->setPosition(0.0, 0.0, -0.001);
  world.removeObject(first);
  ASSERT_EQ(world.getObjList()[0], table);
  EXPECT_EQ(table->getIndexInWorld(), 0u);
  for (dxGeom* g : table->geoms) EXPECT_EQ(geomData(g).objectIndex, 0u);
  world.integrate();
  EXPECT_GE(table->getContacts().size(), 4u);
  world.removeObject(table);
  EXPECT_EQ(dSpaceGetNumGeoms(world.getCollisionSpace()), 1);
}
