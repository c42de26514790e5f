#include "vorsim/Object.hpp"

#include <cmath>

#include "lanes.hpp"
#include "vorsim/contact/Single3DContactProblem.hpp"

namespace vorsim {

namespace {
// The body of Contact::unitNormalsAndFrames: the `count` points worked W at a
// time in lanes of type L (square root: SQRT), lane k for point i + k; lanes
// past the last point repeat it. Every line is the scalar path's
// operation, in its order: |g| as sqrt(((0 + x^2) + y^2) + z^2), n = g / |g|,
// then computeFrame(n), its multiplications by the zero of t included (they
// decide the sign of zeros in s). A macro, so that the AVX copy below is
// compiled for AVX as a whole.
#define VORSIM_UNIT_NORMALS_AND_FRAMES(L, W, SQRT)                                  \
  {                                                                                 \
    const auto* bytes = reinterpret_cast<const unsigned char*>(normals);            \
    const L zero = L{} * 0.0;                                                       \
    const L one = zero + 1.0;                                                       \
    for (size_t i = 0; i < count; i += W) {                                         \
      L gx, gy, gz;                                                                 \
      for (size_t k = 0; k < W; ++k) {                                              \
        const size_t j = i + k < count ? i + k : count - 1;                         \
        const auto* g = reinterpret_cast<const double*>(bytes + j * stride);        \
        gx[k] = g[0];                                                               \
        gy[k] = g[1];                                                               \
        gz[k] = g[2];                                                               \
      }                                                                             \
      const L g = SQRT(((zero + gx * gx) + gy * gy) + gz * gz);                     \
      const L nx = gx / g, ny = gy / g, nz = gz / g;                                \
      /* t = (n.y, -n.x, 0), or (1, 0, 0) where n.x and n.y are both zero. */      \
      const auto along = (nx == zero) & (ny == zero);                               \
      const L tx = along ? one : ny;                                                \
      const L ty = along ? zero : -nx;                                              \
      const L tz = zero;                                                            \
      const L sx = ny * tz - nz * ty;                                               \
      const L sy = nz * tx - nx * tz;                                               \
      const L sz = nx * ty - ny * tx;                                               \
      const L tn = SQRT(((zero + tx * tx) + ty * ty) + tz * tz);                    \
      const L sn = SQRT(((zero + sx * sx) + sy * sy) + sz * sz);                    \
      const L nn = SQRT(((zero + nx * nx) + ny * ny) + nz * nz);                    \
      const L f0x = tx / tn, f0y = ty / tn, f0z = tz / tn;                          \
      const L f1x = sx / sn, f1y = sy / sn, f1z = sz / sn;                          \
      const L f2x = nx / nn, f2y = ny / nn, f2z = nz / nn;                          \
      for (size_t k = 0; k < W && i + k < count; ++k) {                             \
        Mat<3, 1>& n = unitNormals[i + k];                                          \
        n[0] = nx[k];                                                               \
        n[1] = ny[k];                                                               \
        n[2] = nz[k];                                                               \
        Mat<3, 3>& f = frames[i + k];                                               \
        f(0, 0) = f0x[k];                                                           \
        f(0, 1) = f0y[k];                                                           \
        f(0, 2) = f0z[k];                                                           \
        f(1, 0) = f1x[k];                                                           \
        f(1, 1) = f1y[k];                                                           \
        f(1, 2) = f1z[k];                                                           \
        f(2, 0) = f2x[k];                                                           \
        f(2, 1) = f2y[k];                                                           \
        f(2, 2) = f2z[k];                                                           \
      }                                                                             \
    }                                                                               \
  }

void unitNormalsAndFrames2(const double* normals, size_t stride, size_t count, Mat<3, 1>* unitNormals,
                           Mat<3, 3>* frames) VORSIM_UNIT_NORMALS_AND_FRAMES(Lanes2, 2, sqrtLanes2)

#if VORSIM_HAVE_AVX_LANES
// Four lanes where the processor has AVX.
__attribute__((target("avx"))) void unitNormalsAndFrames4(const double* normals, size_t stride, size_t count,
                                                          Mat<3, 1>* unitNormals, Mat<3, 3>* frames)
    VORSIM_UNIT_NORMALS_AND_FRAMES(Lanes4, 4, _mm256_sqrt_pd)
#endif
#undef VORSIM_UNIT_NORMALS_AND_FRAMES
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

void Contact::unitNormalsAndFrames(const double* normals, size_t stride, size_t count, Mat<3, 1>* unitNormals,
                                   Mat<3, 3>* frames) {
#if VORSIM_HAVE_AVX_LANES
  if (processorHasAvx()) {
    unitNormalsAndFrames4(normals, stride, count, unitNormals, frames);
    return;
  }
#endif
  unitNormalsAndFrames2(normals, stride, count, unitNormals, frames);
}

}  // namespace vorsim
