#include "tests/fault/fault_scene.h"

#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <stdexcept>
#include <thread>

namespace fs = std::filesystem;

namespace zorv_testing {
namespace {

constexpr char kAttribute[] = "security.zorv";

std::string hex(const unsigned char* bytes, size_t size) {
  static const char digits[] = "0123456789abcdef";
  std::string text;
  for (size_t i = 0; i < size; ++i) {
    text += digits[bytes[i] >> 4];
    text += digits[bytes[i] & 15];
  }
  return text;
}

std::string labelHex(const std::string& path) {
  unsigned char value[512];
  const ssize_t size = lgetxattr(path.c_str(), kAttribute, value, sizeof value);
  if (size < 0) return errno == ENODATA ? "-" : "unreadable";
  return hex(value, static_cast<size_t>(size));
}

// Copies `from` to `to` (which must not exist) with modes, links and labels.
void copyTree(const std::string& from, const std::string& to) {
  fs::copy(from, to, fs::copy_options::recursive | fs::copy_options::copy_symlinks);
  auto copyLabel = [](const fs::path& source, const fs::path& target) {
    char value[512];
    const ssize_t size = lgetxattr(source.c_str(), kAttribute, value, sizeof value);
    if (size >= 0 && lsetxattr(target.c_str(), kAttribute, value, size, 0) != 0)
      throw std::runtime_error("cannot copy the label of " + source.string());
  };
  copyLabel(from, to);
  if (!fs::is_directory(fs::symlink_status(from))) return;
  for (const auto& entry : fs::recursive_directory_iterator(from)) {
    const fs::path target = to / fs::relative(entry.path(), from);
    copyLabel(entry.path(), target);
    if (!entry.is_symlink()) fs::permissions(target, entry.symlink_status().permissions());
  }
}

std::string canonical(const std::string& path) {
  char resolved[PATH_MAX];
  return realpath(path.c_str(), resolved) != nullptr ? resolved : path;
}

}  // namespace

RunResult runProgram(const std::vector<std::string>& argv, double timeoutSeconds) {
  return runChild(argv[0], argv, currentEnvironment(), timeoutSeconds);
}

std::string firstDifference(const SceneState& got, const SceneState& want) {
  for (const auto& [path, label] : want.labels) {
    auto it = got.labels.find(path);
    const std::string have = it == got.labels.end() ? "(missing)" : it->second;
    if (have != label) return path + ": " + have + " instead of " + label;
  }
  if (got.lists != want.lists) return "user-set lists:\n" + got.lists + "instead of\n" + want.lists;
  return "";
}

FaultScene::FaultScene()
    : tmpdirEnv_("TMPDIR", access("/dev/shm", W_OK) == 0 ? std::optional<std::string>("/dev/shm")
                           : getenv("TMPDIR") != nullptr
                               ? std::optional<std::string>(getenv("TMPDIR"))
                               : std::nullopt),
      base_(canonical(tmp_.path())),
      root_(base_ + "/root"),
      dpkg_(base_ + "/dpkg"),
      state_(base_ + "/state"),
      start_(base_ + "/start") {
  // Ten files in each of five directories, four at the top, one link; the
  // tools are executable. alpha owns six tools and three documents, beta
  // (with an architecture) five configuration files, gamma left only its
  // configuration behind.
  const char* dirs[] = {"bin", "etc", "share/doc", "lib/sub", "var"};
  const char* stems[] = {"tool", "c", "d", "l", "v"};
  for (int d = 0; d < 5; ++d)
    for (int i = 0; i < 10; ++i) {
      const std::string path = root_ + "/" + dirs[d] + "/" + stems[d] + std::to_string(i);
      writeTextFile(path, "content " + std::to_string(d * 10 + i) + "\n");
      chmod(path.c_str(), d == 0 ? 0755 : 0644);
    }
  for (int i = 0; i < 4; ++i) writeTextFile(root_ + "/top" + std::to_string(i), "top\n");
  symlink("bin/tool0", (root_ + "/link").c_str());
  std::string alpha, beta;
  for (int i = 0; i < 6; ++i) alpha += root_ + "/bin/tool" + std::to_string(i) + "\n";
  for (int i = 0; i < 3; ++i) alpha += root_ + "/share/doc/d" + std::to_string(i) + "\n";
  for (int i = 0; i < 5; ++i) beta += root_ + "/etc/c" + std::to_string(i) + "\n";
  writeTextFile(dpkg_ + "/status",
                "Package: alpha\nStatus: install ok installed\nVersion: 1\n\n"
                "Package: gamma\nStatus: deinstall ok config-files\n\n"
                "Package: beta\nArchitecture: amd64\nStatus: install ok installed\n");
  writeTextFile(dpkg_ + "/info/alpha.list", "/.\n" + root_ + "/bin\n" + alpha);
  writeTextFile(dpkg_ + "/info/beta:amd64.list", "/.\n" + root_ + "/etc\n" + beta);
  writeTextFile(dpkg_ + "/info/gamma.list", root_ + "/etc/c9\n");
  makeDirs(state_);
  env_.push_back(std::make_unique<ScopedEnv>("ZORV_LABELMGR_STATE_DIR", state_));
  env_.push_back(std::make_unique<ScopedEnv>("ZORV_LABELMGR_DPKG_DIR", dpkg_));
  // strace counts the Nth call per thread: one worker meets one fault.
  env_.push_back(std::make_unique<ScopedEnv>("ZORV_LABELMGR_WORKERS", "1"));
  env_.push_back(std::make_unique<ScopedEnv>("LD_LIBRARY_PATH", std::nullopt));
  keepAsStart();
}

FaultScene::~FaultScene() { stopListener(); }

std::vector<std::string> FaultScene::toolArgv(const std::vector<std::string>& args) const {
  std::vector<std::string> argv{ZORV_TOOL_PATH};
  argv.insert(argv.end(), args.begin(), args.end());
  return argv;
}

RunResult FaultScene::tool(const std::vector<std::string>& args) const {
  return runProgram(toolArgv(args));
}

void FaultScene::keepAsStart() {
  fs::remove_all(start_);
  makeDirs(start_ + "/state");
  copyTree(root_, start_ + "/root");
  copyTree(dpkg_, start_ + "/dpkg");
  for (const auto& entry : fs::directory_iterator(state_))
    if (entry.path().filename() != "listeners")
      copyTree(entry.path(), start_ + "/state/" + entry.path().filename().string());
}

void FaultScene::reset() const {
  fs::remove_all(root_);
  fs::remove_all(dpkg_);
  copyTree(start_ + "/root", root_);
  copyTree(start_ + "/dpkg", dpkg_);
  for (const auto& entry : fs::directory_iterator(state_))
    if (entry.path().filename() != "listeners") fs::remove_all(entry.path());
  for (const auto& entry : fs::directory_iterator(start_ + "/state"))
    copyTree(entry.path(), state_ + "/" + entry.path().filename().string());
}

std::map<std::string, std::string> FaultScene::labels() const {
  std::map<std::string, std::string> labels{{".", labelHex(root_)}};
  for (const auto& entry : fs::recursive_directory_iterator(root_))
    labels[fs::relative(entry.path(), root_).string()] = labelHex(entry.path());
  return labels;
}

SceneState FaultScene::state() const {
  SceneState state{labels(), ""};
  for (const char* field : {"-o", "-m", "-t", "-n", "-p"}) {
    const RunResult r = tool({"-g", "-u", field, "--all"});
    state.lists += std::string(field) + " (" + std::to_string(r.status) + "):\n" + r.out;
  }
  return state;
}

void FaultScene::startListener() {
  const std::vector<std::string> argvTexts = toolArgv({"-S"});
  std::vector<char*> argv;
  for (const std::string& t : argvTexts) argv.push_back(const_cast<char*>(t.c_str()));
  argv.push_back(nullptr);
  listener_ = fork();
  if (listener_ < 0) throw std::runtime_error("fork failed");
  if (listener_ == 0) {
    const int null = open("/dev/null", O_RDWR);
    if (null < 0 || dup2(null, 0) < 0 || dup2(null, 1) < 0 || dup2(null, 2) < 0) _exit(126);
    execv(argv[0], argv.data());
    _exit(127);
  }
  const std::string dir = state_ + "/listeners";
  for (int waited = 0; waited < 5000; waited += 2) {
    std::error_code ignored;
    for (const auto& entry : fs::directory_iterator(dir, ignored))
      if (entry.path().extension() == ".ipc") return;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  throw std::runtime_error("the listener did not start");
}

void FaultScene::stopListener() {
  if (listener_ <= 0) return;
  kill(listener_, SIGKILL);
  waitpid(listener_, nullptr, 0);
  listener_ = -1;
}

}  // namespace zorv_testing
