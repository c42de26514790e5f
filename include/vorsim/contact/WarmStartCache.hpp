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
// The last step's points are kept grouped by key, each group in list order,
// and a problem finds its group through a hash table of the keys (consecutive
// problems of one pair of geoms share the look-up). Matching then scans the
// group: the cost is linear in the number of problems, times the number of
// points one key had in the last step. Nothing is allocated once the lists
// have reached the largest size a scene needs.
class WarmStartCache {
 public:
  using ProblemList = std::vector<Single3DContactProblem, AlignedAllocator<Single3DContactProblem, 32>>;

  // Largest distance, in metres, between a point of this step and the point of
  // the last step it takes its impulse from.
  void setTolerance(double tolerance) { tolerance_ = tolerance; }
  double getTolerance() const { return tolerance_; }

  // Before the solve, with every impulse zeroed: gives each collision point's
  // problem its key, from the world's notes of this step's points (see
  // startPoints) or else from the objects' contact records (where the owner
  // has not set one), notes each problem's contact frame, and writes the matched
  // impulses. `configuration` is the world's count of added and removed
  // objects: after a change nothing of the last step is used (geoms may have
  // been freed and their addresses reused). Impulses are scaled by the ratio of
  // the time steps. Returns the number of problems that took an impulse.
  size_t seed(const std::vector<Object*>& objects, ProblemList& problems, int configuration, double timeStep);

  // A collision point as the world makes its problem: the point's contact
  // frame (which must stay in place until store) and its two geoms in the
  // collision library's order.
  struct PointNote {
    const Mat<3, 3>* frame;
    const void* geom1;
    const void* geom2;
  };
  // The world notes its collision points so that seed need not find them in
  // the objects' records: startPoints(n) gives room for the notes of problems
  // 0 to n - 1, written in place, and endPoints(count) says how many were
  // written. Records of later problems (wires, pins) must follow those of the
  // noted ones in every object's list. The notes serve the next seed only.
  PointNote* startPoints(size_t n) {
    notedPoints_ = 0;
    if (notes_.size() < n) notes_.resize(n);
    return notes_.data();
  }
  void endPoints(size_t count) { notedPoints_ = count; }

  // After the solve: keeps this step's keyed problems for the next seed.
  // Problems must be those of the last seed (their frames are read from it).
  void store(const ProblemList& problems);

  // Forgets the last step.
  void clear();
  // Points kept from the last step.
  size_t size() const { return entries_.size(); }

 private:
  // A point of the last step; its key is its group's.
  struct Entry {
    Mat<3, 1> position;
    Mat<3, 1> impulse;  // world coordinates, or the owner's own if !inWorld
    bool inWorld;
  };
  // The points of one key: entries_[begin, end).
  struct Group {
    WarmStartKey key;
    uint32_t begin;
    uint32_t end;
  };
  static uint64_t hash(const WarmStartKey& key);
  // The index of the group of `key`, or the largest uint32_t if none.
  uint32_t findGroup(const WarmStartKey& key) const;

  std::vector<Entry> entries_;  // grouped by key, list order within a group
  std::vector<uint8_t> used_;   // per entry: taken by a problem of this seed
  std::vector<Group> groups_;
  std::vector<uint32_t> slots_;    // open addressing over groups_, by hash
  std::vector<uint32_t> groupOf_;  // store's scratch: group of each entry in list order
  std::vector<Entry> regrouped_;   // store's scratch when a key's points are not consecutive
  // Per problem of this step: its contact frame (null without contact
  // records), whether its geoms came in the opposite order of its key, and
  // whether its key is known to be set (so that a second record of the same
  // point need not look at the problem).
  struct ProblemFrame {
    const Mat<3, 3>* frame;
    bool swapped;
    bool keyed;
  };
  std::vector<ProblemFrame> frames_;
  std::vector<PointNote> notes_;
  size_t notedPoints_ = 0;  // leading entries of notes_ written by the world
  double tolerance_ = 0.01;
  double storedTimeStep_ = 0.0;
  int storedConfiguration_ = 0;
  int seedConfiguration_ = 0;
  double seedTimeStep_ = 0.0;
};

}  // namespace contact
}  // namespace vorsim

#endif  // VORSIM_CONTACT_WARMSTARTCACHE_HPP
