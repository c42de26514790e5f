// The engine adapters. vorsim is always there; the peers are compiled in when
// CMake found them (VORSIM_BENCH_HAVE_MUJOCO, VORSIM_BENCH_HAVE_BULLET).
#ifndef VORSIM_BENCH_ENGINES_HPP
#define VORSIM_BENCH_ENGINES_HPP

#include <memory>
#include <string>
#include <vector>

#include "Scene.hpp"

namespace vorsim_bench {

// vorsim's own knobs: the solver's sweep limit and error threshold, the
// penetration-recovery rate, and the two solver options. "default" is the
// library as it comes; "fast" stops the sweeps at a mean squared velocity
// error of 1e-6 (m/s)^2 and recovers penetration at 10/s. "warm" and
// "fast warm" are the same with the warm start on, "exact" and "fast exact"
// with exact Coulomb sliding on, "warm exact" and "fast warm exact" with both.
struct VorsimSettings {
  std::string label = "default";
  int maxIter = 150;
  double threshold = 1e-8;
  double erp = 0.3;
  bool warmStart = false;
  bool exactCoulomb = false;
};
// Every configuration, or those whose label is in `labels` (comma-separated;
// empty selects all).
std::vector<VorsimSettings> vorsimConfigurations(const std::string& labels = "");
std::unique_ptr<Engine> makeVorsimEngine(const VorsimSettings& settings);

// ---- MuJoCo ----
struct MujocoSettings {
  std::string label;  // short name used in the candidate sweep
  int solver = 2;     // mjtSolver: 0 PGS, 1 CG, 2 Newton
  int cone = 0;       // mjtCone: 0 pyramidal, 1 elliptic
  int iterations = 100;
  double tolerance = 1e-8;
  int integrator = 0;  // mjtIntegrator: 0 Euler, 1 RK4, 2 implicit
  int jacobian = 2;    // mjtJacobian: 0 dense, 1 sparse, 2 auto
  bool warmstart = true;
};
bool haveMujoco();
std::string mujocoVersion();
// The settings each scene is measured with, and the candidates that were tried.
MujocoSettings mujocoChosen(const std::string& sceneKey);
std::vector<MujocoSettings> mujocoCandidates();
std::unique_ptr<Engine> makeMujocoEngine(const MujocoSettings& settings);

// ---- Bullet ----
struct BulletSettings {
  std::string label;
  int broadphase = 0;  // 0 dynamic AABB tree, 1 3-axis sweep and prune
  int solver = 0;      // 0 sequential impulse, 1 non-smooth nonlinear conjugate gradient
  int iterations = 10;
  bool simd = true;  // SOLVER_SIMD in the solver mode
  bool splitImpulse = true;
  bool warmstart = true;
};
bool haveBullet();
std::string bulletVersion();
BulletSettings bulletChosen(const std::string& sceneKey);
std::vector<BulletSettings> bulletCandidates();
std::unique_ptr<Engine> makeBulletEngine(const BulletSettings& settings);

}  // namespace vorsim_bench

#endif  // VORSIM_BENCH_ENGINES_HPP
