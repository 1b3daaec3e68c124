// The device registry: one SQLite file holding the registered devices and a
// queue of pending next actions per device. One Registry owns one connection
// and serialises its use with a mutex, so handler threads may share it; other
// processes (the add-device and queue commands) may use the same file at once.
#ifndef VEXO_TOOLS_MGMT_SERVER_REGISTRY_H
#define VEXO_TOOLS_MGMT_SERVER_REGISTRY_H

#include <sqlite3.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "platform/mutex.h"

namespace mgmt {

struct Device {
  std::string serial;
  std::string host_id;             // empty until set by add-device or the first register
  std::string model;               // likewise
  std::string dc;                  // device code of the last key rotation; empty before it
  std::string cert_der;            // the certificate issued at the last key rotation
  std::int64_t rotated_at = 0;     // server time (Unix seconds) of the last key rotation
  std::vector<std::string> queue;  // pending next actions, head first
};

struct SqliteClose {
  void operator()(sqlite3* db) const { sqlite3_close(db); }
};

class Registry {
 public:
  Registry() = default;
  Registry(const Registry&) = delete;
  Registry& operator=(const Registry&) = delete;

  // Opens (creating when needed) the registry file. 0, or -1 with *error set.
  int open(const std::string& path, std::string* error);

  // Adds a device, or updates model/host id of a known one (empty values keep
  // the stored ones). 0 or -1.
  int add_device(const std::string& serial, const std::string& model, const std::string& host_id);
  // Loads a device with its queue. 1 found, 0 unknown, -1 failure.
  int find(const std::string& serial, Device* out);
  // Fills host id and model where they are still empty. 0 or -1.
  int learn_identity(const std::string& serial, const std::string& host_id, const std::string& model);
  // Appends an action to the device's queue. 0, -1 failure, -2 unknown serial.
  int enqueue(const std::string& serial, const std::string& action);
  // Removes and returns the head of the queue. 1 popped, 0 empty, -1 failure.
  int pop(const std::string& serial, std::string* action);
  // Stores the result of a key rotation. 0 or -1.
  int store_rotation(const std::string& serial, const std::string& dc, const std::string& cert_der, std::int64_t when);
  // Every device, ordered by serial. 0 or -1.
  int list(std::vector<Device>* out);

 private:
  int exec(const char* sql) REQUIRES(mutex_);
  platform::Mutex mutex_;
  std::unique_ptr<sqlite3, SqliteClose> db_ GUARDED_BY(mutex_);
};

}  // namespace mgmt

#endif  // VEXO_TOOLS_MGMT_SERVER_REGISTRY_H
