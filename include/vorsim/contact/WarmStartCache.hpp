// The impulses of the last step, kept so that the next contact solve can start
// from them instead of from zero.
#ifndef VORSIM_CONTACT_WARMSTARTCACHE_HPP
#define VORSIM_CONTACT_WARMSTARTCACHE_HPP

#include <cstdint>
#include <vector>

#include "vorsim/contact/Single3DContactProblem.hpp"

namespace vorsim {
class Object;
namespace contact {

// A problem of this step takes the impulse of the problem of the last step
// with the same key (WarmStartKey) whose point is nearest to its own, if that
// point lies within the tolerance; each impulse of the last step goes to one
// problem at most (problems choose in list order). Impulses are kept in world
// coordinates and turned into the new contact frame; a contact's impulse is
// then clipped to its friction cone and to pushing, a one-sided wire's to its
// normal part. A problem without contact records (a robot's joint limit)
// keeps its impulse in the owner's own coordinates.
//
// Matching walks one hash bucket per problem: the cost is linear in the
// number of problems, times the number of points one pair of geoms had in the
// last step. Nothing is allocated once the lists have reached the largest
// size a scene needs.
class WarmStartCache {
 public:
  using ProblemList = std::vector<Single3DContactProblem, AlignedAllocator<Single3DContactProblem, 32>>;

  // Largest distance, in metres, between a point of this step and the point of
  // the last step it takes its impulse from.
  void setTolerance(double tolerance) { tolerance_ = tolerance; }
  double getTolerance() const { return tolerance_; }

  // Before the solve, with every impulse zeroed: gives each collision point's
  // problem its key from the objects' contact records (where the owner has not
  // set one), notes each problem's contact frame, and writes the matched
  // impulses. `configuration` is the world's count of added and removed
  // objects: after a change nothing of the last step is used (geoms may have
  // been freed and their addresses reused). Impulses are scaled by the ratio of
  // the time steps. Returns the number of problems that took an impulse.
  size_t seed(const std::vector<Object*>& objects, ProblemList& problems, int configuration, double timeStep);

  // After the solve: keeps this step's keyed problems for the next seed.
  // Problems must be those of the last seed (their frames are read from it).
  void store(const ProblemList& problems);

  // Forgets the last step.
  void clear();
  // Points kept from the last step.
  size_t size() const { return entries_.size(); }

 private:
  struct Entry {
    WarmStartKey key;
    Mat<3, 1> position;
    Mat<3, 1> impulse;  // world coordinates, or the owner's own if !inWorld
    bool inWorld;
    bool used;
  };
  static uint64_t hash(const WarmStartKey& key);

  std::vector<Entry> entries_;
  std::vector<uint32_t> next_;   // next entry of the same bucket
  std::vector<uint32_t> heads_;  // first entry of each bucket
  // Per problem of this step: its contact frame (null without contact
  // records), and -1 where its geoms came in the opposite order of its key.
  struct ProblemFrame {
    const Mat<3, 3>* frame;
    double sign;
  };
  std::vector<ProblemFrame> frames_;
  uint64_t mask_ = 0;
  double tolerance_ = 0.01;
  double storedTimeStep_ = 0.0;
  int storedConfiguration_ = 0;
  int seedConfiguration_ = 0;
  double seedTimeStep_ = 0.0;
};

}  // namespace contact
}  // namespace vorsim

#endif  // VORSIM_CONTACT_WARMSTARTCACHE_HPP
