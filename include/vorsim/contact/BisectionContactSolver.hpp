// Per-contact Gauss-Seidel sweep. At each problem the solver removes the
// problem's own impulse from the current contact velocity, solves the 3D
// problem of this one contact exactly inside the friction cone (the sliding
// direction by a bracketed root search on the cone's angle), and pushes the
// impulse change into the objects at once so the next problem sees it.
#ifndef VORSIM_CONTACT_BISECTIONCONTACTSOLVER_HPP
#define VORSIM_CONTACT_BISECTIONCONTACTSOLVER_HPP

#include <cstdint>
#include <vector>

#include "vorsim/contact/Single3DContactProblem.hpp"

namespace vorsim {
namespace contact {

class BisectionContactSolver {
 public:
  using ProblemList = std::vector<Single3DContactProblem, AlignedAllocator<Single3DContactProblem, 32>>;

  // Preconditions: impulses zeroed, Delassus blocks filled. Afterwards every
  // impulse is final, every object's working velocity updated and loopCounter
  // holds the number of sweeps.
  //
  // With warmStart on, a problem may instead start with a nonzero impulse (a
  // guess, the last step's impulse of the same constraint): once the targets
  // are set from the free velocities, every such impulse is applied to the
  // objects (a joint limit's through its owner's applyJointLimitImpulse), and
  // the sweeps go on from there. An inactive problem (rank 0) starts from zero.
  void solve(ProblemList& problems);

  int getLoopCounter() const { return loopCounter; }
  bool isForwardOrder() const { return forwardOrder; }

  int loopCounter = 0;
  bool forwardOrder = true;
  double timeStep = 0.01;    // kept for the caller; solve does not read it
  double alpha_init = 1.0;   // kept for the parameter signature; no effect
  double alpha_min = 1.0;    // kept for the parameter signature; no effect
  double alpha_decay = 1.0;  // kept for the parameter signature; no effect
  double threshold = 1e-8;   // mean squared velocity error that ends the sweeps
  double erp = 0.3;          // penetration-to-velocity rate
  double erp2 = 0.002;       // added to the restitution coefficient
  int maxIter = 150;
  // Options, off by default; with both off the solve is the one described above.
  // Start from the impulses the problems hold (see solve).
  bool warmStart = false;
  // On the sliding branch, take the direction in which the contact's resulting
  // tangential velocity is opposite to the tangential impulse (friction opposes
  // slip), instead of the direction that minimises the contact's energy on the
  // cone. The normal velocity is zero in both.
  bool exactCoulomb = false;
};

}  // namespace contact
}  // namespace vorsim

#endif  // VORSIM_CONTACT_BISECTIONCONTACTSOLVER_HPP
