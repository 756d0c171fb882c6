// Peak memory of `quillo run` and `quillo export` against the size of the input: simulates
// surveys of the given presets, runs and exports them in child processes and prints each
// child's peak resident set next to the input's size and one fragment's share of it.
//   bench_memory [PRESET[:SHOTS]...]   (default: tiny demo; "large" takes a few minutes,
//                                       "large:20000000" a preset with more shots)
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "sim/Survey.hpp"

namespace fs = std::filesystem;

namespace {

// Runs the command line with `args`; returns the child's peak resident set in MB (-1: failed).
double peakMegabytes(const std::vector<std::string>& args) {
  std::fflush(stdout);  // or the child would print it again
  const pid_t pid = fork();
  if (pid == 0) {
    std::vector<char*> argv{const_cast<char*>(QUILLO_CLI)};
    for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    if (!freopen("/dev/null", "w", stdout) || !freopen("/dev/null", "w", stderr)) _exit(126);
    execv(QUILLO_CLI, argv.data());
    _exit(127);
  }
  int status = 0;
  rusage usage{};
  if (pid < 0 || wait4(pid, &status, 0, &usage) != pid) return -1;
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) return -1;
  return usage.ru_maxrss / 1024.0;  // kilobytes on Linux
}

double megabytes(const fs::path& file) {
  std::error_code ec;
  const auto size = fs::file_size(file, ec);
  return ec ? -1 : double(size) / (1024.0 * 1024.0);
}

void measure(const std::string& presetAndShots, const fs::path& dir) {
  const std::string preset = presetAndShots.substr(0, presetAndShots.find(':'));
  quillo::sim::SurveyConfig config;
  if (!quillo::sim::presetConfig(preset, config)) {
    std::printf("%-14s unknown preset\n", presetAndShots.c_str());
    return;
  }
  std::vector<std::string> simulate{"simulate", "--preset", preset, "--quiet"};
  if (presetAndShots.size() > preset.size()) {
    config.shots = std::stoull(presetAndShots.substr(preset.size() + 1));
    simulate.insert(simulate.end(), {"--shots", std::to_string(config.shots)});
  }
  const fs::path input = dir / (preset + "_210315_093000.kq");
  simulate.push_back(input.string());
  if (peakMegabytes(simulate) < 0) {
    std::printf("%-14s simulation failed\n", presetAndShots.c_str());
    return;
  }
  const double run = peakMegabytes({"run", input.string(), "--quiet", "--out-dir", dir.string()});
  const fs::path result = dir / (preset + "_210315_093000_1.kq");
  const double exported =
      peakMegabytes({"export", result.string(), (dir / (preset + ".las")).string()});
  const double inputMb = megabytes(input), resultMb = megabytes(result);
  const double fragments = double((config.shots + config.fragmentShots - 1) / config.fragmentShots);
  const double inputPerFragment = inputMb / fragments, resultPerFragment = resultMb / fragments;
  std::printf("%-14s %9.1f %6.0f %9.1f %9.1f %7.1fx %9.1f %9.1f %7.1fx\n", presetAndShots.c_str(),
              inputMb, fragments, inputPerFragment, run, run / inputPerFragment, resultMb, exported,
              exported / resultPerFragment);
  for (const auto& f : fs::directory_iterator(dir)) fs::remove(f.path());
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> presets(argv + 1, argv + argc);
  if (presets.empty()) presets = {"tiny", "demo"};
  const fs::path dir =
      fs::temp_directory_path() / ("quillo-bench-memory-" + std::to_string(getpid()));
  fs::create_directories(dir);
  std::printf("%-14s %9s %6s %9s %9s %8s %9s %9s %8s\n", "preset", "input MB", "frags", "MB/frag",
              "run MB", "/frag", "result MB", "export MB", "/frag");
  for (const auto& p : presets) measure(p, dir);
  fs::remove_all(dir);
  return 0;
}
