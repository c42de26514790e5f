// Contact side of a robot: contact Jacobians, Delassus blocks and the
// solver's velocity reads and impulse writes.
//
// WAITING FOR THE CONTACT STAGE. Until it lands, a robot takes no part in its
// contacts: each of them gets a unit Delassus block (so the solver's numbers
// stay finite), its velocity at every contact reads as zero, and impulses
// leave it unchanged. A robot therefore passes through the ground and other
// bodies under its own dynamics. None of this is the contact response of a
// robot.
#include "vorsim/object/ArticulatedSystem/ArticulatedSystem.hpp"

namespace vorsim {

// Placeholder until the contact stage: unit blocks, no Jacobians. The scheme
// of the step is chosen here: a PD-controlled robot in contact steps with the
// trapezoid.
void ArticulatedSystem::preContactSolverUpdate1(const Mat<3, 1>& /*gravity*/, double /*dt*/) {
  activeScheme = (contacts_.empty() || controlMode != PD_PLUS_FEEDFORWARD_TORQUE) ? integrationScheme : TRAPEZOID;
  for (Contact& c : contacts_) c.delassus.setIdentity();
}

// Placeholder until the contact stage: the robot does not move.
void ArticulatedSystem::getContactPointVel(size_t /*contactIdx*/, Mat<3, 1>& vel) const { vel.setZero(); }
void ArticulatedSystem::addContactPointVel(size_t /*contactIdx*/, Mat<3, 1>& /*vel*/) {}
void ArticulatedSystem::subContactPointVel(size_t /*contactIdx*/, Mat<3, 1>& /*vel*/) {}
void ArticulatedSystem::addContactPointVel2(size_t /*contactIdx*/, Mat<3, 1>& /*vel*/) {}
void ArticulatedSystem::subContactPointVel2(size_t /*contactIdx*/, Mat<3, 1>& /*vel*/) {}
// Placeholder until the contact stage: impulses are not applied.
void ArticulatedSystem::updateGenVelWithImpulse(size_t /*contactIdx*/, const Mat<3, 1>& /*impulse*/) {}

void ArticulatedSystem::cleanContacts() { contacts_.clear(); }

}  // namespace vorsim
