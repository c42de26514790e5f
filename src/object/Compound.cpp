#include "vorsim/object/Compound.hpp"

#include "vorsim/Collision.hpp"
#include "vorsim/VorSimMsg.hpp"

namespace vorsim {

namespace {

bool isCompoundShape(ObjectType type) { return type == SPHERE || type == BOX || type == CYLINDER || type == CAPSULE; }

dxGeom* createChildGeom(const Compound::CompoundObjectChild& child) {
  const Mat<4, 1>& s = child.objectParam;
  switch (child.objectType) {
    case SPHERE:
      return dCreateSphere(nullptr, s[0]);
    case BOX:
      return dCreateBox(nullptr, s[0], s[1], s[2]);
    case CYLINDER:
      return dCreateCylinder(nullptr, s[0], s[1]);
    case CAPSULE:
      return dCreateCapsule(nullptr, s[0], s[1]);
    default:
      return nullptr;
  }
}

}  // namespace

Compound::Compound(const std::vector<CompoundObjectChild>& childList, double mass, const Mat<3, 1>& com,
                   const Mat<3, 3>& inertia)
    : SingleBodyObject(COMPOUND), children(childList.begin(), childList.end()) {
  if (children.size() < 2) MSG_FATAL("Provided less than 2 children. Compound needs at least 2.");
  // Every shape is checked before any geom exists, so a fatal message leaves
  // nothing behind. Under a fatal callback that returns, an unsupported child
  // simply has no geom.
  for (const CompoundObjectChild& child : children)
    if (!isCompoundShape(child.objectType))
      MSG_FATAL("Unsupported shape: " << objectTypeToString(child.objectType) << " (" << int(child.objectType)
                                      << ") for a compound object");

  geoms.reserve(children.size());
  for (const CompoundObjectChild& child : children) {
    dxGeom* geom = createChildGeom(child);
    geoms.push_back(geom ? attachGeomData(geom) : nullptr);
  }
  // The children are one rigid body: none of them collides with another.
  for (dxGeom* a : geoms)
    for (dxGeom* b : geoms)
      if (a && b && a != b) geomData(a).ignoredGeoms.insert(b);
  for (dxGeom* geom : geoms)
    if (geom) {
      collisionObject_ = geom;
      break;
    }

  position_.setZero();
  linearVelocity_.setZero();
  angularVelocity_.setZero();
  rotationMatrix_.setIdentity();
  comOffset_ = com;
  comPosition_ = com;
  setMass(mass);
  bodyInertia_ = inertia;
  worldInertia_ = inertia;
  invert33(bodyInertia_, bodyInertiaInverse_);
  worldInertiaInverse_ = bodyInertiaInverse_;
  updateCollision();
}

Compound::~Compound() {
  for (dxGeom* geom : geoms) destroyGeom(geom);
  geoms.clear();
  // Already destroyed with the others.
  collisionObject_ = nullptr;
}

void Compound::updateCollision() {
  collisionCenter_ = position_;
  const Mat<3, 3>& R = rotationMatrix_;
  for (size_t i = 0; i < geoms.size(); ++i) {
    if (geoms[i] == nullptr) continue;
    Mat<3, 1> p;
    matvecmul(R, children[i].position, p);
    for (size_t k = 0; k < 3; ++k) p[k] += position_[k];
    Mat<3, 3> Rc;
    matmul(R, children[i].rotation, Rc);
    setGeomPose(geoms[i], p, Rc);
  }
}

void Compound::destroyCollisionBodies(dxSpace* space) {
  for (dxGeom*& geom : geoms) {
    if (geom == nullptr) continue;
    if (space) dSpaceRemove(space, geom);
    destroyGeom(geom);
    geom = nullptr;
  }
  collisionObject_ = nullptr;
}

void Compound::setGeomObjectIndex(size_t index) {
  for (dxGeom* geom : geoms)
    if (geom) geomData(geom).objectIndex = index;
}

}  // namespace vorsim
