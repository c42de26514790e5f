// Contact side of a robot: contact Jacobians, Delassus blocks and the
// solver's velocity reads and impulse writes.
//
// WAITING FOR THE DYNAMICS STAGE. Until it lands, a robot is an immovable
// participant of every contact: each of its contacts gets a unit Delassus
// block (so the solver's numbers stay finite), its velocity at every contact
// reads as zero, and impulses leave it unchanged. None of this is the contact
// response of a robot.
#include "vorsim/object/ArticulatedSystem/ArticulatedSystem.hpp"

namespace vorsim {

// Placeholder until the dynamics stage: unit blocks, no Jacobians.
void ArticulatedSystem::preContactSolverUpdate1(const Mat<3, 1>& /*gravity*/, double /*dt*/) {
  for (Contact& c : contacts_) c.delassus.setIdentity();
}

// Placeholder until the dynamics stage: the robot does not move.
void ArticulatedSystem::getContactPointVel(size_t /*contactIdx*/, Mat<3, 1>& vel) const { vel.setZero(); }
void ArticulatedSystem::addContactPointVel(size_t /*contactIdx*/, Mat<3, 1>& /*vel*/) {}
void ArticulatedSystem::subContactPointVel(size_t /*contactIdx*/, Mat<3, 1>& /*vel*/) {}
void ArticulatedSystem::addContactPointVel2(size_t /*contactIdx*/, Mat<3, 1>& /*vel*/) {}
void ArticulatedSystem::subContactPointVel2(size_t /*contactIdx*/, Mat<3, 1>& /*vel*/) {}
// Placeholder until the dynamics stage: impulses are not applied.
void ArticulatedSystem::updateGenVelWithImpulse(size_t /*contactIdx*/, const Mat<3, 1>& /*impulse*/) {}

void ArticulatedSystem::cleanContacts() { contacts_.clear(); }

}  // namespace vorsim
