#include "vorsim/Object.hpp"

#include <cmath>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "vorsim/contact/Single3DContactProblem.hpp"

namespace vorsim {

namespace {
// Two doubles processed together: packed IEEE add, subtract, multiply, divide
// and square root round each lane exactly as the scalar operation does.
typedef double Lanes2 __attribute__((vector_size(16)));
inline Lanes2 sqrt2(Lanes2 x) {
#if defined(__SSE2__)
  return _mm_sqrt_pd(x);
#else
  return Lanes2{std::sqrt(x[0]), std::sqrt(x[1])};
#endif
}
}  // namespace

void Object::applyJointLimitImpulse(contact::Single3DContactProblem& problem) { problem.impulse.setZero(); }

ObjectType stringToObjectType(const std::string& text) {
  static const char* const names[] = {"sphere", "box",    "cylinder", "cone",      "capsule",
                                      "mesh",   "ground", "compound", "heightmap", "articulatedSystem"};
  for (int i = 0; i < 10; ++i)
    if (text == names[i]) return static_cast<ObjectType>(i);
  if (text == "articulated_system") return ARTICULATED_SYSTEM;
  return UNRECOGNIZED;
}

std::string objectTypeToString(ObjectType type) {
  switch (type) {
    case SPHERE:
      return "sphere";
    case BOX:
      return "box";
    case CYLINDER:
      return "cylinder";
    case CONE:
      return "cone";
    case CAPSULE:
      return "capsule";
    case MESH:
      return "mesh";
    case GROUND:
      return "ground";
    case COMPOUND:
      return "compound";
    case HEIGHTMAP:
      return "heightmap";
    case ARTICULATED_SYSTEM:
      return "articulatedSystem";
    case UNRECOGNIZED:
      return "unrecognized";
  }
  return "";
}

bool isMovableBody(ObjectType t) {
  return t == SPHERE || t == BOX || t == CYLINDER || t == CAPSULE || t == MESH || t == COMPOUND ||
         t == ARTICULATED_SYSTEM;
}
bool isMovableSingleBody(ObjectType t) {
  return t == SPHERE || t == BOX || t == CYLINDER || t == CAPSULE || t == MESH || t == COMPOUND;
}
bool isPrimitiveCollisionBody(ObjectType t) { return t == SPHERE || t == BOX || t == CYLINDER || t == CAPSULE; }
bool isSingleBody(ObjectType t) {
  return t == SPHERE || t == BOX || t == CYLINDER || t == CAPSULE || t == MESH || t == GROUND || t == COMPOUND ||
         t == HEIGHTMAP;
}
bool isSingleCollisionBody(ObjectType t) {
  return t == SPHERE || t == BOX || t == CYLINDER || t == CAPSULE || t == MESH;
}

void Contact::computeFrame(const Mat<3, 1>& n, Mat<3, 3>& frame) {
  Mat<3, 1> t{n[1], -n[0], 0.0};
  if (n[0] == 0.0 && n[1] == 0.0) t = {1.0, 0.0, 0.0};
  Mat<3, 1> s = cross(n, t);
  const double tn = t.norm(), sn = s.norm(), nn = n.norm();
  for (size_t j = 0; j < 3; ++j) {
    frame(0, j) = t[j] / tn;
    frame(1, j) = s[j] / sn;
    frame(2, j) = n[j] / nn;
  }
}

void Contact::unitNormalsAndFrames(const double* a, const double* b, Mat<3, 1>& na, Mat<3, 3>& fa, Mat<3, 1>& nb,
                                   Mat<3, 3>& fb) {
  // Lane 0 is point a, lane 1 point b. Every line is the scalar path's
  // operation, in its order: |g| as sqrt(((0 + x^2) + y^2) + z^2), n = g / |g|,
  // then computeFrame(n), its multiplications by the zero of t included (they
  // decide the sign of zeros in s).
  const Lanes2 zero = {0.0, 0.0};
  const Lanes2 gx = {a[0], b[0]}, gy = {a[1], b[1]}, gz = {a[2], b[2]};
  const Lanes2 g = sqrt2(((zero + gx * gx) + gy * gy) + gz * gz);
  const Lanes2 nx = gx / g, ny = gy / g, nz = gz / g;
  // t = (n.y, -n.x, 0), or (1, 0, 0) where n.x and n.y are both zero.
  const auto along = (nx == zero) & (ny == zero);
  const Lanes2 one = {1.0, 1.0};
  const Lanes2 tx = along ? one : ny;
  const Lanes2 ty = along ? zero : -nx;
  const Lanes2 tz = zero;
  const Lanes2 sx = ny * tz - nz * ty;
  const Lanes2 sy = nz * tx - nx * tz;
  const Lanes2 sz = nx * ty - ny * tx;
  const Lanes2 tn = sqrt2(((zero + tx * tx) + ty * ty) + tz * tz);
  const Lanes2 sn = sqrt2(((zero + sx * sx) + sy * sy) + sz * sz);
  const Lanes2 nn = sqrt2(((zero + nx * nx) + ny * ny) + nz * nz);
  const Lanes2 f0x = tx / tn, f0y = ty / tn, f0z = tz / tn;
  const Lanes2 f1x = sx / sn, f1y = sy / sn, f1z = sz / sn;
  const Lanes2 f2x = nx / nn, f2y = ny / nn, f2z = nz / nn;
  Mat<3, 1>* normals[2] = {&na, &nb};
  Mat<3, 3>* frames[2] = {&fa, &fb};
  for (int k = 0; k < 2; ++k) {
    Mat<3, 1>& n = *normals[k];
    n[0] = nx[k];
    n[1] = ny[k];
    n[2] = nz[k];
    Mat<3, 3>& f = *frames[k];
    f(0, 0) = f0x[k];
    f(0, 1) = f0y[k];
    f(0, 2) = f0z[k];
    f(1, 0) = f1x[k];
    f(1, 1) = f1y[k];
    f(1, 2) = f1z[k];
    f(2, 0) = f2x[k];
    f(2, 1) = f2y[k];
    f(2, 2) = f2z[k];
  }
}

}  // namespace vorsim
