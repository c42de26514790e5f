// The one record the contact solver sweeps: a constraint point between at most
// two objects (a frictional contact, a wire, a joint limit or a bilateral pin)
// with its 3x3 Delassus block, its impulse and the material numbers of the pair.
#ifndef VORSIM_CONTACT_SINGLE3DCONTACTPROBLEM_HPP
#define VORSIM_CONTACT_SINGLE3DCONTACTPROBLEM_HPP

#include <type_traits>

#include "vorsim/Materials.hpp"
#include "vorsim/contact/WarmStartKey.hpp"
#include "vorsim/math.hpp"

namespace vorsim {
class Object;
namespace contact {

// rank says both the kind of the problem and the dimension of G's range:
// 0 inactive, 1/2/3 contact of that rank, 4 one-sided normal constraint (stiff
// wire), 5 joint limit, 7/8/9 bilateral of rank 1/2/3.
//
// Every field starts defined (zero, null, rank 3), whichever constructor runs,
// so a record that no object fills reads as zeros rather than as leftover
// memory. Records are 32-byte aligned and their size is a multiple of 32, so
// that every record of the solver's array, not only the first, starts on a
// 32-byte boundary.
class alignas(32) Single3DContactProblem {
 public:
  Single3DContactProblem() = default;
  // A collision point of the pair `mat` at (x, y, z); depth is the negated
  // penetration. Inline, so that the world's contact loop builds it in place.
  Single3DContactProblem(const MaterialPairProperties& mat, double x, double y, double z, double depth_)
      : impulse{},
        tauStar{},
        mu(mat.c_f),
        muInverse(1.0 / mat.c_f),
        restitution(mat.c_r),
        restitutionThreshold(mat.r_th),
        targetNormalVel(0.0),
        impactVel(0.0),
        depth(depth_),
        inverseGzz(0.0),
        objectA(nullptr),
        objectB(nullptr),
        rank(3),
        position{x, y, z},
        staticFriction(mat.c_static_f),
        staticFrictionThreshold(mat.v_static),
        inverseStaticThreshold(mat.v_static_inv) {}

  // Classifies G at the start of every solve and builds the reduced blocks for
  // the singular cases.
  void checkRank();

  Mat<3, 1> impulse{};
  Mat<3, 1> tauStar{};
  Mat<3, 3> delassus{};
  Mat<3, 3> delassusInverse{};
  Mat<2, 2> reducedDelassus{};
  Mat<2, 2> reducedDelassusInverse{};
  Mat<3, 1> basis[2] = {};
  double mu = 0.0;
  double normalDelassusOverMu = 0.0;
  double muInverse = 0.0;
  double restitution = 0.0;
  double restitutionThreshold = 0.0;
  double targetNormalVel = 0.0;
  double rankOneDelassus = 0.0;
  double impactVel = 0.0;
  double depth = 0.0;
  double inverseGzz = 0.0;
  Object* objectA = nullptr;
  Object* objectB = nullptr;
  int rank = 3;
  // The object is a SingleBodyObject (set by the world for collision points):
  // the solver then calls its contact functions directly rather than through
  // the virtual interface, with the same arithmetic. False is always safe.
  bool singleBodyA = false;
  bool singleBodyB = false;
  size_t localIndexA = 0;
  size_t localIndexB = 0;
  Mat<3, 1> position{};
  double staticFriction = 0.0;
  double staticFrictionThreshold = 0.0;
  double inverseStaticThreshold = 0.0;
  // Identity of the constraint for the warm start (see WarmStartKey). Empty
  // unless the world (collision points) or the owner (wires, robots' limits
  // and pins) sets it; read only when the warm start is on.
  WarmStartKey warmStartKey{};

  const Mat<3, 1>& getImpulse() const { return impulse; }
  const Mat<3, 1>& getPosition() const { return position; }
};

static_assert(std::is_trivially_copyable_v<Single3DContactProblem>, "problems are moved by the vector as plain bytes");
static_assert(sizeof(Single3DContactProblem) == 512, "records stay at 512 bytes, sixteen 32-byte blocks");
static_assert(alignof(Single3DContactProblem) == 32 && sizeof(Single3DContactProblem) % 32 == 0,
              "each record of the aligned array starts on a 32-byte boundary");

}  // namespace contact
}  // namespace vorsim

#endif  // VORSIM_CONTACT_SINGLE3DCONTACTPROBLEM_HPP
