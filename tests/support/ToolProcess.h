// The xplpm tool run as a process by the tests, as its users run it: to the end
// (run), or in the background (Background, for `serve`), with scratch files named
// by the running test so that CTest can run tests side by side.
#pragma once

#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>
#include <zlib.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>

extern char** environ;

namespace xplpm_test {

struct Result {
  int status = -1;
  std::string out, err;
};

// A scratch file of the running test.
inline std::string scratch(const std::string& name) {
  return ::testing::TempDir() + ::testing::UnitTest::GetInstance()->current_test_info()->name() + "_" + name;
}

inline std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

inline std::string writeFile(const std::string& name, const std::string& text) {
  const std::string path = scratch(name);
  std::ofstream(path, std::ios::binary) << text;
  return path;
}

// Runs `env ENV xplpm ARGS`; standard error goes to a file that is read back.
inline Result run(const std::string& args, const std::string& env = "") {
  const std::string errFile = scratch("stderr.txt");
  const std::string cmd = "env " + env + " " + std::string(XPLPM_TOOL) + " " + args + " 2>" + errFile;
  Result r;
  FILE* p = popen(cmd.c_str(), "r");
  if (!p) return r;
  char buf[4096];
  for (std::size_t n; (n = fread(buf, 1, sizeof buf, p)) > 0;) r.out.append(buf, n);
  const int st = pclose(p);
  r.status = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
  r.err = readFile(errFile);
  return r;
}

inline nlohmann::json jsonOf(const Result& r) {
  EXPECT_EQ(r.out.empty() ? '?' : r.out[0], '{') << r.err;
  return nlohmann::json::parse(r.out, nullptr, false);
}

// The first `n` routes of a shipped table, as route lines.
inline std::string realLines(int n, const char* table = "routes-v4.txt.gz") {
  gzFile f = gzopen((std::string(XPLPM_DATA_DIR) + "/" + table).c_str(), "rb");
  std::string text;
  char line[512];
  for (int kept = 0; kept < n && gzgets(f, line, sizeof line);) {
    if (line[0] == '#') continue;
    text += line;
    ++kept;
  }
  gzclose(f);
  return text;
}

// The command line of `xplpm ARGS`.
inline std::string tool(const std::string& args) { return std::string(XPLPM_TOOL) + " " + args; }

// A command in the background (`tool(...)`, a daemon), its output in scratch files named after
// `name`; killed with the object unless stopped before.
class Background {
 public:
  Background(const std::string& command, const std::string& name)
      : out_(scratch(name + ".out")), err_(scratch(name + ".err")) {
    // An earlier run's log must not be read before the new process truncates it.
    std::remove(out_.c_str());
    std::remove(err_.c_str());
    const std::string cmd = "exec " + command + " >" + out_ + " 2>" + err_;
    const char* argv[] = {"/bin/sh", "-c", cmd.c_str(), nullptr};
    if (posix_spawn(&pid_, "/bin/sh", nullptr, nullptr, const_cast<char**>(argv), environ) != 0) pid_ = -1;
  }
  ~Background() {
    if (pid_ > 0) stop(SIGKILL);
  }
  Background(const Background&) = delete;
  Background& operator=(const Background&) = delete;

  std::string out() const { return readFile(out_); }
  std::string err() const { return readFile(err_); }
  bool running() {
    return pid_ > 0 && waitpid(pid_, &status_, WNOHANG) == 0;
  }
  // Waits until standard error holds `text`; false when it does not come in time or the process ends.
  bool waitFor(const std::string& text, double seconds = 30) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    while (std::chrono::steady_clock::now() < end) {
      if (err().find(text) != std::string::npos) return true;
      if (!running()) return err().find(text) != std::string::npos;
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return false;
  }
  // "ADDR:PORT" the server listens on, from its log.
  std::string listening() {
    if (!waitFor("listening on ")) return "";
    const std::string e = err();
    const auto at = e.find("listening on ") + 13;
    return e.substr(at, e.find('\n', at) - at);
  }
  void signal(int sig) { kill(pid_, sig); }
  // Sends `sig` and returns the exit status (-1 when killed by a signal).
  int stop(int sig = SIGTERM) {
    if (pid_ <= 0) return -1;
    if (running()) kill(pid_, sig);
    if (waitpid(pid_, &status_, 0) < 0 && errno != ECHILD) return -1;
    pid_ = -1;
    return WIFEXITED(status_) ? WEXITSTATUS(status_) : -1;
  }

 private:
  std::string out_, err_;
  pid_t pid_ = -1;
  int status_ = 0;
};

}  // namespace xplpm_test
