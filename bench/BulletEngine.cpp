// Bullet (double precision) built from a scene description: a discrete
// dynamics world, the ground as a static plane, walls as static boxes. Bullet
// multiplies the friction (and the restitution) of the two bodies of a pair,
// so every body gets the square root of the pair value. Sleeping is switched
// off so that every engine integrates every body in every step.
#include "Engines.hpp"

#ifdef VORSIM_BENCH_HAVE_BULLET

#include <BulletDynamics/ConstraintSolver/btNNCGConstraintSolver.h>
#include <btBulletDynamicsCommon.h>

#include <cmath>
#include <cstdio>

namespace vorsim_bench {

namespace {

class BulletEngine : public Engine {
 public:
  explicit BulletEngine(const BulletSettings& s) : s_(s) {}
  ~BulletEngine() override {
    // The world refers to the bodies, the bodies to the shapes.
    if (world_)
      for (int i = world_->getNumCollisionObjects() - 1; i >= 0; --i)
        world_->removeCollisionObject(world_->getCollisionObjectArray()[i]);
  }

  std::string name() const override { return "Bullet"; }

  std::string settings() const override {
    char text[320];
    std::snprintf(text, sizeof text,
                  "%s broadphase, %s solver, %d iterations, solver mode %s%s, split impulse %s, erp2 %g, "
                  "restitution threshold %g m/s, no sleeping",
                  s_.broadphase == 0 ? "dynamic AABB tree (btDbvtBroadphase)" : "3-axis sweep and prune",
                  s_.solver == 0 ? "sequential impulse" : "NNCG", s_.iterations, s_.simd ? "SIMD" : "generic",
                  s_.warmstart ? "+warm start" : "", s_.splitImpulse ? "on" : "off", erp2_, restitutionThreshold_);
    return text;
  }

  void build(const SceneDesc& scene) override {
    dt_ = scene.dt;
    config_ = std::make_unique<btDefaultCollisionConfiguration>();
    dispatcher_ = std::make_unique<btCollisionDispatcher>(config_.get());
    if (s_.broadphase == 0)
      broadphase_ = std::make_unique<btDbvtBroadphase>();
    else
      broadphase_ = std::make_unique<btAxisSweep3>(btVector3(-20, -20, -20), btVector3(20, 20, 20));
    if (s_.solver == 0)
      solver_ = std::make_unique<btSequentialImpulseConstraintSolver>();
    else
      solver_ = std::make_unique<btNNCGConstraintSolver>();
    world_ =
        std::make_unique<btDiscreteDynamicsWorld>(dispatcher_.get(), broadphase_.get(), solver_.get(), config_.get());
    world_->setGravity(btVector3(0, 0, scene.gravity));
    btContactSolverInfo& info = world_->getSolverInfo();
    info.m_numIterations = s_.iterations;
    info.m_solverMode = (s_.warmstart ? SOLVER_USE_WARMSTARTING : 0) | (s_.simd ? SOLVER_SIMD : 0);
    info.m_splitImpulse = s_.splitImpulse ? 1 : 0;
    info.m_restitutionVelocityThreshold = scene.restitutionThreshold;
    erp2_ = info.m_erp2;
    restitutionThreshold_ = info.m_restitutionVelocityThreshold;

    const double friction = std::sqrt(scene.friction), restitution = std::sqrt(scene.restitution);
    auto addBody = [&](btCollisionShape* shape, double mass, const double* pos) {
      btVector3 inertia(0, 0, 0);
      if (mass > 0) shape->calculateLocalInertia(mass, inertia);
      btRigidBody::btRigidBodyConstructionInfo ci(mass, nullptr, shape, inertia);
      ci.m_startWorldTransform.setIdentity();
      ci.m_startWorldTransform.setOrigin(btVector3(pos[0], pos[1], pos[2]));
      ci.m_friction = friction;
      ci.m_restitution = restitution;
      auto body = std::make_unique<btRigidBody>(ci);
      body->setActivationState(DISABLE_DEACTIVATION);
      world_->addRigidBody(body.get());
      btRigidBody* raw = body.get();
      all_.push_back(std::move(body));
      return raw;
    };

    if (scene.ground) {
      shapes_.push_back(std::make_unique<btStaticPlaneShape>(btVector3(0, 0, 1), 0));
      const double origin[3] = {0, 0, 0};
      addBody(shapes_.back().get(), 0.0, origin);
    }
    for (const WallDesc& w : scene.walls) {
      shapes_.push_back(std::make_unique<btBoxShape>(btVector3(0.5 * w.dims[0], 0.5 * w.dims[1], 0.5 * w.dims[2])));
      addBody(shapes_.back().get(), 0.0, w.pos);
    }
    // Bodies of one shape and size share one collision shape.
    btCollisionShape* lastShape = nullptr;
    const BodyDesc* lastDesc = nullptr;
    for (const BodyDesc& b : scene.bodies) {
      const bool same = lastDesc && lastDesc->shape == b.shape && lastDesc->radius == b.radius &&
                        lastDesc->dims[0] == b.dims[0] && lastDesc->dims[1] == b.dims[1] &&
                        lastDesc->dims[2] == b.dims[2];
      if (!same) {
        if (b.shape == ShapeKind::Sphere)
          shapes_.push_back(std::make_unique<btSphereShape>(b.radius));
        else
          shapes_.push_back(std::make_unique<btBoxShape>(btVector3(0.5 * b.dims[0], 0.5 * b.dims[1], 0.5 * b.dims[2])));
        lastShape = shapes_.back().get();
      }
      lastDesc = &b;
      btRigidBody* body = addBody(lastShape, b.mass, b.pos);
      body->setLinearVelocity(btVector3(b.linVel[0], b.linVel[1], b.linVel[2]));
      body->setAngularVelocity(btVector3(b.angVel[0], b.angVel[1], b.angVel[2]));
      bodies_.push_back(body);
    }
  }

