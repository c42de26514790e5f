#include "vorsim/object/LengthConstraint.hpp"

#include "vorsim/contact/Single3DContactProblem.hpp"

namespace vorsim {

LengthConstraint::LengthConstraint(Object* ob1_, size_t localIdx1_, Mat<3, 1> pos1, Object* ob2_, size_t localIdx2_,
                                   Mat<3, 1> pos2, double length_)
    : ob1MountPos(pos1),
      ob1(ob1_),
      ob2MountPos(pos2),
      ob2(ob2_),
      localIdx1(localIdx1_),
      localIdx2(localIdx2_),
      length(length_) {}

void LengthConstraint::update(ContactProblemList& problems) {
  ob1->getPosition(localIdx1, ob1MountPos, p1);
  ob2->getPosition(localIdx2, ob2MountPos, p2);
  for (size_t i = 0; i < 3; ++i) norm[i] = p2[i] - p1[i];
  distance = std::sqrt(dot(norm, norm));
  norm *= 1.0 / distance;
  stretch = distance - length;
  isActive_ = stretchType == BOTH || (stretchType == STRETCH_ONLY && distance > length) ||
              (stretchType == COMPRESSION_ONLY && length > distance);
  applyTension(problems);
}

StiffLengthConstraint::StiffLengthConstraint(Object* ob1_, size_t localIdx1_, Mat<3, 1> pos1, Object* ob2_,
                                             size_t localIdx2_, Mat<3, 1> pos2, double length_)
    : LengthConstraint(ob1_, localIdx1_, pos1, ob2_, localIdx2_, pos2, length_) {
  wireType = STIFF;
}

void StiffLengthConstraint::applyTension(ContactProblemList& problems) {
  if (!isActive_) return;
  Mat<3, 3> frame;
  Contact::computeFrame(norm, frame);
  const bool positive = stretch > 0;
  const double depth = positive ? -stretch : stretch;

  // Both records sit at the first mount point, also the second object's.
  auto fill = [&](Contact& c, size_t localBody) {
    c.position = p1;
    c.normal = norm;
    c.frame = frame;
    c.contactProblemIndex = problems.size();
    c.localBodyIndex = localBody;
    c.depth = depth;
    c.colObjectA = c.colObjectB = nullptr;
    c.impulse = nullptr;
    c.isSelfCollision = c.skip = false;
  };
  const BodyType type1 = ob1->getBodyType(localIdx1), type2 = ob2->getBodyType(localIdx2);
  if (type1 != STATIC) {
    auto& list = ob1->getContacts();
    const size_t pairIndex = ob2->getContacts().size() + (ob1 == ob2 ? 1 : 0);
    Contact& c = list.emplace_back();
    fill(c, localIdx1);
    c.isObjectA = positive;
    c.localContactIndex = list.size() - 1;
    c.pairObjectIndex = ob2->getIndexInWorld();
    c.pairObjectBodyType = type2;
    c.pairContactIndex = pairIndex;
  }
  if (type2 != STATIC) {
    auto& list = ob2->getContacts();
    const size_t pairIndex = ob1->getContacts().size() - 1;
    Contact& c = list.emplace_back();
    fill(c, localIdx2);
    c.isObjectA = !positive;
    c.localContactIndex = list.size() - 1;
    c.pairObjectIndex = ob1->getIndexInWorld();
    c.pairObjectBodyType = type1;
    c.pairContactIndex = pairIndex;
  }

  MaterialPairProperties wireMaterial;
  wireMaterial.r_th = 0.0;
  problems.emplace_back(wireMaterial, p1[0], p1[1], p1[2], depth);
  // A wire with a dynamic end is a one-sided constraint along its normal. With
  // no dynamic end no object fills the problem (static and kinematic sides
  // receive no impulse), so it stays in the list as an inactive record: a zero
  // block that the solver skips, which applies nothing and adds no error.
  problems.back().rank = (type1 == DYNAMIC || type2 == DYNAMIC) ? 4 : 0;
  // The wire itself identifies its problem from step to step (warm start).
  problems.back().warmStartKey = contact::WarmStartKey::owned(this, contact::WarmStartKey::WIRE, 0);
}

CompliantLengthConstraint::CompliantLengthConstraint(Object* ob1_, int localIdx1_, Mat<3, 1> pos1, Object* ob2_,
                                                     int localIdx2_, Mat<3, 1> pos2, double length_, double stiffness_)
    : LengthConstraint(ob1_, size_t(localIdx1_), pos1, ob2_, size_t(localIdx2_), pos2, length_), stiffness(stiffness_) {
  wireType = COMPLIANT;
}

void CompliantLengthConstraint::applyTension(ContactProblemList&) {
  if (!isActive_) return;
  for (size_t i = 0; i < 3; ++i) {
    force1[i] = norm[i] * (stiffness * stretch);
    force2[i] = -force1[i];
  }
  if (ob1->getBodyType() == DYNAMIC) ob1->setConstraintForce(localIdx1, ob1MountPos, force1);
  if (ob2->getBodyType() == DYNAMIC) ob2->setConstraintForce(localIdx2, ob2MountPos, force2);
}

CustomLengthConstraint::CustomLengthConstraint(Object* ob1_, size_t localIdx1_, Mat<3, 1> pos1, Object* ob2_,
                                               size_t localIdx2_, Mat<3, 1> pos2, double length_)
    : LengthConstraint(ob1_, localIdx1_, pos1, ob2_, localIdx2_, pos2, length_) {
  wireType = CUSTOM;
}

void CustomLengthConstraint::applyTension(ContactProblemList&) {
  for (size_t i = 0; i < 3; ++i) {
    force1[i] = norm[i] * tension;
    force2[i] = -force1[i];
  }
  if (ob1->getBodyType() == DYNAMIC) ob1->setConstraintForce(localIdx1, ob1MountPos, force1);
  if (ob2->getBodyType() == DYNAMIC) ob2->setConstraintForce(localIdx2, ob2MountPos, force2);
}

}  // namespace vorsim
