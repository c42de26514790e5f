// Forward dynamics and time stepping of a robot: generalized forces, the
// articulated-body algorithm, integration, and the loads a caller applies.
//
// WAITING FOR THE DYNAMICS STAGE. Until it lands, stepping a world with a
// robot in it keeps the robot exactly where it is: no free velocity, no
// integration, and applied loads are dropped at the end of each step. None of
// this is the dynamics of a robot.
#include "vorsim/World.hpp"
#include "vorsim/object/ArticulatedSystem/ArticulatedSystem.hpp"

namespace vorsim {

// Placeholder until the dynamics stage: zero impact velocities, no limits.
void ArticulatedSystem::preContactSolverUpdate2(const Mat<3, 1>& /*gravity*/, double /*dt*/,
                                                ContactProblemList& /*problems*/) {
  for (Contact& c : contacts_) c.impactVel = 0.0;
}

// Placeholder until the dynamics stage: the state does not change.
void ArticulatedSystem::integrate(double /*dt*/, World& /*world*/) {}

// The time step is stored; the implicit damping terms that depend on it come
// with the dynamics stage.
void ArticulatedSystem::updateTimeStep(double dt) { timeStep = dt; }
void ArticulatedSystem::updateTimeStepIfNecessary(double /*dt*/) {}

// Placeholders until the dynamics stage: loads have no effect yet.
void ArticulatedSystem::setExternalForce(size_t /*localIdx*/, const Mat<3, 1>& /*pos*/, const Mat<3, 1>& /*force*/) {}
void ArticulatedSystem::setExternalForce(size_t /*localIdx*/, const Mat<3, 1>& /*force*/) {}
void ArticulatedSystem::setExternalTorque(size_t /*localIdx*/, const Mat<3, 1>& /*torque*/) {}
void ArticulatedSystem::setConstraintForce(size_t /*localIdx*/, const Mat<3, 1>& /*pos*/, const Mat<3, 1>& /*force*/) {}

void ArticulatedSystem::clearExternalForcesAndTorques() {
  externalForceIsForce_.clear();
  externalLoadValues_.clear();
  externalLoadPositions_.clear();
  externalForceViz_.clear();
  externalForceVizPos_.clear();
  externalTorqueViz_.clear();
  externalTorqueVizPos_.clear();
}

}  // namespace vorsim
