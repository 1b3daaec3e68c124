#include "mgmt_core/download.h"

#include <algorithm>
#include <atomic>
#include <cctype>
#include <thread>

#include "common/rd_codes.h"
#include "common/rd_log.h"
#include "common/hash.h"
#include "platform/platform.h"

namespace {

// Set while a download holds the slot; package.child and dm.conf are shared.
std::atomic<bool> g_download_busy{false};

bool same_checksum(std::string a, std::string b) {
  auto lower = [](std::string& s) {
    for (char& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  };
  lower(a);
  lower(b);
  return a == b;
}

// The second check of the finished package, under the caller's name.
int verify_package(const char* caller, const std::string& checksum) {
  RD_LOG_AS(caller);
  std::string computed;
  if (MD5_Generate(kDownloadTarget, &computed) == 0 && same_checksum(computed, checksum)) {
    RD_INFO("file downloaded and check sum verified successfully");
    return rd_codes::kDownloadOk;
  }
  RD_ERROR("Downloaded file checksum is invalid");
  RD_STATUS("Downloaded file checksum is invalid");
  RD_PIPE("10000", "Downloaded file checksum is invalid\n");
  return rd_codes::kDownloadFailed;
}

}  // namespace

DownloadSlot DownloadSlot::try_take() {
  DownloadSlot slot;
  bool expected = false;
  slot.held_ = g_download_busy.compare_exchange_strong(expected, true);
  return slot;
}

DownloadSlot& DownloadSlot::operator=(DownloadSlot&& other) noexcept {
  if (this != &other) {
    if (held_) g_download_busy.store(false);
    held_ = other.held_;
    other.held_ = false;
  }
  return *this;
}

DownloadSlot::~DownloadSlot() {
  if (held_) g_download_busy.store(false);
}

bool wait_download_idle_for_test(int timeout_ms) {
  for (int waited = 0; g_download_busy.load(); waited += 10) {
    if (waited >= timeout_ms) return false;
    platform::sleep_ms(10);
  }
  return true;
}

void thread_download_software(DownloadRequest request, DownloadSlot slot) {
  RD_INFO("download_data.path     = %s", request.url.c_str());
  RD_INFO("download_data.checksum = %s", request.checksum.c_str());
  // Nothing may escape a thread body; an allocation failure ends the download.
  try {
    if (download_manager(slot, request.url, request.checksum, kDownloadTarget) != 0) {
      RD_ERROR("Error at download_manager ");
      return;
    }
    verify_package("thread_download_software", request.checksum);
  } catch (...) {
    RD_ERROR("Error at download_manager ");
  }
}

int download_software_update(const std::string& url, const std::string& checksum, bool wait) {
  DownloadSlot slot = DownloadSlot::try_take();
  if (!slot.held()) {
    RD_ERROR("Software download already in progress");
    return rd_codes::kDownloadFailed;
  }
  if (wait) {
    if (download_manager(slot, url, checksum, kDownloadTarget) != 0) {
      RD_ERROR("Error at download_manager ");
      return rd_codes::kDownloadFailed;
    }
    return verify_package("download_software_update", checksum);
  }
  // The thread gets its own copies of the request and the slot, which it
  // releases when it ends; a thread that cannot start releases it here.
  try {
    std::thread(thread_download_software, DownloadRequest{url, checksum}, std::move(slot)).detach();
  } catch (...) {
    RD_ERROR("Could not able to create download thread");
    return rd_codes::kDownloadFailed;
  }
  return rd_codes::kDownloadOk;
}
