#include "common/rd_log.h"

#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "common/rd_codes.h"
#include "common/file_ptr.h"
#include "platform/mutex.h"
#include "platform/platform.h"

using rd_codes::kFailed;

namespace {

constexpr long kIstOffsetSeconds = 19800;
constexpr std::size_t kLastStatusSize = 2048;
constexpr int kDefaultLogLimitKb = 2048;

FILE* g_log_stream GUARDED_BY(g_log_mutex) = nullptr;
platform::Mutex g_status_mutex;
char g_last_status[kLastStatusSize] GUARDED_BY(g_status_mutex) = {};
std::atomic<int> g_verbose{0};
std::atomic<int> g_log_limit_kb{kDefaultLogLimitKb};
std::atomic<int> g_pipe_fd{-1};

constexpr char kLogPath[] = "./rd.log";
constexpr char kOldLogPath[] = "./rd1.log";

// Writes one complete line to the open log.
void emit_line_locked(LogLevel level, const char* file, const char* func, unsigned line, const char* fmt, va_list args)
    REQUIRES(g_log_mutex) {
  if (g_log_stream == nullptr) return;
  log_timestamp();
  std::fprintf(g_log_stream, level == LogLevel::kInfo ? "INFO   (%s:%s:%u) - " : "ERROR  (%s:%s:%u) - ",
               source_base_name(file).c_str(), func, line);
  std::vfprintf(g_log_stream, fmt, args);
  std::fputc('\n', g_log_stream);
  std::fflush(g_log_stream);
}

void emit_locked(LogLevel level, const char* file, const char* func, unsigned line, const char* fmt, ...)
    VEXO_PRINTF_FORMAT(5, 6) REQUIRES(g_log_mutex);
void emit_locked(LogLevel level, const char* file, const char* func, unsigned line, const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  emit_line_locked(level, file, func, line, fmt, args);
  va_end(args);
}

// Moves a log larger than the limit to rd1.log and opens a fresh one, with
// the "RD Log Reached" line as the old file's last line. 0, or -1 when the
// fresh log cannot be opened (the stream is then null). Logs as
// logfile_size_check, whichever line found the log full.
int rotate_if_due_locked() REQUIRES(g_log_mutex) {
  if (g_log_stream == nullptr) return 0;
  const long long bytes = platform::file_size(kLogPath);
  const long long kb = bytes / 1024;
  if (bytes < 0 || kb <= rd_log_size_limit_kb()) return 0;
  emit_locked(LogLevel::kInfo, __FILE__, "logfile_size_check", __LINE__,
              "..................RD Log Reached  %dKB of size..............................", static_cast<int>(kb));
  std::fclose(g_log_stream);
  // Replaces rd1.log atomically; like the design's "move", its result is ignored.
  (void)platform::rename_over(kLogPath, kOldLogPath);
  g_log_stream = platform::open_file("rd.log", "a");
  return g_log_stream != nullptr ? 0 : kFailed;
}

// The report of a log that could not be reopened, written without the log mutex.
void report_rotation_failure() EXCLUDES(g_log_mutex) { write_error_log("zlog_init failed from logfile_size_check\n"); }

}  // namespace

platform::Mutex g_log_mutex;

std::string log_safe(std::string_view text, std::size_t max) {
  static const char kHex[] = "0123456789abcdef";
  std::string out;
  const std::size_t n = text.size() < max ? text.size() : max;
  for (std::size_t i = 0; i < n; ++i) {
    const auto c = static_cast<unsigned char>(text[i]);
    if (c >= 0x20 && c < 0x7f && c != '\\') {
      out += static_cast<char>(c);
    } else {
      out += "\\x";
      out += kHex[c >> 4];
      out += kHex[c & 0xf];
    }
  }
  if (n < text.size()) out += "...";
  return out;
}

int ist_time_text(const char* format, std::string* out) {
  out->clear();
  std::time_t t = platform::now();
  if (t == static_cast<std::time_t>(-1)) return kFailed;
  t += kIstOffsetSeconds;
  std::tm tm_utc{};
  if (gmtime_r(&t, &tm_utc) == nullptr) return kFailed;
  char buf[48] = {};
  std::size_t n = std::strftime(buf, sizeof buf, format, &tm_utc);
  out->assign(buf, n);
  return 0;
}

std::string source_base_name(const char* file) {
  std::string name = file ? file : "";
  std::size_t slash = name.find_last_of("/\\");
  if (slash != std::string::npos) name.erase(0, slash + 1);
  std::size_t dot = name.find('.');
  if (dot != std::string::npos) name.erase(dot);
  return name;
}

int zlog_init(const char* path) {
  platform::MutexLock lock(&g_log_mutex);
  g_log_stream = platform::open_file(path, "a");
  return g_log_stream ? 0 : kFailed;
}

