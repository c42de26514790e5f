// Side-by-side benchmark: builds the same scenes in vorsim, MuJoCo and Bullet
// in one process, times the stepping and measures one physical error figure
// per scene from the bodies' states. Prints a markdown table and writes the
// same numbers, with the settings of every engine, to a JSON file.
//
// Timing: for every engine and scene, one untimed run records the physical
// figures and the contact counts (the engines are deterministic, so a timed
// run repeats exactly this work). Then `reps` fresh copies of the scene are
// built and stepped with std::chrono::steady_clock read only at the boundaries
// of the timing windows; the median over the copies is reported. Scene
// construction is never timed.
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <functional>
#include <iostream>
#include <map>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "Engines.hpp"
#include "Scene.hpp"

namespace vorsim_bench {
namespace {

struct Options {
  std::string jsonPath = "bench_results.json";
  int reps = 3;
  double budget = 180.0;  // seconds of wall time one measuring run may take
  std::string scenes = "abcdefghijklm";
  std::set<std::string> engines = {"vorsim", "mujoco", "bullet"};
  bool sweep = false;
  bool timingOnly = false;    // skip the measuring run (for profilers)
  std::string candidates;     // in a sweep, only the peer candidates whose label contains this
  std::string vorsimConfigs;  // comma-separated vorsim configurations; empty: all
};

// One engine configuration: how to make it, and under what name.
struct Contender {
  std::string engine;  // "vorsim", "MuJoCo", "Bullet"
  std::string label;   // the candidate's short name
  std::function<std::unique_ptr<Engine>()> make;
};

struct WindowTime {
  std::string name;
  double medianUs = 0, minUs = 0, maxUs = 0;  // per step
};

struct RunResult {
  std::string engine, label, settings, warnings, error;
  std::vector<WindowTime> times;
  double contactsPerStep = 0;
  double iterationsPerStep = NAN;  // solver sweeps, where the engine reports them
  PhysicsResult physics;
};

using Clock = std::chrono::steady_clock;

std::string fmt(double v, int digits = 3);

double median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  const size_t n = v.size();
  return n % 2 ? v[n / 2] : 0.5 * (v[n / 2 - 1] + v[n / 2]);
}

RunResult runOne(const SceneDesc& scene, const Contender& c, int reps, double budget, bool timingOnly) {
  RunResult r;
  r.engine = c.engine;
  r.label = c.label;
  try {
    // Measuring run: not timed, but a configuration far too slow to finish
    // within the budget is given up.
    if (!timingOnly) {
      auto engine = c.make();
      engine->build(scene);
      auto monitor = makeMonitor(scene);
      long contacts = 0, iterations = 0;
      const auto start = Clock::now();
      for (int k = 0; k < scene.steps; ++k) {
        engine->step();
        monitor->observe(*engine, k);
        if (k >= scene.contactWindowBegin) {
          contacts += engine->contactCount();
          iterations += engine->solverIterations();
        }
        const double s = std::chrono::duration<double>(Clock::now() - start).count();
        if (s * scene.steps / (k + 1) > budget)
          throw std::runtime_error("too slow: " + fmt(s / (k + 1) * 1e6, 3) + " µs/step over the first " +
                                   std::to_string(k + 1) + " steps, the run would exceed " + fmt(budget) + " s");
      }
      r.contactsPerStep = double(contacts) / double(scene.steps - scene.contactWindowBegin);
      if (engine->solverIterations() >= 0)
        r.iterationsPerStep = double(iterations) / double(scene.steps - scene.contactWindowBegin);
      r.physics = monitor->result();
      r.settings = engine->settings();
      r.warnings = engine->warnings();
    }
    // Timed runs: the clock is read at the window boundaries only.
    std::set<int> boundarySet{0, scene.steps};
    for (const TimingWindow& w : scene.windows) {
      boundarySet.insert(w.begin);
      boundarySet.insert(w.end);
    }
    const std::vector<int> boundaries(boundarySet.begin(), boundarySet.end());
    std::vector<std::vector<double>> perWindow(scene.windows.size());
    for (int rep = 0; rep < reps; ++rep) {
      auto engine = c.make();
      engine->build(scene);
      if (r.settings.empty()) r.settings = engine->settings();
      std::vector<Clock::time_point> stamps(boundaries.size());
      stamps[0] = Clock::now();
      for (size_t b = 0; b + 1 < boundaries.size(); ++b) {
        for (int k = boundaries[b]; k < boundaries[b + 1]; ++k) engine->step();
        stamps[b + 1] = Clock::now();
      }
      auto at = [&](int step) {
        return stamps[size_t(std::lower_bound(boundaries.begin(), boundaries.end(), step) - boundaries.begin())];
      };
      for (size_t w = 0; w < scene.windows.size(); ++w) {
        const TimingWindow& win = scene.windows[w];
        const double us = std::chrono::duration<double, std::micro>(at(win.end) - at(win.begin)).count();
        perWindow[w].push_back(us / double(win.end - win.begin));
      }
    }
    for (size_t w = 0; w < scene.windows.size(); ++w) {
      WindowTime t;
      t.name = scene.windows[w].name;
      t.medianUs = median(perWindow[w]);
      t.minUs = *std::min_element(perWindow[w].begin(), perWindow[w].end());
      t.maxUs = *std::max_element(perWindow[w].begin(), perWindow[w].end());
      r.times.push_back(t);
    }
  } catch (const std::exception& e) {
    r.error = e.what();
  }
  return r;
}

// ------------------------------------------------------------------ output --

std::string fmt(double v, int digits) {
  if (!std::isfinite(v)) return "nan";
  char b[64];
  std::snprintf(b, sizeof b, "%.*g", digits, v);
  return b;
}

std::string fixed(double v, int decimals) {
  if (!std::isfinite(v)) return "nan";
  char b[64];
  std::snprintf(b, sizeof b, "%.*f", decimals, v);
  return b;
}

std::string jsonString(const std::string& s) {
  std::string o = "\"";
  for (char ch : s) {
    if (ch == '"' || ch == '\\') {
      o += '\\';
      o += ch;
    } else if (static_cast<unsigned char>(ch) < 0x20) {
      char b[8];
      std::snprintf(b, sizeof b, "\\u%04x", ch);
      o += b;
    } else {
      o += ch;
    }
  }
  return o + "\"";
}

std::string jsonNumber(double v) {
  if (!std::isfinite(v)) return "null";
  char b[64];
  std::snprintf(b, sizeof b, "%.6g", v);
  return b;
}

struct SceneResults {
  const SceneDesc* scene;
  std::vector<RunResult> runs;  // vorsim first when it was run
};

// The vorsim run of a configuration ("default" or "fast").
const RunResult* findVorsim(const SceneResults& s, const std::string& label = "default") {
  for (const RunResult& r : s.runs)
    if (r.engine == "vorsim" && r.label == label && r.error.empty()) return &r;
  return nullptr;
}

std::string displayName(const RunResult& r) { return r.engine == "vorsim" ? "vorsim " + r.label : r.engine; }

double ratioTo(const RunResult& r, const RunResult* ref, size_t window) {
  if (!ref || window >= ref->times.size() || window >= r.times.size()) return NAN;
  return r.times[window].medianUs / ref->times[window].medianUs;
}

void printTable(const std::vector<SceneResults>& all, bool withLabel) {
  std::cout << "| scene | timing window | engine" << (withLabel ? " | candidate" : "")
            << " | µs/step | ÷ vorsim default | ÷ vorsim fast | contacts/step | error figure | error |\n";
  std::cout << "|---|---|---" << (withLabel ? "|---" : "") << "|---:|---:|---:|---:|---|---:|\n";
  for (const SceneResults& s : all) {
    const RunResult* ref = findVorsim(s);
    const RunResult* fast = findVorsim(s, "fast");
    for (size_t w = 0; w < s.scene->windows.size(); ++w) {
      for (const RunResult& r : s.runs) {
        std::cout << "| " << s.scene->key << ") " << s.scene->title << " | " << s.scene->windows[w].name << " | "
                  << displayName(r) << (withLabel ? " | " + r.label : "");
        if (!r.error.empty()) {
          std::cout << " | failed: " << r.error << " | | | | | |\n";
          continue;
        }
        std::cout << " | " << fmt(r.times[w].medianUs, 4) << " | " << fixed(ratioTo(r, ref, w), 2) << " | "
                  << fixed(ratioTo(r, fast, w), 2) << " | " << fmt(r.contactsPerStep, 4) << " | " << r.physics.figure
                  << " | " << fmt(r.physics.value, 3) << " |\n";
      }
    }
  }
}

void printSettings(const std::vector<SceneResults>& all) {
  std::cout << "\nSettings (per scene where they differ):\n";
  std::map<std::string, std::set<std::string>> byEngine;
  for (const SceneResults& s : all)
    for (const RunResult& r : s.runs)
      if (!r.settings.empty()) byEngine[r.engine].insert(r.settings);
  for (const auto& [engine, texts] : byEngine)
    for (const std::string& t : texts) std::cout << "- " << engine << ": " << t << "\n";
  bool any = false;
  for (const SceneResults& s : all)
    for (const RunResult& r : s.runs)
      if (!r.warnings.empty()) {
        if (!any) std::cout << "\nEngine warnings:\n";
        any = true;
        std::cout << "- scene " << s.scene->key << ", " << r.engine << " " << r.label << ": " << r.warnings << "\n";
      }
}

void printDetails(const std::vector<SceneResults>& all) {
  std::cout << "\nError details:\n";
  for (const SceneResults& s : all)
    for (const RunResult& r : s.runs) {
      if (!r.error.empty()) continue;
      std::cout << "- " << s.scene->key << " " << r.engine << " (" << r.label << "):";
      if (std::isfinite(r.iterationsPerStep))
        std::cout << " solver_iterations_per_step=" << fmt(r.iterationsPerStep, 4);
      for (const auto& [k, v] : r.physics.details) std::cout << " " << k << "=" << fmt(v, 4);
      std::cout << "\n";
    }
}

// The project's targets: vorsim at least 10x faster than MuJoCo on the bin, 3x
// on a quadruped standing or dropped, faster on the 8 quadrupeds and 2x on the
// contact-free robot scenes, faster than Bullet everywhere, errors no larger than
// the peers'.
void printTargets(const std::vector<SceneResults>& all) {
  std::vector<std::string> labels;
  for (const SceneResults& s : all)
    for (const RunResult& r : s.runs)
      if (r.engine == "vorsim" && std::find(labels.begin(), labels.end(), r.label) == labels.end())
        labels.push_back(r.label);
  for (const std::string& label : labels) {
    std::cout << "\nTargets, vorsim " << label << ":\n";
    for (const SceneResults& s : all) {
      const RunResult* ref = findVorsim(s, label);
      if (!ref) continue;
      for (const RunResult& r : s.runs) {
        if (r.engine == "vorsim" || !r.error.empty()) continue;
        for (size_t w = 0; w < s.scene->windows.size(); ++w) {
          const double ratio = ratioTo(r, ref, w);
          const bool muj = r.engine == "MuJoCo";
          const bool standing = s.scene->key == "f" || s.scene->key == "g" || s.scene->key == "i";
          const double need = (muj && s.scene->key == "b") ? 10.0
                              : muj && standing            ? 3.0
                              : muj && s.scene->key == "h" ? 1.0
                                                           : (muj ? (s.scene->hasRobot ? 2.0 : 0.0) : 1.0);
          if (need <= 0) continue;
          std::cout << "- " << s.scene->key << " [" << s.scene->windows[w].name << "] " << r.engine
                    << " / vorsim = " << fixed(ratio, 2) << " (target >= " << fmt(need)
                    << "): " << (ratio >= need ? "met" : "NOT met") << "\n";
        }
        const bool ok = ref->physics.value <= r.physics.value;
        std::cout << "- " << s.scene->key << " error vorsim " << fmt(ref->physics.value) << " vs " << r.engine << " "
                  << fmt(r.physics.value) << " (" << r.physics.figure << "): " << (ok ? "no worse" : "WORSE") << "\n";
      }
    }
  }
}

// The selection rule for the peers' settings: per scene and engine, the
// fastest candidate whose error figure is at most twice the smallest error any
// candidate of that engine reached there.
void printPicks(const std::vector<SceneResults>& all) {
  std::cout << "\nFastest candidate within 2x of the engine's best error:\n";
  for (const SceneResults& s : all)
    for (const std::string engine : {"MuJoCo", "Bullet"}) {
      double best = INFINITY;
      for (const RunResult& r : s.runs)
        if (r.engine == engine && r.error.empty()) best = std::min(best, r.physics.value);
      const RunResult* pick = nullptr;
      for (const RunResult& r : s.runs)
        if (r.engine == engine && r.error.empty() && r.physics.value <= std::max(2 * best, best + 1e-9) &&
            (!pick || r.times[0].medianUs < pick->times[0].medianUs))
          pick = &r;
      if (pick)
        std::cout << "- " << s.scene->key << " " << engine << ": " << pick->label << " ("
                  << fmt(pick->times[0].medianUs, 4) << " µs/step, error " << fmt(pick->physics.value)
                  << "; best error " << fmt(best) << ")\n";
    }
}

std::string cpuModel() {
  std::ifstream in("/proc/cpuinfo");
  std::string line;
  while (std::getline(in, line))
    if (line.rfind("model name", 0) == 0) {
      const auto p = line.find(':');
      return p == std::string::npos ? line : line.substr(p + 2);
    }
  return "unknown";
}

void writeJson(const std::string& path, const Options& o, const std::vector<SceneResults>& all,
               const std::vector<std::string>& missing) {
  std::ofstream out(path);
  if (!out) {
    std::cerr << "cannot write " << path << "\n";
    return;
  }
  out << "{\n  \"mode\": " << jsonString(o.sweep ? "sweep" : "compare") << ",\n";
  out << "  \"cpu\": " << jsonString(cpuModel()) << ",\n";
  out << "  \"compiler\": " << jsonString(__VERSION__) << ",\n";
  out << "  \"timing\": "
      << jsonString("median over " + std::to_string(o.reps) +
                    " fresh builds of each scene, steady_clock at timing-window boundaries, "
                    "construction not timed, one thread")
      << ",\n";
  out << "  \"ratio\": \"us_per_step / vorsim_us_per_step of the default or the fast configuration (>1: vorsim "
         "faster)\",\n";
  out << "  \"peers\": {\"MuJoCo\": " << (haveMujoco() ? jsonString(mujocoVersion()) : "null")
      << ", \"Bullet\": " << (haveBullet() ? jsonString(bulletVersion()) : "null") << "},\n";
  out << "  \"missing_peers\": [";
  for (size_t i = 0; i < missing.size(); ++i) out << (i ? ", " : "") << jsonString(missing[i]);
  out << "],\n  \"scenes\": [\n";
  for (size_t si = 0; si < all.size(); ++si) {
    const SceneResults& s = all[si];
    const RunResult* ref = findVorsim(s);
    const RunResult* fast = findVorsim(s, "fast");
    out << "    {\"key\": " << jsonString(s.scene->key) << ", \"title\": " << jsonString(s.scene->title)
        << ", \"dt\": " << jsonNumber(s.scene->dt) << ", \"steps\": " << s.scene->steps
        << ", \"bodies\": " << s.scene->bodies.size() << ", \"friction\": " << jsonNumber(s.scene->friction)
        << ", \"restitution\": " << jsonNumber(s.scene->restitution) << ",\n     \"results\": [\n";
    for (size_t ri = 0; ri < s.runs.size(); ++ri) {
      const RunResult& r = s.runs[ri];
      out << "       {\"engine\": " << jsonString(r.engine) << ", \"candidate\": " << jsonString(r.label)
          << ", \"settings\": " << jsonString(r.settings);
      if (!r.error.empty()) out << ", \"failed\": " << jsonString(r.error);
      if (!r.warnings.empty()) out << ", \"warnings\": " << jsonString(r.warnings);
      out << ",\n        \"timing\": [";
      for (size_t w = 0; w < r.times.size(); ++w) {
        const WindowTime& t = r.times[w];
        out << (w ? ", " : "") << "{\"window\": " << jsonString(t.name)
            << ", \"us_per_step\": " << jsonNumber(t.medianUs) << ", \"min_us_per_step\": " << jsonNumber(t.minUs)
            << ", \"max_us_per_step\": " << jsonNumber(t.maxUs)
            << ", \"ratio_to_vorsim_default\": " << jsonNumber(ratioTo(r, ref, w))
            << ", \"ratio_to_vorsim_fast\": " << jsonNumber(ratioTo(r, fast, w)) << "}";
      }
      out << "],\n        \"contacts_per_step\": " << jsonNumber(r.contactsPerStep)
          << ", \"solver_iterations_per_step\": " << jsonNumber(r.iterationsPerStep)
          << ", \"error_figure\": " << jsonString(r.physics.figure) << ", \"error\": " << jsonNumber(r.physics.value)
          << ",\n        \"error_details\": {";
      for (size_t d = 0; d < r.physics.details.size(); ++d)
        out << (d ? ", " : "") << jsonString(r.physics.details[d].first) << ": "
            << jsonNumber(r.physics.details[d].second);
      out << "}}" << (ri + 1 < s.runs.size() ? "," : "") << "\n";
    }
    out << "     ]}" << (si + 1 < all.size() ? "," : "") << "\n";
  }
  out << "  ]\n}\n";
}

// ------------------------------------------------------------------- main --

void usage() {
  std::cout
      << "usage: vorsim_bench [--json PATH] [--reps N] [--scenes abcdefghijklm] [--engines vorsim,mujoco,bullet]\n"
         "                    [--vorsim default,fast,warm,...]\n"
         "                    [--sweep [--candidates TEXT]] [--budget SECONDS] [--timing-only]\n"
         "  --json PATH   where the results go (default bench_results.json)\n"
         "  --reps N      timed repetitions per engine and scene; the median is reported (default 3)\n"
         "  --scenes S    the scenes to run, as letters (default abcdefghijklm; f to i robots in contact, j to m "
         "contact-free robots)\n"
         "  --engines L   comma-separated engines to run (default all that were built)\n"
         "  --vorsim L    comma-separated vorsim configurations: default, fast, warm, fast warm, exact,\n"
         "                fast exact, warm exact, fast warm exact, fast warm loose, warm capped (default all)\n"
         "  --sweep       run every candidate setting of the peers instead of the chosen ones\n"
         "  --candidates T  with --sweep: only the candidates whose name contains T\n"
         "  --budget S    give up a configuration whose measuring run would take longer than S seconds\n"
         "                (default 180)\n"
         "  --timing-only skip the untimed measuring run (no error figures; for profilers)\n";
}

bool parse(int argc, char** argv, Options& o) {
  for (int i = 1; i < argc; ++i) {
    const std::string a = argv[i];
    auto value = [&]() -> std::string {
      if (i + 1 >= argc) throw std::invalid_argument(a + " needs a value");
      return argv[++i];
    };
    if (a == "--json") {
      o.jsonPath = value();
    } else if (a == "--reps") {
      o.reps = std::stoi(value());
      if (o.reps < 1) throw std::invalid_argument("--reps must be at least 1");
    } else if (a == "--budget") {
      o.budget = std::stod(value());
    } else if (a == "--scenes") {
      o.scenes = value();
    } else if (a == "--engines") {
      o.engines.clear();
      std::stringstream ss(value());
      std::string e;
      while (std::getline(ss, e, ',')) {
        if (e != "vorsim" && e != "mujoco" && e != "bullet") throw std::invalid_argument("unknown engine " + e);
        o.engines.insert(e);
      }
    } else if (a == "--vorsim") {
      o.vorsimConfigs = value();
      if (vorsimConfigurations(o.vorsimConfigs).empty())
        throw std::invalid_argument("no vorsim configuration named in " + o.vorsimConfigs);
    } else if (a == "--timing-only") {
      o.timingOnly = true;
    } else if (a == "--candidates") {
      o.candidates = value();
    } else if (a == "--sweep") {
      o.sweep = true;
    } else if (a == "--help" || a == "-h") {
      usage();
      return false;
    } else {
      throw std::invalid_argument("unknown option " + a);
    }
  }
  return true;
}

int run(int argc, char** argv) {
  Options o;
  try {
    if (!parse(argc, argv, o)) return 0;
  } catch (const std::exception& e) {
    std::cerr << "vorsim_bench: " << e.what() << "\n";
    usage();
    return 2;
  }

  std::vector<std::string> missing;
  if (!haveMujoco()) missing.push_back("MuJoCo");
  if (!haveBullet()) missing.push_back("Bullet");
  std::cout << "# vorsim benchmark\n\nCPU: " << cpuModel() << "; one thread; timing: median of " << o.reps
            << " runs, construction not timed.\n";
  std::cout << "Peers: MuJoCo " << (haveMujoco() ? mujocoVersion() : "not built in") << ", Bullet "
            << (haveBullet() ? bulletVersion() : "not built in") << ".\n";
  if (!missing.empty()) {
    std::cout << "Missing peers (not found by CMake at build time):";
    for (const auto& m : missing) std::cout << " " << m;
    std::cout << "\n";
  }
  std::cout << "Ratio = µs/step / vorsim µs/step (default or fast configuration): above 1 means vorsim is faster.\n\n";

  std::vector<SceneDesc> scenes = makeScenes();
  std::vector<SceneResults> all;
  for (const SceneDesc& scene : scenes) {
    if (o.scenes.find(scene.key) == std::string::npos) continue;
    std::vector<Contender> contenders;
    // The contact-free robot scenes: vorsim's configurations differ only in
    // the contact solver. Bullet's adapter builds no robots (its URDF importer
    // is not part of the installed library).
    if (o.engines.count("vorsim"))
      for (const VorsimSettings& s : vorsimConfigurations(o.vorsimConfigs))
        if (!scene.hasRobot || scene.robot.contact || s.label == "default")
          contenders.push_back({"vorsim", s.label, [s] { return makeVorsimEngine(s); }});
    if (haveMujoco() && o.engines.count("mujoco")) {
      std::vector<MujocoSettings> list =
          o.sweep ? mujocoCandidates() : std::vector<MujocoSettings>{mujocoChosen(scene.key)};
      for (const MujocoSettings& s : list)
        if (s.label.find(o.candidates) != std::string::npos)
          contenders.push_back({"MuJoCo", s.label, [s] { return makeMujocoEngine(s); }});
    }
    if (haveBullet() && o.engines.count("bullet") && !scene.hasRobot) {
      std::vector<BulletSettings> list =
          o.sweep ? bulletCandidates() : std::vector<BulletSettings>{bulletChosen(scene.key)};
      for (const BulletSettings& s : list)
        if (s.label.find(o.candidates) != std::string::npos)
          contenders.push_back({"Bullet", s.label, [s] { return makeBulletEngine(s); }});
    }
    SceneResults res{&scene, {}};
    for (const Contender& c : contenders) {
      std::cerr << "scene " << scene.key << ": " << c.engine << " " << c.label << " ..." << std::flush;
      res.runs.push_back(runOne(scene, c, o.reps, o.budget, o.timingOnly));
      const RunResult& r = res.runs.back();
      if (r.error.empty())
        std::cerr << " " << fmt(r.times[0].medianUs, 4) << " µs/step, " << r.physics.figure << " "
                  << fmt(r.physics.value) << "\n";
      else
        std::cerr << " failed: " << r.error << "\n";
    }
    all.push_back(std::move(res));
  }

  printTable(all, o.sweep);
  printSettings(all);
  printDetails(all);
  if (o.sweep) printPicks(all);
  if (!o.sweep) printTargets(all);
  writeJson(o.jsonPath, o, all, missing);
  std::cout << "\nJSON written to " << o.jsonPath << "\n";
  return 0;
}

}  // namespace
}  // namespace vorsim_bench

int main(int argc, char** argv) { return vorsim_bench::run(argc, argv); }
