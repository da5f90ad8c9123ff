// A windowed start of the active launcher version (500 files, about 50 MB)
// through the installed zorvi-bootstrap, against exec'ing the launcher image
// directly (same arguments and environment) after `sha256sum -c` over its
// tree, in one run: the ordinary start, which checks the entry point's size,
// and the verifying start, which proves the whole tree first because an aged
// start marker with one unconfirmed attempt is laid down before it, as a crash
// of the last start would have left it. The clock stops at the launcher's
// first line of main, read from its log, a FIFO. Both sides run warm.

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "client/app/launcher_attempts.hpp"
#include "client/app/launcher_bootstrap.hpp"
#include "client/platform/files.hpp"
#include "client/platform/unique_fd.hpp"
#include "tests/support/sample_launcher.hpp"

extern char** environ;

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;
using Variables = std::map<std::string, std::string>;

double seconds_since(Clock::time_point begin) { return std::chrono::duration<double>(Clock::now() - begin).count(); }

// This process's environment with `overrides` in place of their namesakes.
std::vector<std::string> environment(const Variables& overrides) {
  std::vector<std::string> entries;
  for (char** entry = environ; *entry != nullptr; ++entry) {
    const std::string text = *entry;
    if (!overrides.contains(text.substr(0, text.find('=')))) entries.push_back(text);
  }
  for (const auto& [name, value] : overrides) entries.push_back(name + "=" + value);
  return entries;
}

std::vector<char*> pointers(const std::vector<std::string>& texts) {
  std::vector<char*> result;
  for (const std::string& text : texts) result.push_back(const_cast<char*>(text.c_str()));
  result.push_back(nullptr);
  return result;
}

// Starts `argv` in `directory`, its standard output discarded, and returns its pid.
pid_t spawn(const std::vector<std::string>& argv, const std::vector<std::string>& env, const fs::path& directory) {
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
  posix_spawn_file_actions_addchdir_np(&actions, directory.c_str());
  pid_t pid = -1;
  const int result =
      ::posix_spawn(&pid, argv[0].c_str(), &actions, nullptr, pointers(argv).data(), pointers(env).data());
  posix_spawn_file_actions_destroy(&actions);
  if (result != 0) throw std::runtime_error("cannot start " + argv[0]);
  return pid;
}

void reap(pid_t pid, const std::string& what) {
  int status = 0;
  while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) continue;
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) throw std::runtime_error(what + " failed");
}

// The installation, its active version, the checksum list of its tree, and
// the launcher's log FIFO, made once for the whole run.
struct Setup {
  Setup() {
    install.seed(release);
    const zorvi::testing::CommandResult first = install.start();  // the candidate's trial makes it active
    if (first.status != 0 || install.slots() != "1.0.0 - - -") throw std::runtime_error("first start: " + first.err);
    const zorvi::LauncherManifest manifest = install.store.manifest(release.reference);
    const auto& files = manifest.snapshot.files;
    if (files.size() < 500) throw std::runtime_error("the launcher tree lacks its padding");
    std::ofstream list(checksums);
    for (const auto& [name, file] : files) list << file.sha256 << "  " << (payload / name).string() << '\n';
    if (::mkfifo(log.c_str(), 0600) != 0) throw std::runtime_error("mkfifo failed");
  }

  zorvi::testing::TempDir work;
  zorvi::testing::SampleRelease release{work.path(), "1.0.0", 500, 50'000'000};
  zorvi::testing::BootstrapInstall install;
  fs::path payload = install.store.payload(release.reference);
  fs::path checksums = work / "tree.sha256", log = work / "launcher.fifo";
  std::vector<std::string> bootstrap{install.bootstrap.string(), "--data-dir", install.root.string(), "--gui"};
  std::vector<std::string> launcher{(payload / "bin/zorvi-gui").string(), "--data-dir", install.root.string()};
  std::vector<std::string> bootstrap_env = environment({{"ZORVI_SAMPLE_LAUNCHER_LOG", log.string()}});
  std::vector<std::string> launcher_env = environment([this] {
    // What the bootstrap's process replacement hands on: the startup variables cleared.
    Variables variables{{"ZORVI_SAMPLE_LAUNCHER_LOG", log.string()}};
    for (std::string_view name : zorvi::launcher_startup_variables) variables.emplace(name, "");
    return variables;
  }());
};

Setup& setup() {
  static Setup instance;
  return instance;
}

// Runs one start, begun at `begin`, and gives the seconds from `begin` to the
// launcher's first line; the process is reaped outside the timing.
double start(const std::vector<std::string>& argv, const std::vector<std::string>& env, Clock::time_point begin) {
  const zorvi::UniqueFd fifo(::open(setup().log.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  if (!fifo) throw std::runtime_error("cannot open the launcher log");
  const pid_t pid = spawn(argv, env, setup().payload);
  std::string line;
  while (line.find('\n') == std::string::npos) {
    pollfd wait{fifo.get(), POLLIN, 0};
    char buffer[512];
    if (::poll(&wait, 1, 60000) != 1) throw std::runtime_error("no launcher line from " + argv[0]);
    const ssize_t count = ::read(fifo.get(), buffer, sizeof buffer);
    if (count == 0) throw std::runtime_error("launcher log closed without a line from " + argv[0]);
    if (count > 0) line.append(buffer, static_cast<std::size_t>(count));
  }
  const double seconds = seconds_since(begin);
  reap(pid, argv[0]);
  return seconds;
}

// Leaves the marker of a windowed start of the active version that went
// unconfirmed a minute ago, so the next start proves the whole tree first.
void age_start_marker() {
  const zorvi::json marker{{"manifest_sha256", setup().release.reference["manifest_sha256"]},
                           {"started_at", std::time(nullptr) - 60},
                           {"attempts", 1}};
  zorvi::replace_private_file(zorvi::start_marker_path(setup().install.root), marker.dump());
}

struct Round {
  double own, checksum, reference;
};

Round round(bool verifying) {
  Setup& s = setup();
  if (verifying) age_start_marker();
  const double own = start(s.bootstrap, s.bootstrap_env, Clock::now());
  // A launcher that started well has taken the marker away again.
  if (fs::exists(zorvi::start_marker_path(s.install.root))) throw std::runtime_error("start unconfirmed");
  const auto begin = Clock::now();
  reap(spawn({"/usr/bin/sha256sum", "--check", "--status", s.checksums.string()}, s.launcher_env, s.payload),
       "sha256sum");
  const double checksum = seconds_since(begin);
  return {own, checksum, start(s.launcher, s.launcher_env, begin)};
}

void compare(benchmark::State& state, bool verifying) {
  round(verifying);  // warms both sides
  Round total{0, 0, 0};
  for (auto _ : state) {
    const Round one = round(verifying);
    state.SetIterationTime(one.own);
    total = {total.own + one.own, total.checksum + one.checksum, total.reference + one.reference};
  }
  const double per_start = 1e3 / static_cast<double>(state.iterations());
  state.counters["start_ms"] = total.own * per_start;
  state.counters["reference_ms"] = total.reference * per_start;
  state.counters["sha256sum_ms"] = total.checksum * per_start;
  state.counters["direct_exec_ms"] = (total.reference - total.checksum) * per_start;
  state.counters["ratio_to_reference"] = total.own / total.reference;
}

void BM_OrdinaryStart(benchmark::State& state) { compare(state, false); }
void BM_VerifyingStart(benchmark::State& state) { compare(state, true); }
BENCHMARK(BM_OrdinaryStart)->Iterations(20)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_VerifyingStart)->Iterations(20)->UseManualTime()->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