FILE* zlog_get_category(const char* name) {
  if (name == nullptr) return nullptr;
  platform::MutexLock lock(&g_log_mutex);
  return g_log_stream;
}

int zlog_fini() {
  platform::MutexLock lock(&g_log_mutex);
  if (g_log_stream == nullptr) return kFailed;
  std::fflush(g_log_stream);
  std::fclose(g_log_stream);
  g_log_stream = nullptr;
  return 0;
}

int log_timestamp() {
  std::string ts;
  if (ist_time_text("%Y-%m-%d %H:%M:%S", &ts) != 0) return kFailed;
  if (g_log_stream) std::fprintf(g_log_stream, "%s ", ts.c_str());
  return 0;
}

void write_error_log(const char* text) {
  const FilePtr f(platform::open_file("Vexo_Error.log", "ab"));
  if (f == nullptr) {
    platform::alert_box("Error in opening the Vexo_Error.log file", "Error", rd_verbose() >= 2);
    return;
  }
  std::fprintf(f.get(), "%s", text);
}

void rd_set_verbose(int verbose) { g_verbose.store(verbose, std::memory_order_relaxed); }
int rd_verbose() { return g_verbose.load(std::memory_order_relaxed); }

void rd_debug_print(const char* fmt, ...) {
  if (rd_verbose() < 2) return;
  va_list args;
  va_start(args, fmt);
  std::vfprintf(stdout, fmt, args);
  va_end(args);
  std::fflush(stdout);
}
void rd_set_log_size_limit_kb(int kb) { g_log_limit_kb.store(kb, std::memory_order_relaxed); }
int rd_log_size_limit_kb() { return g_log_limit_kb.load(std::memory_order_relaxed); }

void rd_log_write(LogLevel level, const char* file, const char* func, unsigned line, const char* fmt, ...) {
  platform::MutexLock lock(&g_log_mutex);
  // Every line counts towards the limit, whichever path writes it.
  if (rotate_if_due_locked() != 0) {
    lock.Unlock();
    report_rotation_failure();
    return;
  }
  va_list args;
  va_start(args, fmt);
  emit_line_locked(level, file, func, line, fmt, args);
  va_end(args);
}

int rd_set_last_status(const char* file, const char* func, const char* fmt, ...) {
  std::string ts;
  if (ist_time_text("%Y-%m-%d %H:%M:%S", &ts) != 0) return kFailed;
  char text[kLastStatusSize] = {};
  va_list args;
  va_start(args, fmt);
  std::vsnprintf(text, sizeof text, fmt, args);
  va_end(args);
  const std::string line = ts + " | " + source_base_name(file) + " | " + func + " | " + text;
  platform::MutexLock lock(&g_status_mutex);
  const std::size_t n = std::min(line.size(), sizeof g_last_status - 1);
  std::memcpy(g_last_status, line.data(), n);
  g_last_status[n] = '\0';
  return 0;
}

void rd_copy_last_status(char* out, std::size_t len) {
  if (out == nullptr || len == 0) return;
  platform::MutexLock lock(&g_status_mutex);
  std::snprintf(out, len, "%s", g_last_status);
}

void rd_notify(const char* code, const char* fmt, ...) {
  char text[2048] = {};
  va_list args;
  va_start(args, fmt);
  std::vsnprintf(text, sizeof text, fmt, args);
  va_end(args);
  std::string message = std::string(code) + "|" + text;
  write_to_pipe(message.data(), message.size());
}

int create_Pipe() {
  int err = 0;
  int fd = platform::pipe_open(platform::status_pipe_path(), &err);
  if (fd < 0) {
    RD_ERROR("Create pipe failed\n");
    RD_STATUS("Create pipe failed, error_code = %d\n ", err);
    return kFailed;
  }
  int old = g_pipe_fd.exchange(fd);
  platform::pipe_close(old);
  return 0;
}

int write_to_pipe(const char* buf, std::size_t len) {
  int err = EBADF;
  int fd = g_pipe_fd.load();
  if (fd < 0 || platform::pipe_write(fd, buf, len, &err) != 0) {
    RD_ERROR("Write to pipe failed\n");
    RD_STATUS("Write to pipe failed, error_code = %d\n ", err);
    return kFailed;
  }
  return 0;
}

int logfile_size_check() {
  platform::MutexLock lock(&g_log_mutex);
  if (rotate_if_due_locked() == 0) return 0;
  lock.Unlock();
  report_rotation_failure();
  return kFailed;
}

void rd_log_reset_for_test() {
  {
    platform::MutexLock lock(&g_status_mutex);
    std::memset(g_last_status, 0, sizeof g_last_status);
  }
  int old = g_pipe_fd.exchange(-1);
  platform::pipe_close(old);
}

#include "vexo.h"

extern "C" VEXO_EXPORT int Get_Last_RDservice_Status(char* status) noexcept {
  rd_copy_last_status(status, VEXO_STATUS_LEN);
  return 0;
}
