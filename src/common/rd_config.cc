#include "common/rd_config.h"
#include "platform/mutex.h"

namespace {

platform::Mutex g_config_mutex;
RdConfig g_config GUARDED_BY(g_config_mutex);

platform::Mutex g_identity_mutex;
RdIdentity g_identity GUARDED_BY(g_identity_mutex);

}  // namespace

RdConfig rd_config_copy() {
  platform::MutexLock lock(&g_config_mutex);
  return g_config;
}

RdIdentity rd_identity_copy() {
  platform::MutexLock lock(&g_identity_mutex);
  return g_identity;
}

void rd_config_update(const std::function<void(RdConfig&)>& change) {
  platform::MutexLock lock(&g_config_mutex);
  change(g_config);
}

void rd_identity_update(const std::function<void(RdIdentity&)>& change) {
  platform::MutexLock lock(&g_identity_mutex);
  change(g_identity);
}

std::string rd_scanner_name() {
  platform::MutexLock lock(&g_identity_mutex);
  return g_identity.scanner_name;
}

bool rd_ssl_enabled() {
  platform::MutexLock lock(&g_config_mutex);
  return g_config.ssl_enabled != 0;
}
