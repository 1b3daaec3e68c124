#include "mgmt_loop.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>

#include "mgmt_plan.h"
#include "platform/mutex.h"
#include "vexo.h"

namespace host {

namespace {

constexpr const char* kResumeRecord = "dm.conf";
constexpr const char* kPackage = "DownloadSW/Installer.zip";
constexpr auto kWatchInterval = std::chrono::milliseconds(100);

__attribute__((format(printf, 1, 2))) void say(const char* format, ...) {
  char line[1024];
  va_list args;
  va_start(args, format);
  std::vsnprintf(line, sizeof line, format, args);
  va_end(args);
  // One call per line: the pipe reader and the signal loop print too.
  std::printf("mgmt: %s\n", line);
  std::fflush(stdout);
}

std::string read_text(const char* path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

std::string duration_text(long long ms) {
  std::string text = std::to_string(ms % 1000 == 0 ? ms / 1000 : ms);
  text += ms % 1000 == 0 ? " s" : " ms";
  return text;
}

std::string package_path() {
  std::error_code ec;
  const std::filesystem::path cwd = std::filesystem::current_path(ec);
  return (ec ? std::filesystem::path(".") : cwd).generic_string() + "/" + kPackage;
}

// Prints the download's progress while Software_Update blocks: the resume
// record is rewritten after every chunk. A record left by an earlier download
// is not progress, so only a change is printed.
class DownloadWatcher {
 public:
  DownloadWatcher() : thread_([this] { watch(); }) {}
  ~DownloadWatcher() {
    stop_ = true;
    thread_.join();
  }
  DownloadWatcher(const DownloadWatcher&) = delete;
  DownloadWatcher& operator=(const DownloadWatcher&) = delete;

 private:
  void watch() {
    std::string seen = read_text(kResumeRecord);
    for (;;) {
      const bool last_look = stop_.load();
      const std::string record = read_text(kResumeRecord);
      int percent = 0;
      if (record != seen && download_percent(record, &percent)) say("download %d%%", percent);
      seen = record;
      if (last_look) return;
      std::this_thread::sleep_for(kWatchInterval);
    }
  }

  std::atomic<bool> stop_{false};
  std::thread thread_;
};

}  // namespace

struct MgmtLoopState {
  platform::Mutex mutex;
  platform::CondVar wake;
  bool stop GUARDED_BY(mutex) = false;
  bool init_requested GUARDED_BY(mutex) = false;
};

namespace {

class Runner {
 public:
  Runner(const MgmtExports& x, const MgmtOptions& o, std::shared_ptr<MgmtLoopState> shared)
      : x_(x), schedule_(o.retry_base_ms > 0 ? o.retry_base_ms : kRetryBaseMs, o.poll_ms), shared_(std::move(shared)) {}

  void run() {
    Schedule::Next next = schedule_.first();
    for (;;) {
      announce(next);
      if (!wait(&next)) return;
      schedule_.started(next.call, now_ms());
      std::string action;
      const int rc = call(next.call, &action);
      next = schedule_.after(next.call, rc, action, now_ms());
    }
  }

 private:
  static long long now_ms() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
  }

  static void announce(const Schedule::Next& next) {
    if (next.when == When::kAtPoll) {
      say("next %s in %s", call_name(next.call), duration_text(next.wait_ms).c_str());
    } else if (next.wait_ms > 0) {
      say("%s in %s", call_name(next.call), duration_text(next.wait_ms).c_str());
    }
  }

  // Waits until next is due; false when stopped. A changed scanner replaces
  // it with Init at once.
  bool wait(Schedule::Next* next) {
    platform::MutexLock lock(&shared_->mutex);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(std::max(next->wait_ms, 0LL));
    while (!shared_->stop && !shared_->init_requested) {
      if (!shared_->wake.WaitUntil(&shared_->mutex, deadline)) break;
    }
    if (shared_->stop) return false;
    if (shared_->init_requested) {
      shared_->init_requested = false;
      *next = schedule_.request_init();
      say("a different scanner was attached: Init now");
    }
    return true;
  }

  // Makes one call and prints it. Its result; *action the next action it left.
  int call(Call what, std::string* action_out) {
    char action[VEXO_NEXT_ACTION_LEN] = {};
    char status_before[VEXO_STATUS_LEN] = {};
    x_.Get_Last_RDservice_Status(status_before);
    int rc = 0;
    switch (what) {
      case Call::kInit:
        rc = x_.Init(action);
        break;
      case Call::kKeyRotation:
        rc = x_.Key_Rotation(action, "KEY_ROTATION");
        break;
      case Call::kUidaiCertUpdate:
        rc = x_.uidai_cert_update(action);
        break;
      case Call::kUidaiCertForceUpdate:
        rc = x_.uidai_cert_force_update(action);
        break;
      case Call::kSoftwareUpdate: {
        DownloadWatcher watcher;
        rc = x_.Software_Update();
        break;
      }
    }
    if (what == Call::kSoftwareUpdate) {
      say("%s -> %d", call_name(what), rc);
    } else {
      say("%s -> %d, next action %s", call_name(what), rc, action[0] != '\0' ? action : "(none)");
    }
    // A failure's reason, unless the call left none of its own.
    char status[VEXO_STATUS_LEN] = {};
    x_.Get_Last_RDservice_Status(status);
    if (rc != 0 && std::strcmp(status, status_before) != 0) say("last status: %s", status);
    if (what == Call::kSoftwareUpdate && rc == 0) {
      say("the new package is %s; install it to update the service", package_path().c_str());
    }
    const std::string remark = action_remark(action);
    if (!remark.empty()) say("%s", remark.c_str());
    *action_out = action;
    return rc;
  }

  const MgmtExports x_;
  Schedule schedule_;
  std::shared_ptr<MgmtLoopState> shared_;
};

}  // namespace

MgmtLoop::MgmtLoop(const MgmtExports& exports, const MgmtOptions& options)
    : shared_(std::make_shared<MgmtLoopState>()) {
  // Detached: a Management call may outlast the host's wish to stop, and the
  // loop keeps its shared state alive itself.
  std::thread([runner = Runner(exports, options, shared_)]() mutable { runner.run(); }).detach();
}

MgmtLoop::~MgmtLoop() { stop(); }

void MgmtLoop::request_init() {
  {
    platform::MutexLock lock(&shared_->mutex);
    shared_->init_requested = true;
  }
  shared_->wake.SignalAll();
}

void MgmtLoop::stop() {
  {
    platform::MutexLock lock(&shared_->mutex);
    shared_->stop = true;
  }
  shared_->wake.SignalAll();
}

}  // namespace host
