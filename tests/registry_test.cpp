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

TEST(Registry, AddFindRemoveObjectsAndWires) {
  World world;
  world.setGravity(Mat<3, 1>{0, 0, 0});
  const int before = world.getConfigurationNumber();
  auto* g = world.addGround(-5, "floor", 0xF);
  auto* s = world.addSphere(0.1, 1.0, "rubber", 0x3, (size_t(1) << 35) | 0x6);
  auto* c = world.addCapsule(0.1, 0.3, 1.0);
  auto* b = world.addBox(0.1, 0.1, 0.1, 1.0);
  EXPECT_EQ(world.getConfigurationNumber(), before + 4);
  EXPECT_EQ(geomIndex(s), 1u);
  EXPECT_EQ(geomData(s->getCollisionObject()).material, "rubber");
  EXPECT_EQ(s->getCollisionGroup(), 0x3u);
  EXPECT_EQ(s->getCollisionMask(), 0x6u);  // cut to 32 bits
  EXPECT_EQ(g->getCollisionGroup(), 0x80000000u);
  EXPECT_EQ(g->getCollisionMask(), 0xFu);
  EXPECT_EQ(g->getAppearance(), "grid");
  EXPECT_EQ(c->getCollisionMask(), 0xFFFFFFFFu);
  // No name from the add-functions; a lookup finds the first in list order.
  EXPECT_EQ(world.getObject(""), g);
  s->setName("x");
  c->setName("x");
  EXPECT_EQ(world.getObject("x"), s);
  EXPECT_EQ(world.getObject("y"), nullptr);

  const Eigen::Vector3d o = Eigen::Vector3d::Zero();
  auto* sc = world.addStiffWire(s, 0, o, c, 0, o, 1.0);
  auto* cb = world.addCompliantWire(c, 0, o, b, 0, o, 1.0, 100.0);
  auto* sb = world.addCustomWire(s, 0, o, b, 0, o, 2.0);
  sc->setName("sc");
  EXPECT_EQ(world.getWire("sc"), sc);
  EXPECT_EQ(world.getConstraint("sc"), sc);
  EXPECT_EQ(sc->getStretchType(), LengthConstraint::STRETCH_ONLY);
  EXPECT_EQ(cb->getWireType(), LengthConstraint::COMPLIANT);
  // An unknown wire pointer changes nothing but the counter.
  const int wired = world.getConfigurationNumber();
  world.removeObject(reinterpret_cast<LengthConstraint*>(&world));
  EXPECT_EQ(world.getWires().size(), 3u);
  EXPECT_EQ(world.getConfigurationNumber(), wired + 1);

  // Removal moves the last object into the gap, on the object and its geom,
  // and takes the object's wires: removing s takes sc; sb moves into sc's
  // slot and is skipped by the walk, so it stays (callers remove wires first).
  world.removeObject(s);
  ASSERT_EQ(world.getObjList().size(), 3u);
  EXPECT_EQ(world.getObjList()[1], b);
  EXPECT_EQ(b->getIndexInWorld(), 1u);
  EXPECT_EQ(geomIndex(b), 1u);
  EXPECT_EQ(geomIndex(c), 2u);
  EXPECT_EQ(dSpaceGetNumGeoms(world.getCollisionSpace()), 3);
  ASSERT_EQ(world.getWires().size(), 2u);
  EXPECT_EQ(world.getWires()[0].get(), sb);
  world.removeObject(sb);
  world.removeObject(c);  // the last one: the others stay where they are
  EXPECT_EQ(b->getIndexInWorld(), 1u);
  EXPECT_TRUE(world.getWires().empty());
  // A second removal of a pointer already gone only reports, without touching it.
  {
    StdoutCapture out;
    world.removeObject(s);
    EXPECT_NE(out.text().find("the object is already deleted"), std::string::npos);
  }
  EXPECT_EQ(world.getObjList().size(), 2u);
  for (int i = 0; i < 10; ++i) world.integrate();
}

namespace {
// One rigid body with two geoms, the second fixed at `offset` in the body frame,
// of the given type and self-collision cap.
class TwoGeomBody : public SingleBodyObject {
 public:
  TwoGeomBody(ObjectType type, dxGeom* first, dxGeom* second, const Mat<3, 1>& offset, int cap = 1)
      : SingleBodyObject(type), second_(attachGeomData(second)), offset_(offset), cap_(cap) {
    Mat<3, 3> inertia{};
    inertia(0, 0) = inertia(1, 1) = inertia(2, 2) = 0.01;
    initPrimitive(first, 1.0, inertia);
    TwoGeomBody::updateCollision();
  }
  ~TwoGeomBody() override { destroyGeom(second_); }
  dxGeom* second() const { return second_; }

  void updateCollision() override {
    SingleBodyObject::updateCollision();
    Mat<3, 1> p;
    getPosition(0, offset_, p);
    dGeomSetPosition(second_, p[0], p[1], p[2]);
  }
  void destroyCollisionBodies(dxSpace* space) override {
    if (second_ && space) dSpaceRemove(space, second_);
    destroyGeom(second_);
    second_ = nullptr;
    SingleBodyObject::destroyCollisionBodies(space);
  }
  int getMaxSelfCollisionContacts() const override { return cap_; }

 private:
  dxGeom* second_;
  Mat<3, 1> offset_;
  int cap_;
};
}  // namespace

TEST(Registry, SelfCollisionKeepsAsManyPointsAsTheObjectAllows) {
  // Two overlapping boxes of one object on local bodies 0 and 1: an articulated
  // object keeps its own cap of points of that pair, other kinds keep them all;
  // geoms of one body are not even tested.
  struct Case {
    ObjectType type;
    int cap;
    size_t secondLocal;
  };
  for (const Case c : {Case{ARTICULATED_SYSTEM, 1, 1}, Case{ARTICULATED_SYSTEM, 2, 1}, Case{BOX, 1, 1},
                       Case{ARTICULATED_SYSTEM, 1, 0}}) {
    SCOPED_TRACE("type " + std::to_string(c.type) + " cap " + std::to_string(c.cap));
    TestWorld world;
    auto* body = world.add(new TwoGeomBody(c.type, dCreateBox(nullptr, 0.4, 0.4, 0.4),
                                           dCreateBox(nullptr, 0.4, 0.4, 0.4), Mat<3, 1>{0.3, 0.05, 0.1}, c.cap));
    world.addGeom(body->getCollisionObject(), 0);
    world.addGeom(body->second(), c.secondLocal);
    world.integrate1();
    const size_t points = size_t(world.getNumberOfCollisionPoints());
    EXPECT_TRUE(c.secondLocal == 0 ? points == 0 : points >= 2) << points;
    const size_t kept = c.secondLocal == 0 ? 0 : c.type == ARTICULATED_SYSTEM && c.cap == 1 ? 1 : points;
    const auto& list = body->getContacts();
    ASSERT_EQ(list.size(), 2 * kept);
    EXPECT_EQ(world.getContactProblem().size(), kept);
    // Both records of a point stand in the one list and name each other.
    for (size_t k = 0; k < list.size(); k += 2) {
      EXPECT_TRUE(list[k].isObjectA && !list[k + 1].isObjectA);
      EXPECT_EQ(list[k + 1].pairContactIndex, k);
      EXPECT_EQ(list[k].contactProblemIndex, k / 2);
    }
  }
}
