#include "vorsim/object/TerrainGenerator.hpp"

#include <cmath>
#include <limits>

namespace vorsim {

// ------------------------------------------------------------ random numbers --

MersenneTwister32::MersenneTwister32(uint32_t seed) : index_(624) {
  state_[0] = seed;
  for (uint32_t i = 1; i < 624; ++i) state_[i] = 1812433253u * (state_[i - 1] ^ (state_[i - 1] >> 30)) + i;
}

void MersenneTwister32::twist() {
  for (size_t i = 0; i < 624; ++i) {
    const uint32_t y = (state_[i] & 0x80000000u) | (state_[(i + 1) % 624] & 0x7fffffffu);
    state_[i] = state_[(i + 397) % 624] ^ (y >> 1) ^ ((y & 1u) ? 0x9908b0dfu : 0u);
  }
  index_ = 0;
}

uint32_t MersenneTwister32::operator()() {
  if (index_ >= 624) twist();
  uint32_t y = state_[index_++];
  y ^= y >> 11;
  y ^= (y << 7) & 0x9d2c5680u;
  y ^= (y << 15) & 0xefc60000u;
  y ^= y >> 18;
  return y;
}

// --------------------------------------------------------------------- noise --

PerlinNoise::PerlinNoise(uint32_t seed) {
  for (size_t i = 0; i < 256; ++i) p[i] = i;
  MersenneTwister32 random(seed);
  // Fisher-Yates from the front: entry i trades places with a uniform j in
  // [0, i]. A draw r is uniform modulo n only below the last whole multiple of
  // n; draws in the incomplete top bucket are rejected (the top bucket is whole
  // when M mod n == n - 1).
  const uint32_t M = 4294967295u;
  for (uint32_t i = 1; i < 256; ++i) {
    const uint32_t n = i + 1;
    uint32_t r = random();
    while (r / n >= M / n && M % n != i) r = random();
    const uint32_t j = r % n;
    if (j != i) {
      const size_t t = p[i];
      p[i] = p[j];
      p[j] = t;
    }
  }
  for (size_t i = 0; i < 256; ++i) p[256 + i] = p[i];
}

namespace {

inline double fade(double t) {
  const double t3 = t * t * t;
  return ((6.0 * t - 15.0) * t + 10.0) * t3;
}

inline double lerp(double t, double a, double b) { return a + t * (b - a); }

inline double grad(size_t hash, double x, double y, double z) {
  const size_t h = hash & 15;
  const double u = h < 8 ? x : y;
  const double v = h < 4 ? y : (h == 12 || h == 14 ? x : z);
  return ((h & 1) ? -u : u) + ((h & 2) ? -v : v);
}

// The cell of a coordinate: its integer part (truncation, one less for a
// negative coordinate) modulo 256, and the offset inside the cell. Done in
// floating point so that any finite coordinate has a cell.
inline bool cellOf(double x, size_t& cell, double& offset) {
  if (!std::isfinite(x)) return false;
  double integer = std::trunc(x);
  if (x < 0.0) integer -= 1.0;
  double residue = std::fmod(integer, 256.0);
  if (residue < 0.0) residue += 256.0;
  cell = size_t(residue);
  offset = x - integer;
  return true;
}

}  // namespace

double PerlinNoise::sample(double x, double y, double z) const {
  size_t X, Y, Z;
  double fx, fy, fz;
  if (!cellOf(x, X, fx) || !cellOf(y, Y, fy) || !cellOf(z, Z, fz)) return std::numeric_limits<double>::quiet_NaN();
  const double u = fade(fx), v = fade(fy), w = fade(fz);
  const size_t A = p[X] + Y, AA = p[A] + Z, AB = p[A + 1] + Z;
  const size_t B = p[X + 1] + Y, BA = p[B] + Z, BB = p[B + 1] + Z;
  return lerp(w,
              lerp(v, lerp(u, grad(p[AA], fx, fy, fz), grad(p[BA], fx - 1, fy, fz)),
                   lerp(u, grad(p[AB], fx, fy - 1, fz), grad(p[BB], fx - 1, fy - 1, fz))),
              lerp(v, lerp(u, grad(p[AA + 1], fx, fy, fz - 1), grad(p[BA + 1], fx - 1, fy, fz - 1)),
                   lerp(u, grad(p[AB + 1], fx, fy - 1, fz - 1), grad(p[BB + 1], fx - 1, fy - 1, fz - 1))));
}

// ------------------------------------------------------------------- terrain --

TerrainGenerator::TerrainGenerator(const TerrainProperties& properties)
    : properties_(properties), noise_(properties.seed) {
  // 1 / (1 + g + g^2 + ...), summed in ascending powers.
  const double g = properties_.fractalGain;
  double amplitude = 1.0, sum = 1.0;
  for (size_t o = 1; o < properties_.fractalOctaves; ++o) {
    amplitude *= g;
    sum += amplitude;
  }
  fractalBounding_ = 1.0 / sum;
}

std::vector<double>& TerrainGenerator::generatePerlinFractalTerrain() {
  const TerrainProperties& t = properties_;
  heights_.resize(t.xSamples * t.ySamples);
  const double sx = t.frequency * t.xSize / double(t.xSamples);
  const double sy = t.frequency * t.ySize / double(t.ySamples);

  for (size_t j = 0; j < t.ySamples; ++j) {
    for (size_t i = 0; i < t.xSamples; ++i) {
      double x = double(i) * sx, y = double(j) * sy, z = 0.0;
      double s = noise_.sample(x, y, z);
      double a = 1.0;
      for (size_t o = 1; o < t.fractalOctaves; ++o) {
        x *= t.fractalLacunarity;
        y *= t.fractalLacunarity;
        z *= t.fractalLacunarity;
        a *= t.fractalGain;
        s += noise_.sample(x, y, z) * a;
      }
      s *= fractalBounding_;
      double h = (s * 0.5 + 0.5) * t.zScale;
      if (t.stepSize > 0.0) h = std::floor(h / t.stepSize) * t.stepSize;
      heights_[j * t.xSamples + i] = h;
    }
  }
  // The offset comes after the quantisation, so it is not rounded away.
  for (double& h : heights_) h += t.heightOffset;
  return heights_;
}

}  // namespace vorsim
