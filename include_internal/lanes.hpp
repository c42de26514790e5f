// Doubles processed together, for loops that do the same scalar work on
// several independent items (points, contact records, bodies), one per lane.
// Packed IEEE add, subtract, multiply, divide and square root round each lane
// exactly as the scalar operation does, so a lane gives the scalar bits. Four
// lanes need AVX, checked at run time; code for them enables "avx" only, never
// "fma", so that no multiply and add fuse.
#ifndef VORSIM_LANES_HPP
#define VORSIM_LANES_HPP

#include <cmath>
#include <cstddef>

#if defined(__x86_64__)
#include <immintrin.h>
#elif defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace vorsim {

typedef double Lanes2 __attribute__((vector_size(16)));

inline Lanes2 sqrtLanes2(Lanes2 x) {
#if defined(__SSE2__)
  return _mm_sqrt_pd(x);
#else
  return Lanes2{std::sqrt(x[0]), std::sqrt(x[1])};
#endif
}

// Lane k holds p[k][m]: built from the scalars directly, not element by
// element through memory (a wide load of narrow stores stalls).
inline Lanes2 gatherLanes2(const double* const* p, size_t m) { return Lanes2{p[0][m], p[1][m]}; }

#if defined(__GNUC__) && defined(__x86_64__)
#define VORSIM_HAVE_AVX_LANES 1
typedef double Lanes4 __attribute__((vector_size(32)));

__attribute__((target("avx"))) inline Lanes4 gatherLanes4(const double* const* p, size_t m) {
  return Lanes4{p[0][m], p[1][m], p[2][m], p[3][m]};
}

inline bool processorHasAvx() {
  static const bool has = __builtin_cpu_supports("avx");
  return has;
}
#else
#define VORSIM_HAVE_AVX_LANES 0
#endif

}  // namespace vorsim

#endif  // VORSIM_LANES_HPP
