// A small first program: a few bodies dropped on the ground, stepped for two
// seconds, with their final state printed.
#include <cstdio>

#include "vorsim/World.hpp"
#include "vorsim/object/Primitives.hpp"

int main() {
  vorsim::World world;
  world.setTimeStep(0.001);
  world.addGround();
  auto* sphere = world.addSphere(0.1, 1.0);
  sphere->setPosition(0, 0, 1.0);
  auto* box = world.addBox(0.2, 0.2, 0.2, 1.0);
  box->setPosition(0.5, 0, 0.5);
  for (int i = 0; i < 2000; ++i) world.integrate();
  std::printf("t = %.3f s, sphere z = %.4f m, box z = %.4f m, contacts: %zu\n", world.getWorldTime(),
              sphere->getPosition()[2], box->getPosition()[2], world.getContactProblem().size());
  return 0;
}
