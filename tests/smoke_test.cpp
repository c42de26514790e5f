#include <gtest/gtest.h>

#include "vorsim/World.hpp"
#include "vorsim/object/Primitives.hpp"

TEST(Smoke, SphereSettlesOnGround) {
  vorsim::World world;
  world.setTimeStep(0.001);
  world.addGround();
  auto* s = world.addSphere(0.1, 1.0);
  s->setPosition(0, 0, 0.5);
  for (int i = 0; i < 3000; ++i) world.integrate();
  EXPECT_NEAR(s->getPosition()[2], 0.1, 2e-3);
}
