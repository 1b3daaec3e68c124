#include "init/rd_config.h"

RdConfig& rd_config() {
  static RdConfig config;
  return config;
}

RdIdentity& rd_identity() {
  static RdIdentity identity;
  return identity;
}
