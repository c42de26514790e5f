// Fractal terrain from a small record of parameters. The heights are a sum of
// octaves of improved gradient noise over a regular grid, and they depend only
// on the parameters: the noise's permutation table comes from our own 32-bit
// Mersenne Twister and our own shuffle, so a seed gives the same terrain to the
// last bit on every platform and with every standard library.
#ifndef VORSIM_OBJECT_TERRAINGENERATOR_HPP
#define VORSIM_OBJECT_TERRAINGENERATOR_HPP

#include <cstddef>
#include <cstdint>
#include <vector>

namespace vorsim {

struct TerrainProperties {
  TerrainProperties() = default;
  TerrainProperties(double frequency, double xSize, double ySize, double zScale, size_t xSamples, size_t ySamples,
                    size_t fractalOctaves, double fractalLacunarity, double fractalGain, double stepSize,
                    double heightOffset, uint32_t seed)
      : frequency(frequency),
        xSize(xSize),
        ySize(ySize),
        zScale(zScale),
        fractalLacunarity(fractalLacunarity),
        fractalGain(fractalGain),
        stepSize(stepSize),
        heightOffset(heightOffset),
        fractalOctaves(fractalOctaves),
        xSamples(xSamples),
        ySamples(ySamples),
        seed(seed) {}

  double frequency = 0.2;          // noise cycles per metre
  double xSize = 10.0;             // extent along x, metres
  double ySize = 10.0;             // extent along y, metres
  double zScale = 2.0;             // height range
  double fractalLacunarity = 2.0;  // coordinate multiplier per octave
  double fractalGain = 0.5;        // amplitude multiplier per octave
  double stepSize = 0.0;           // height quantum; zero or less: none
  double heightOffset = 0.0;       // added to every height at the end, not quantised
  size_t fractalOctaves = 5;
  size_t xSamples = 100;
  size_t ySamples = 100;
  uint32_t seed = 0;
};

// The 32-bit Mersenne Twister with its standard parameters (the sequence of
// MT19937 seeded by init_genrand). Kept here so that terrain never depends on
// a standard library's engine.
class MersenneTwister32 {
 public:
  explicit MersenneTwister32(uint32_t seed);
  uint32_t operator()();

 private:
  void twist();
  uint32_t state_[624];
  size_t index_;
};

// Improved gradient noise with the quintic fade, over a permutation of 0..255
// that the seed decides.
class PerlinNoise {
 public:
  explicit PerlinNoise(uint32_t seed);
  // Noise at a point, in [-1, 1] up to the usual small excess. Cells are found
  // by the floor of each coordinate, so negative coordinates are as valid as
  // positive ones; a non-finite coordinate gives NaN.
  double sample(double x, double y, double z) const;

  // Entries 0..255 are a permutation of 0..255; 256..511 repeat them.
  size_t p[512];
};

class TerrainGenerator {
 public:
  explicit TerrainGenerator(const TerrainProperties& properties);
  // Fills the grid row after row (y outer, x inner), heights_[y*xSamples + x],
  // and returns it.
  std::vector<double>& generatePerlinFractalTerrain();
  const std::vector<double>& getHeights() const { return heights_; }
  // 1 / (1 + g + g^2 + ... + g^(octaves-1)): keeps the octave sum in range.
  double getFractalBounding() const { return fractalBounding_; }
  const PerlinNoise& getNoise() const { return noise_; }

 private:
  TerrainProperties properties_;
  std::vector<double> heights_;
  PerlinNoise noise_;
  double fractalBounding_ = 1.0;
};

}  // namespace vorsim

#endif  // VORSIM_OBJECT_TERRAINGENERATOR_HPP
