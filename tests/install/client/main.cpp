// A user program built against the installed library: a sphere dropped on the
// ground must come to rest on it.
#include <cmath>
#include <cstdio>

#include "vorsim/World.hpp"
#include "vorsim/object/Primitives.hpp"

int main() {
  vorsim::World world;
  world.setTimeStep(0.002);
  world.addGround();
  vorsim::Sphere* sphere = world.addSphere(0.1, 1.0);
  sphere->setPosition(0.0, 0.0, 0.5);
  for (int i = 0; i < 1000; ++i) world.integrate();
  const double z = sphere->getPosition()[2];
  std::printf("sphere height after %.1f s: %.4f\n", world.getWorldTime(), z);
  if (!(std::abs(z - 0.1) < 5e-3)) {
    std::printf("expected the sphere to rest at 0.1\n");
    return 1;
  }
  return 0;
}