  // maxSubSteps 0: one step of exactly dt, no interpolation.
  void step() override { world_->stepSimulation(dt_, 0); }

  void position(size_t i, double out[3]) const override {
    const btVector3& p = bodies_[i]->getWorldTransform().getOrigin();
    for (int k = 0; k < 3; ++k) out[k] = p[k];
  }
  void velocity(size_t i, double out[3]) const override {
    const btVector3& v = bodies_[i]->getLinearVelocity();
    for (int k = 0; k < 3; ++k) out[k] = v[k];
  }
  int contactCount() const override {
    int n = 0;
    for (int i = 0; i < dispatcher_->getNumManifolds(); ++i)
      n += dispatcher_->getManifoldByIndexInternal(i)->getNumContacts();
    return n;
  }

 private:
  BulletSettings s_;
  double dt_ = 0.001, erp2_ = 0, restitutionThreshold_ = 0;
  std::unique_ptr<btDefaultCollisionConfiguration> config_;
  std::unique_ptr<btCollisionDispatcher> dispatcher_;
  std::unique_ptr<btBroadphaseInterface> broadphase_;
  std::unique_ptr<btConstraintSolver> solver_;
  std::vector<std::unique_ptr<btCollisionShape>> shapes_;
  std::vector<std::unique_ptr<btRigidBody>> all_;
  std::unique_ptr<btDiscreteDynamicsWorld> world_;  // last: destroyed first
  std::vector<btRigidBody*> bodies_;
};

}  // namespace

bool haveBullet() { return true; }
std::string bulletVersion() {
  const int v = btGetVersion();
  return std::to_string(v / 100) + "." + std::to_string(v % 100) + " (double precision)";
}

std::vector<BulletSettings> bulletCandidates() {
  std::vector<BulletSettings> c;
  BulletSettings base;
  base.label = "SI/Dbvt/10it";
  c.push_back(base);
  BulletSettings s = base;
  s.label = "SI/Dbvt/10it/generic";
  s.simd = false;
  c.push_back(s);
  for (int it : {4, 20}) {
    s = base;
    s.iterations = it;
    s.label = "SI/Dbvt/" + std::to_string(it) + "it";
    c.push_back(s);
  }
  s = base;
  s.broadphase = 1;
  s.label = "SI/AxisSweep3/10it";
  c.push_back(s);
  s.iterations = 4;
  s.label = "SI/AxisSweep3/4it";
  c.push_back(s);
  s = base;
  s.solver = 1;
  s.label = "NNCG/Dbvt/10it";
  c.push_back(s);
  s = base;
  s.splitImpulse = false;
  s.label = "SI/Dbvt/10it/no-split";
  c.push_back(s);
  return c;
}

// Picked from a sweep over bulletCandidates() (see bench/README.md): four
// iterations keep every error within twice Bullet's best, and the sweep and
// prune broadphase is the faster one on the bin. The SIMD flag changes nothing
// in double precision (Bullet's SIMD paths are single precision only).
BulletSettings bulletChosen(const std::string& /*sceneKey*/) {
  BulletSettings s;
  s.broadphase = 1;
  s.iterations = 4;
  s.label = "SI/AxisSweep3/4it";
  return s;
}

std::unique_ptr<Engine> makeBulletEngine(const BulletSettings& settings) {
  return std::make_unique<BulletEngine>(settings);
}

}  // namespace vorsim_bench

#else  // no Bullet

namespace vorsim_bench {
bool haveBullet() { return false; }
std::string bulletVersion() { return {}; }
std::vector<BulletSettings> bulletCandidates() { return {}; }
BulletSettings bulletChosen(const std::string&) { return {}; }
std::unique_ptr<Engine> makeBulletEngine(const BulletSettings&) { return nullptr; }
}  // namespace vorsim_bench

#endif
