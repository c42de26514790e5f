// Terrain: the fractal generator, height maps from every source, height and
// normal queries against the collision surface, bad input, and bodies on terrain.
#include <gtest/gtest.h>
#include <png.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <random>

#include "test_helpers.hpp"
#include "vorsim/Collision.hpp"
#include "vorsim/World.hpp"
#include "vorsim/object/HeightMap.hpp"
#include "vorsim/object/Primitives.hpp"

using namespace vorsim;
using vorsim_test::fatalOf;

namespace {

uint64_t fnv1a(const std::vector<double>& values) {
  uint64_t h = 0xcbf29ce484222325ull;
  for (double x : values) {
    unsigned char bytes[8];
    std::memcpy(bytes, &x, 8);
    for (unsigned char b : bytes) h = (h ^ b) * 0x100000001b3ull;
  }
  return h;
}

std::string tempFile(const std::string& name) { return testing::TempDir() + "vorsim_terrain_" + name; }

void writeText(const std::string& path, const std::string& text) { std::ofstream(path) << text; }

// A PNG with raw sample bytes row after row.
void writePng(const std::string& path, int width, int height, int bitDepth, int colorType,
              const std::vector<uint8_t>& bytes, int interlace = PNG_INTERLACE_NONE) {
  FILE* fp = std::fopen(path.c_str(), "wb");
  png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
  png_infop info = png_create_info_struct(png);
  png_init_io(png, fp);
  png_set_IHDR(png, info, png_uint_32(width), png_uint_32(height), bitDepth, colorType, interlace,
               PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
  png_write_info(png, info);
  std::vector<png_bytep> rows(static_cast<size_t>(height));
  const size_t rowBytes = bytes.size() / size_t(height);
  for (int r = 0; r < height; ++r) rows[size_t(r)] = const_cast<png_bytep>(&bytes[size_t(r) * rowBytes]);
  png_write_image(png, rows.data());
  png_write_end(png, nullptr);
  png_destroy_write_struct(&png, &info);
  std::fclose(fp);
}

bool says(const std::string& text, const std::string& message) {
  return text.find("\x1b[1;31m" + message + "\x1b[0m") != std::string::npos;
}

// A bumpy grid: no cell of it is planar.
std::vector<double> bumpyGrid(size_t nx, size_t ny) {
  std::vector<double> h(nx * ny);
  for (size_t j = 0; j < ny; ++j)
    for (size_t i = 0; i < nx; ++i) h[j * nx + i] = 0.3 * std::sin(1.7 * i + 0.4 * j) + 0.2 * std::cos(0.9 * j * i);
  return h;
}

}  // namespace

// ------------------------------------------------------------------ generator --

TEST(TerrainGenerator, HeightsArePinnedToTheLastBit) {
  // Checksums and values agree bit for bit with an independent implementation
  // (another language, its own Mersenne Twister) of the same formulas.
  const TerrainProperties p(0.7, 8.0, 6.0, 1.5, 17, 13, 4, 2.1, 0.45, 0.0, -0.3, 42);
  TerrainGenerator gen(p);
  const std::vector<double>& h = gen.generatePerlinFractalTerrain();
  ASSERT_EQ(h.size(), 17u * 13u);
  EXPECT_EQ(fnv1a(h), 0xb006af0258bc36a6ull);
  EXPECT_EQ(h[0], 0.45);  // noise 0 at the origin: half of zScale, plus the offset
  EXPECT_EQ(h[1], 0.52077126870458401);
  EXPECT_EQ(h[100], 0.51666930506366993);
  EXPECT_EQ(h[220], 0.56381729425145011);
  EXPECT_DOUBLE_EQ(gen.getFractalBounding(), 1.0 / (1.0 + 0.45 + 0.45 * 0.45 + 0.45 * 0.45 * 0.45));

  TerrainGenerator again(p);
  EXPECT_EQ(again.generatePerlinFractalTerrain(), h);
  TerrainGenerator big({0.3, 20.0, 20.0, 2.0, 64, 64, 5, 2.0, 0.5, 0.0, 0.0, 7});
  EXPECT_EQ(fnv1a(big.generatePerlinFractalTerrain()), 0x850329583a75669full);

  // A quantum of 0.1 floors the heights before the offset is added.
  TerrainProperties stepped = p;
  stepped.stepSize = 0.1;
  TerrainGenerator quantised(stepped);
  const std::vector<double>& q = quantised.generatePerlinFractalTerrain();
  EXPECT_EQ(fnv1a(q), 0xf405c3ddc34bb76bull);
  for (size_t k = 0; k < q.size(); ++k) {
    const double steps = (q[k] + 0.3) / 0.1;
    EXPECT_NEAR(steps, std::round(steps), 1e-9);
    EXPECT_LE(q[k], h[k] + 1e-12);
    EXPECT_GT(q[k], h[k] - 0.1);
  }
  // One octave is the bare noise, unscaled.
  TerrainProperties single = p;
  single.fractalOctaves = 1;
  TerrainGenerator one(single);
  EXPECT_EQ(one.getFractalBounding(), 1.0);
  const PerlinNoise noise(42);
  const double sx = 0.7 * 8.0 / 17.0, sy = 0.7 * 6.0 / 13.0;
  EXPECT_EQ(one.generatePerlinFractalTerrain()[3 * 17 + 5], (noise.sample(5 * sx, 3 * sy, 0) * 0.5 + 0.5) * 1.5 - 0.3);
}

// -------------------------------------------------------------------- queries --

TEST(HeightMap, HeightAndNormalFollowTheGridAndItsDerivatives) {
  const size_t nx = 9, ny = 6;
  const double xSize = 4.0, ySize = 2.5, cx = 1.5, cy = -2.0;
  const std::vector<double> h = bumpyGrid(nx, ny);
  HeightMap map(nx, ny, xSize, ySize, cx, cy, h);
  EXPECT_EQ(map.getBodyType(), STATIC);
  const double dx = xSize / (nx - 1), dy = ySize / (ny - 1), x0 = cx - xSize / 2, y0 = cy - ySize / 2;
  for (size_t j = 0; j < ny; ++j)
    for (size_t i = 0; i < nx; ++i) {
      EXPECT_NEAR(map.getHeight(x0 + i * dx, y0 + j * dy), h[j * nx + i], 1e-12) << i << " " << j;
      // Along a grid line the surface is the straight line between samples.
      if (i + 1 < nx) {
        EXPECT_NEAR(map.getHeight(x0 + (i + 0.3) * dx, y0 + j * dy), 0.7 * h[j * nx + i] + 0.3 * h[j * nx + i + 1],
                    1e-12);
      }
    }
  // The normal is (-dh/dx, -dh/dy, 1) normalised, by central differences.
  auto fdNormal = [&](double x, double y) {
    const double e = 1e-6;
    const double gx = (map.getHeight(x + e, y) - map.getHeight(x - e, y)) / (2 * e);
    const double gy = (map.getHeight(x, y + e) - map.getHeight(x, y - e)) / (2 * e);
    return Eigen::Vector3d(-gx, -gy, 1.0).normalized();
  };
  std::mt19937 rng(1);
  std::uniform_real_distribution<double> ux(x0 - 1.0, x0 + xSize + 1.0), uy(y0 - 1.0, y0 + ySize + 1.0);
  int outside = 0;
  for (int k = 0; k < 400; ++k) {
    const double x = ux(rng), y = uy(rng);
    const double fx = (x - x0) / dx, fy = (y - y0) / dy;
    // Keep off cell edges and diagonals, where the slope jumps.
    auto nearEdge = [](double f) { return std::abs(f - std::round(f)) < 1e-4; };
    if (nearEdge(fx) || nearEdge(fy) || nearEdge(fx + fy) || nearEdge(fx - fy)) continue;
    outside += (fx < 0 || fx > nx - 1 || fy < 0 || fy > ny - 1);
    Mat<3, 1> n;
    map.getNormal(x, y, n);
    EXPECT_NEAR((n.e() - fdNormal(x, y)).norm(), 0.0, 1e-6) << x << " " << y;
  }
  EXPECT_GT(outside, 50);
  // Outside, the border continues level: the height of the nearest border point.
  EXPECT_EQ(map.getHeight(x0 - 3.0, y0 + 2 * dy), h[2 * nx]);
  EXPECT_NEAR(map.getHeight(x0 + xSize + 1.0, y0 + ySize + 1.0), h[nx * ny - 1], 1e-15);
  EXPECT_EQ(map.getHeight(x0 + 1.5 * dx, y0 - 7.0), map.getHeight(x0 + 1.5 * dx, y0));
  EXPECT_TRUE(std::isnan(map.getHeight(NAN, 0.0)));
  Mat<3, 1> nanNormal{0, 0, 1};
  map.getNormal(0.0, NAN, nanNormal);
  EXPECT_TRUE(std::isnan(nanNormal[0]) && std::isnan(nanNormal[1]) && std::isnan(nanNormal[2]));
}

// -------------------------------------------------------------------- sources --

TEST(HeightMap, TextAndPngSources) {
  const std::string text = tempFile("map.txt");
  writeText(text, "3 2 4.0 1.0\n 0.5 1 1.5\n 2 2.5 3e0\n");
  World world;
  auto* fromText = world.addHeightMap(text, 1.0, 1.0, "soil");
  EXPECT_EQ(fromText->getHeightMap(), (std::vector<double>{0.5, 1, 1.5, 2, 2.5, 3}));
  EXPECT_NEAR(fromText->getHeight(1.0 + 2.0, 1.5), 3.0, 1e-12);  // last sample: far x, far y
  EXPECT_EQ(geomData(fromText->getCollisionObject()).material, "soil");

  // 8-bit: rows in order, each mirrored in x; 255 is the top of the range.
  const std::string png8 = tempFile("gray8.png");
  writePng(png8, 3, 2, 8, PNG_COLOR_TYPE_GRAY, {0, 10, 255, 20, 30, 40});
  int w = 0, hgt = 0;
  std::vector<double> heights{99.0};
  read_png_file(png8.c_str(), w, hgt, heights, 0.01, -1.0);
  EXPECT_EQ(std::make_pair(w, hgt), std::make_pair(3, 2));
  EXPECT_EQ(heights,
            (std::vector<double>{255 * 0.01 - 1, 10 * 0.01 - 1, -1.0, 40 * 0.01 - 1, 30 * 0.01 - 1, 20 * 0.01 - 1}));
  // 16-bit: first byte times 255 plus the second, so white is 65280.
  const std::string png16 = tempFile("gray16.png");
  writePng(png16, 2, 2, 16, PNG_COLOR_TYPE_GRAY, {0xFF, 0xFF, 0x01, 0x02, 0, 0, 0x80, 0});
  read_png_file(png16.c_str(), w, hgt, heights, 1e-4, 0.5);
  EXPECT_EQ(heights,
            (std::vector<double>{(1 * 255 + 2) * 1e-4 + 0.5, 65280 * 1e-4 + 0.5, 128 * 255 * 1e-4 + 0.5, 0.5}));
  // Interlaced images read the same.
  const std::string interlaced = tempFile("interlaced.png");
  std::vector<uint8_t> big(17 * 11);
  for (size_t k = 0; k < big.size(); ++k) big[k] = uint8_t(k * 7);
  writePng(interlaced, 17, 11, 8, PNG_COLOR_TYPE_GRAY, big, PNG_INTERLACE_ADAM7);
  read_png_file(interlaced.c_str(), w, hgt, heights, 1.0, 0.0);
  ASSERT_EQ(heights.size(), big.size());
  EXPECT_EQ(heights[3 * 17 + 16], big[3 * 17]);

  auto* fromPng = world.addHeightMap(png16, 0.0, 0.0, 2.0, 2.0, 1e-4, 0.5);
  EXPECT_NEAR(fromPng->getHeight(1.0, -1.0), 65280 * 1e-4 + 0.5, 1e-12);
  // A copy has the grid, the place and the material of its source.
  fromText->setPosition(1.0, 1.0, 0.2);
  auto* copy = world.addHeightMap(fromText, 2, 2);
  EXPECT_EQ(copy->getHeightMap(), fromText->getHeightMap());
  EXPECT_EQ(copy->getHeight(2.2, 0.9), fromText->getHeight(2.2, 0.9));
  EXPECT_EQ(geomData(copy->getCollisionObject()).material, "soil");
  EXPECT_EQ(copy->getCollisionGroup(), 2u);
  EXPECT_EQ(dGeomGetPosition(copy->getCollisionObject())[2], 0.2);
}

TEST(HeightMap, BadInputIsAFatalMessage) {
  writeText(tempFile("few.txt"), "2 2 1 1 0 0 0");
  writeText(tempFile("bad.txt"), "2 two 1 1 0 0 0 0");
  writeText(tempFile("line.txt"), "1 3 1 1 0 0 0");
  writeText(tempFile("tiny.png"), "\x89PNG");
  writeText(tempFile("text.png"), "P2 3 2 255 0 1 2 3 4 5");
  writePng(tempFile("rgb.png"), 2, 2, 8, PNG_COLOR_TYPE_RGB, std::vector<uint8_t>(12, 9));
  writePng(tempFile("gray4.png"), 2, 2, 4, PNG_COLOR_TYPE_GRAY, {0x12, 0x34});
  writePng(tempFile("one.png"), 1, 5, 8, PNG_COLOR_TYPE_GRAY, std::vector<uint8_t>(5, 1));
  // A damaged file: the image data is cut off.
  std::vector<uint8_t> noisy(64 * 64);
  for (size_t k = 0; k < noisy.size(); ++k) noisy[k] = uint8_t((k * 2654435761u) >> 13);
  writePng(tempFile("cut.png"), 64, 64, 8, PNG_COLOR_TYPE_GRAY, noisy);
  std::string bytes;
  {
    std::ifstream in(tempFile("cut.png"), std::ios::binary);
    bytes.assign(std::istreambuf_iterator<char>(in), {});
  }
  std::ofstream(tempFile("cut.png"), std::ios::binary) << bytes.substr(0, bytes.size() / 2);

  const std::pair<std::string, std::string> textCases[] = {
      {"few.txt", "insufficient number of height values"},
      {"bad.txt", "Height Map is in a wrong format"},
      {"absent.txt", "\n Error opening file.\n"},
      {"line.txt", "Height map needs at least 2 samples in each direction, got 1 by 3"},
  };
  for (const auto& [file, message] : textCases)
    EXPECT_TRUE(says(fatalOf([&] { HeightMap(0, 0, tempFile(file)); }), message)) << file;
  const std::pair<std::string, std::string> pngCases[] = {
      {"absent.png", tempFile("absent.png") + " not found"},
      {"tiny.png", "Error reading header"},
      {"text.png", tempFile("text.png") + " is not png"},
      {"rgb.png",
       tempFile("rgb.png") + ": a PNG height map must have a single grey channel (no colour, palette or alpha)"},
      {"gray4.png", "PNG height map only support bit depth of 8 or 16"},
      {"cut.png", "libpng fialed to read the png info"},
      // A single-sample PNG is read, and then refused as a grid.
      {"one.png", "Height map needs at least 2 samples in each direction, got 1 by 5"},
  };
  for (const auto& [file, message] : pngCases)
    EXPECT_TRUE(says(fatalOf([&] { HeightMap(0, 0, tempFile(file), 1, 1, 1, 0); }), message)) << file;
  EXPECT_TRUE(says(fatalOf([] { HeightMap(0, 0, "map.jpg", 1, 1, 1, 0); }), "This constructor is for png file"));
  auto grid = [](double xSize, std::vector<double> h) { return fatalOf([&] { HeightMap(2, 2, xSize, 1, 0, 0, h); }); };
  EXPECT_TRUE(says(grid(1.0, {0, 0, 0}), "Height map of 2 by 2 samples needs 4 heights, got 3"));
  EXPECT_TRUE(says(grid(0.0, {0, 0, 0, 0}), "Height map needs positive finite sizes, got 0 by 1"));
}

// ------------------------------------------------------------------- updates --

TEST(HeightMap, UpdatesReplaceTheHeightsThatCollisionSees) {
  World world;
  TerrainProperties p(0.5, 6.0, 6.0, 1.0, 20, 20, 3, 2.0, 0.5, 0.0, 0.0, 1);
  const double cx = 0.5, cy = -1.5;
  auto* map = world.addHeightMap(cx, cy, p);
  dReal box[6];
  dGeomGetAABB(map->getCollisionObject(), box);  // the heightfield is 100 m thick
  EXPECT_NEAR(box[4], *std::min_element(map->getHeightMap().begin(), map->getHeightMap().end()) - 100.0, 1e-9);
  EXPECT_NEAR(box[5], *std::max_element(map->getHeightMap().begin(), map->getHeightMap().end()), 1e-9);
  EXPECT_FALSE(map->isUpdated());

  // New heights well above the old maximum: a sphere there must collide, so the
  // geom's bounding box must have followed.
  p.seed = 2;
  p.heightOffset = 3.0;
  map->update(cx, cy, p);
  EXPECT_TRUE(map->isUpdated());
  EXPECT_EQ(map->getHeightMap(), TerrainGenerator(p).generatePerlinFractalTerrain());
  auto* ball = world.addSphere(0.1, 1.0);
  ball->setPosition(0.3, -0.2, map->getHeight(0.3, -0.2) + 0.09);
  world.integrate();
  EXPECT_GT(ball->getContacts().size(), 0u);
  EXPECT_NEAR(world.rayTest({1.1, 0.4, 9.0}, {0, 0, -1}, 20.0)[0].getPosition()[2], map->getHeight(1.1, 0.4), 1e-9);

  std::vector<double> flat(400, 0.25);
  map->setUpdated(false);
  map->update(cx, cy, 6.0, 6.0, flat);
  EXPECT_TRUE(map->isUpdated());
  EXPECT_EQ(map->getHeight(-2.0, 2.9), 0.25);
  EXPECT_NEAR(world.rayTest({1.1, 0.4, 9.0}, {0, 0, -1}, 20.0)[0].getPosition()[2], 0.25, 1e-12);

  // Another grid size cannot be taken in place.
  EXPECT_TRUE(says(fatalOf([&] { map->update(0, 0, 6, 6, std::vector<double>(399)); }),
                   "Height map update needs 400 heights (20 by 20), got 399"));
  p.xSamples = 21;
  EXPECT_TRUE(
      says(fatalOf([&] { map->update(0, 0, p); }), "Height map update needs the map's 20 by 20 samples, got 21 by 20"));
  EXPECT_EQ(map->getHeight(-2.0, 2.9), 0.25);

  // A new size is stored for the queries while collision keeps its grid: said aloud.
  {
    StdoutCapture out;
    map->update(cx, cy, 12.0, 6.0, flat);
    EXPECT_NE(out.text().find("\x1b[33mHeight map update to a size of 12 by 6: collision keeps the grid of 6 by 6"),
              std::string::npos);
  }
  EXPECT_EQ(map->getXSize(), 12.0);

  // Removal frees the geom and the heightfield data, which is then unknown.
  dxHeightfieldData* data = map->getHeightFieldData();
  const int geoms = dSpaceGetNumGeoms(world.getCollisionSpace());
  world.removeObject(map);
  EXPECT_EQ(dSpaceGetNumGeoms(world.getCollisionSpace()), geoms - 1);
  EXPECT_TRUE(says(fatalOf([&] { dxgetHeightFromHeightField(data, 0.0, 0.0); }),
                   "heightfield data that no height map registered"));
}

TEST(HeightMap, AFatalCallbackThatReturnsGetsADefinedMap) {
  int fatals = 0;
  VorSimMsg::setFatalCallback([&] { ++fatals; });
  StdoutCapture out;
  HeightMap shortOne(3, 2, 2.0, 1.0, 0.0, 0.0, {1, 2, 3, 4});  // two heights missing: zeros
  EXPECT_EQ(shortOne.getHeightMap(), (std::vector<double>{1, 2, 3, 4, 0, 0}));
  EXPECT_EQ(shortOne.getHeight(1.0, 0.5), 0.0);
  HeightMap line(1, 4, 0.0, 1.0, 0.0, 0.0, {1, 2, 3, 4});  // one column, no size: level 2 by 2, 1 m
  EXPECT_EQ(line.getXSamples(), 2u);
  EXPECT_EQ(line.getXSize(), 1.0);
  EXPECT_EQ(line.getHeight(0.3, 0.2), 0.0);
  EXPECT_EQ(fatals, 3);
  VorSimMsg::resetFatalCallback();
}

// ------------------------------------------------------------------ dynamics --

TEST(HeightMapDynamics, SphereRollsOnATiltedPlane) {
  // On the plane z = x tan(theta) a solid ball rolls down with (5/7) g sin(theta).
  const double theta = 12.0 * M_PI / 180.0, g = 9.81, r = 0.1, t = 1.0;
  std::vector<double> plane(21 * 21);
  for (size_t j = 0; j < 21; ++j)
    for (size_t i = 0; i < 21; ++i) plane[j * 21 + i] = std::tan(theta) * (-5.0 + 0.5 * i);
  World world;
  world.setTimeStep(0.001);
  auto* map = world.addHeightMap(21, 21, 10.0, 10.0, 0.0, 0.0, plane);
  auto* ball = world.addSphere(r, 2.0);
  ball->setPosition(2.0, 0.3, map->getHeight(2.0, 0.3) + r / std::cos(theta));
  const Eigen::Vector3d downhill(-std::cos(theta), 0.0, -std::sin(theta)), normal(-std::sin(theta), 0, std::cos(theta));
  for (int i = 0; i < int(t / 0.001); ++i) {
    world.integrate();
    const Eigen::Vector3d c = ball->getPosition().e();
    EXPECT_NEAR((c - Eigen::Vector3d(c.x(), c.y(), map->getHeight(c.x(), c.y()))).dot(normal), r, 1e-3);
  }
  const double v = ball->getLinearVelocity().e().dot(downhill), expected = 5.0 / 7.0 * g * std::sin(theta) * t;
  EXPECT_NEAR(v / expected, 1.0, 0.02);
  EXPECT_NEAR(ball->getAngularVelocity()[1] * r / v, -1.0, 0.02);  // rolling, not sliding
  EXPECT_NEAR(ball->getPosition()[1], 0.3, 1e-6);
}
