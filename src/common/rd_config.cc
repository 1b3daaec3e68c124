#include "common/rd_config.h"

#include <mutex>

namespace {

std::mutex g_config_mutex;
RdConfig g_config;  // guarded by g_config_mutex

std::mutex g_identity_mutex;
RdIdentity g_identity;  // guarded by g_identity_mutex

}  // namespace

RdConfig rd_config_copy() {
  std::lock_guard<std::mutex> lock(g_config_mutex);
  return g_config;
}

RdIdentity rd_identity_copy() {
  std::lock_guard<std::mutex> lock(g_identity_mutex);
  return g_identity;
}

void rd_config_update(const std::function<void(RdConfig&)>& change) {
  std::lock_guard<std::mutex> lock(g_config_mutex);
  change(g_config);
}

void rd_identity_update(const std::function<void(RdIdentity&)>& change) {
  std::lock_guard<std::mutex> lock(g_identity_mutex);
  change(g_identity);
}

std::string rd_scanner_name() {
  std::lock_guard<std::mutex> lock(g_identity_mutex);
  return g_identity.scanner_name;
}

bool rd_ssl_enabled() {
  std::lock_guard<std::mutex> lock(g_config_mutex);
  return g_config.ssl_enabled != 0;
}
