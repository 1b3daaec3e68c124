#include "registry.h"

namespace mgmt {

namespace {

struct StmtFinalize {
  void operator()(sqlite3_stmt* s) const { sqlite3_finalize(s); }
};
using Stmt = std::unique_ptr<sqlite3_stmt, StmtFinalize>;

constexpr const char* kSchema =
    "CREATE TABLE IF NOT EXISTS devices("
    " serial TEXT PRIMARY KEY,"
    " host_id TEXT NOT NULL DEFAULT '',"
    " model TEXT NOT NULL DEFAULT '',"
    " dc TEXT NOT NULL DEFAULT '',"
    " cert BLOB,"
    " rotated_at INTEGER NOT NULL DEFAULT 0);"
    "CREATE TABLE IF NOT EXISTS actions("
    " id INTEGER PRIMARY KEY AUTOINCREMENT,"
    " serial TEXT NOT NULL REFERENCES devices(serial) ON DELETE CASCADE,"
    " action TEXT NOT NULL);";

Stmt prepare(sqlite3* db, const char* sql) {
  sqlite3_stmt* s = nullptr;
  if (sqlite3_prepare_v2(db, sql, -1, &s, nullptr) != SQLITE_OK) return nullptr;
  return Stmt(s);
}

bool bind_text(sqlite3_stmt* s, int i, const std::string& v) {
  return sqlite3_bind_text(s, i, v.data(), static_cast<int>(v.size()), SQLITE_TRANSIENT) == SQLITE_OK;
}

std::string column_text(sqlite3_stmt* s, int i) {
  const unsigned char* p = sqlite3_column_text(s, i);
  return p == nullptr
             ? std::string()
             : std::string(reinterpret_cast<const char*>(p), static_cast<std::size_t>(sqlite3_column_bytes(s, i)));
}

std::string column_blob(sqlite3_stmt* s, int i) {
  const void* p = sqlite3_column_blob(s, i);
  return p == nullptr ? std::string()
                      : std::string(static_cast<const char*>(p), static_cast<std::size_t>(sqlite3_column_bytes(s, i)));
}

}  // namespace

int Registry::exec(const char* sql) {
  return sqlite3_exec(db_.get(), sql, nullptr, nullptr, nullptr) == SQLITE_OK ? 0 : -1;
}

int Registry::open(const std::string& path, std::string* error) {
  platform::MutexLock lock(&mutex_);
  sqlite3* raw = nullptr;
  int rc = sqlite3_open_v2(path.c_str(), &raw, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr);
  db_.reset(raw);
  if (rc != SQLITE_OK) {
    *error = raw != nullptr ? sqlite3_errmsg(raw) : "out of memory";
    db_.reset();
    return -1;
  }
  // A command-line change made while the server runs waits for the lock
  // instead of failing at once.
  sqlite3_busy_timeout(db_.get(), 5000);
  if (exec("PRAGMA foreign_keys = ON;") != 0 || exec(kSchema) != 0) {
    *error = sqlite3_errmsg(db_.get());
    db_.reset();
    return -1;
  }
  return 0;
}

int Registry::add_device(const std::string& serial, const std::string& model, const std::string& host_id) {
  platform::MutexLock lock(&mutex_);
  Stmt s = prepare(db_.get(),
                   "INSERT INTO devices(serial, model, host_id) VALUES(?1, ?2, ?3) "
                   "ON CONFLICT(serial) DO UPDATE SET "
                   " model = CASE WHEN ?2 = '' THEN model ELSE ?2 END,"
                   " host_id = CASE WHEN ?3 = '' THEN host_id ELSE ?3 END;");
  if (!s || !bind_text(s.get(), 1, serial) || !bind_text(s.get(), 2, model) || !bind_text(s.get(), 3, host_id))
    return -1;
  return sqlite3_step(s.get()) == SQLITE_DONE ? 0 : -1;
}

int Registry::find(const std::string& serial, Device* out) {
  platform::MutexLock lock(&mutex_);
  *out = Device();
  Stmt s = prepare(db_.get(),
                   "SELECT serial, host_id, model, dc, cert, rotated_at FROM devices "
                   "WHERE serial = ?1;");
  if (!s || !bind_text(s.get(), 1, serial)) return -1;
  int rc = sqlite3_step(s.get());
  if (rc == SQLITE_DONE) return 0;
  if (rc != SQLITE_ROW) return -1;
  out->serial = column_text(s.get(), 0);
  out->host_id = column_text(s.get(), 1);
  out->model = column_text(s.get(), 2);
  out->dc = column_text(s.get(), 3);
  out->cert_der = column_blob(s.get(), 4);
  out->rotated_at = sqlite3_column_int64(s.get(), 5);
  Stmt q = prepare(db_.get(), "SELECT action FROM actions WHERE serial = ?1 ORDER BY id;");
  if (!q || !bind_text(q.get(), 1, serial)) return -1;
  while ((rc = sqlite3_step(q.get())) == SQLITE_ROW) out->queue.push_back(column_text(q.get(), 0));
  return rc == SQLITE_DONE ? 1 : -1;
}

int Registry::learn_identity(const std::string& serial, const std::string& host_id, const std::string& model) {
  platform::MutexLock lock(&mutex_);
  Stmt s = prepare(db_.get(),
                   "UPDATE devices SET"
                   " host_id = CASE WHEN host_id = '' THEN ?2 ELSE host_id END,"
                   " model = CASE WHEN model = '' THEN ?3 ELSE model END "
                   "WHERE serial = ?1;");
  if (!s || !bind_text(s.get(), 1, serial) || !bind_text(s.get(), 2, host_id) || !bind_text(s.get(), 3, model))
    return -1;
  return sqlite3_step(s.get()) == SQLITE_DONE ? 0 : -1;
}

int Registry::enqueue(const std::string& serial, const std::string& action) {
  platform::MutexLock lock(&mutex_);
  Stmt s = prepare(db_.get(),
                   "INSERT INTO actions(serial, action) "
                   "SELECT serial, ?2 FROM devices WHERE serial = ?1;");
  if (!s || !bind_text(s.get(), 1, serial) || !bind_text(s.get(), 2, action)) return -1;
  if (sqlite3_step(s.get()) != SQLITE_DONE) return -1;
  return sqlite3_changes(db_.get()) == 1 ? 0 : -2;
}

int Registry::pop(const std::string& serial, std::string* action) {
  platform::MutexLock lock(&mutex_);
  action->clear();
  // DELETE ... RETURNING takes the head in one statement, so two processes
  // sharing the file never hand out the same entry twice.
  Stmt s = prepare(db_.get(),
                   "DELETE FROM actions WHERE id = "
                   "(SELECT MIN(id) FROM actions WHERE serial = ?1) RETURNING action;");
  if (!s || !bind_text(s.get(), 1, serial)) return -1;
  int rc = sqlite3_step(s.get());
  if (rc == SQLITE_ROW) {
    *action = column_text(s.get(), 0);
    return sqlite3_step(s.get()) == SQLITE_DONE ? 1 : -1;
  }
  return rc == SQLITE_DONE ? 0 : -1;
}

int Registry::store_rotation(const std::string& serial, const std::string& dc, const std::string& cert_der,
                             std::int64_t when) {
  platform::MutexLock lock(&mutex_);
  Stmt s = prepare(db_.get(), "UPDATE devices SET dc = ?2, cert = ?3, rotated_at = ?4 WHERE serial = ?1;");
  if (!s || !bind_text(s.get(), 1, serial) || !bind_text(s.get(), 2, dc) ||
      sqlite3_bind_blob(s.get(), 3, cert_der.data(), static_cast<int>(cert_der.size()), SQLITE_TRANSIENT) !=
          SQLITE_OK ||
      sqlite3_bind_int64(s.get(), 4, when) != SQLITE_OK)
    return -1;
  if (sqlite3_step(s.get()) != SQLITE_DONE) return -1;
  return sqlite3_changes(db_.get()) == 1 ? 0 : -1;
}

int Registry::list(std::vector<Device>* out) {
  out->clear();
  std::vector<std::string> serials;
  {
    platform::MutexLock lock(&mutex_);
    Stmt s = prepare(db_.get(), "SELECT serial FROM devices ORDER BY serial;");
    if (!s) return -1;
    int rc;
    while ((rc = sqlite3_step(s.get())) == SQLITE_ROW) serials.push_back(column_text(s.get(), 0));
    if (rc != SQLITE_DONE) return -1;
  }
  for (const auto& serial : serials) {
    Device d;
    if (find(serial, &d) == 1) out->push_back(std::move(d));
  }
  return 0;
}

}  // namespace mgmt
