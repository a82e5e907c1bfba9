#include "labelmgr/tree_progress.h"

#include <unistd.h>

#include <chrono>
#include <cstdio>

namespace zorv::labelmgr {
namespace {

constexpr auto kInterval = std::chrono::milliseconds(250);

void writeAll(const std::string& text) {
  size_t written = 0;
  while (written < text.size()) {
    ssize_t n = ::write(STDERR_FILENO, text.data() + written, text.size() - written);
    if (n <= 0) return;
    written += static_cast<size_t>(n);
  }
}

}  // namespace

TreeProgress::TreeProgress(const std::atomic<uint64_t>& done, std::string verb,
                           std::function<std::string()> where)
    : done_(done), verb_(std::move(verb)), where_(std::move(where)) {
  thread_ = std::thread([this] { loop(); });
}

TreeProgress::~TreeProgress() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stop_ = true;
  }
  wake_.notify_all();
  thread_.join();
  writeAll("\r\033[K");
}

void TreeProgress::loop() {
  auto start = std::chrono::steady_clock::now();
  std::unique_lock<std::mutex> lock(mutex_);
  do {
    double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    uint64_t done = done_.load();
    std::string where = where_();
    char line[512];
    std::snprintf(line, sizeof line, "\r%llu files %s, %.0f files/s, %s\033[K",
                  static_cast<unsigned long long>(done), verb_.c_str(),
                  seconds > 0 ? done / seconds : 0.0, where.c_str());
    writeAll(line);
  } while (!wake_.wait_for(lock, kInterval, [this] { return stop_; }));
}

}  // namespace zorv::labelmgr
