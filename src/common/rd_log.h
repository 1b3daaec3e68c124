// Run log, last-status line, error log and status pipe: the four channels
// through which every module reports.
//
// Thread-safety: the run log is guarded by the log mutex (one line at a time,
// also across rotation), the last-status buffer by the status mutex; the two
// are never held together. Pipe writes are single write() calls.
//
// Call sites use the macros at the end and pass only their text:
//   RD_INFO("socket is bound on port: %hd", port);
//   RD_ERROR("Listen error");
//   RD_VERBOSE("Inside recv_thru_tcp_socket");
//   RD_STATUS("Listen error ");          -> "time | server | fn | Listen error "
//   RD_PIPE("5000", "Listen error\n");   -> "5000|Listen error\n"
#ifndef VEXO_COMMON_RD_LOG_H
#define VEXO_COMMON_RD_LOG_H

#include <cstddef>
#include <cstdio>
#include <string>
#include <string_view>

#include "platform/mutex.h"
#include "platform/printf_format.h"

enum class LogLevel { kInfo, kError };

// The log mutex: the run-log stream and every line written to it.
extern platform::Mutex g_log_mutex;

// Opens the run log with fopen(path, "ab") (binary: "\n" ends a line on
// every system). 0, or -1 (stream left null).
int zlog_init(const char* path);
// The open run-log stream for any non-null name; null for a null name or no log.
FILE* zlog_get_category(const char* name);
// Flushes and closes the run log. 0, or -1 when none is open.
int zlog_fini();
// Writes "YYYY-mm-dd HH:MM:SS " (IST) to the run log.
// 0, or -1 when the clock cannot be read (nothing written).
int log_timestamp() REQUIRES(g_log_mutex);
// Appends text unchanged to "Vexo_Error.log"; when that fails, shows
// "Error in opening the Vexo_Error.log file" (platform::alert_box).
void write_error_log(const char* text);
// Opens the status pipe (platform::status_pipe_path(): the FIFO the host made
// in the user's runtime folder). 0, or -1 with the "Create pipe failed"
// reports.
int create_Pipe();
// Writes len bytes to the status pipe in one call that never blocks. 0, or -1
// (reported; a full pipe loses the message).
int write_to_pipe(const char* buf, std::size_t len);
// Rotates ./rd.log to ./rd1.log once it is larger than the size limit (more
// than limit KB). Every line written checks this first, so a log never
// grows past the limit by more than one line, whatever writes to it.
// 0, or -1 when the log cannot be reopened.
int logfile_size_check();

// Verbose flag (config:Verbose) and the size limit in KB (2048 by default).
void rd_set_verbose(int verbose);
int rd_verbose();
void rd_set_log_size_limit_kb(int kb);
int rd_log_size_limit_kb();

// IST timestamp (UTC + 19800 s) in the given strftime format, into out.
// 0, or -1 when the clock cannot be read (out cleared).
int ist_time_text(const char* format, std::string* out);

// "server" for ".../src/http/server.cc": the name that log lines carry.
std::string source_base_name(const char* file);
// Text from outside (a request line, an origin) made fit for one log line: at
// most max bytes of it, every byte outside printable ASCII and the backslash
// written as "\\xNN", and "..." after a cut.
std::string log_safe(std::string_view text, std::size_t max);

// One run-log line: "<ts> INFO   (file:func:line) - text\n" under the log mutex.
void rd_log_write(LogLevel level, const char* file, const char* func, unsigned line, const char* fmt, ...)
    VEXO_PRINTF_FORMAT(5, 6);
// Sets the last-status line "<ts> | file | func | text". 0, or -1 when the
// clock cannot be read (the line is left as it was).
int rd_set_last_status(const char* file, const char* func, const char* fmt, ...) VEXO_PRINTF_FORMAT(3, 4);
// Sends "code|text" to the status pipe; the text carries its own "\n".
// A failed send is reported by write_to_pipe and otherwise ignored.
void rd_notify(const char* code, const char* fmt, ...) VEXO_PRINTF_FORMAT(2, 3);
// Copies the last-status line (at most len-1 bytes) into out.
void rd_copy_last_status(char* out, std::size_t len);

// Debugging output on standard output, written only when config:Verbose is 2
// or more; nothing reaches standard output or standard error otherwise.
// Never pass biometric data or key material.
void rd_debug_print(const char* fmt, ...) VEXO_PRINTF_FORMAT(1, 2);

// Test seams: clears the last-status buffer and closes the pipe handle.
void rd_log_reset_for_test();

// The module name that log and last-status lines carry is the source file's
// base name. A file that belongs to a larger module of the design (server.cc
// split into listener, connection and dispatch files) defines VEXO_LOG_FILE
// to that module's name before including this header:
//   #define VEXO_LOG_FILE "server"
#ifndef VEXO_LOG_FILE
#define VEXO_LOG_FILE __FILE__
#endif

// The function name that lines carry is the enclosing function's, unless the
// scope says that it works on behalf of a function of the design:
//   int step_pipe() { RD_LOG_AS("Initialize_process"); ... RD_INFO(...); }
// RD_LOG_AS declares a local that hides this null default.
// Code shared by two modules (the plain and the TLS request reader) names
// both at run time: RD_LOG_IN(file, function).
inline constexpr const char* vexo_log_function = nullptr;
inline constexpr const char* vexo_log_module = nullptr;
#define RD_LOG_AS(name) [[maybe_unused]] const char* const vexo_log_function = name
#define RD_LOG_IN(file, name)                                \
  [[maybe_unused]] const char* const vexo_log_module = file; \
  RD_LOG_AS(name)
#define VEXO_LOG_FUNC (vexo_log_function != nullptr ? vexo_log_function : __func__)
#define VEXO_LOG_MODULE (vexo_log_module != nullptr ? vexo_log_module : VEXO_LOG_FILE)

#define RD_INFO(...) rd_log_write(LogLevel::kInfo, VEXO_LOG_MODULE, VEXO_LOG_FUNC, __LINE__, __VA_ARGS__)
#define RD_ERROR(...) rd_log_write(LogLevel::kError, VEXO_LOG_MODULE, VEXO_LOG_FUNC, __LINE__, __VA_ARGS__)
#define RD_VERBOSE(...)      \
  do {                       \
    if (rd_verbose() != 0) { \
      RD_INFO(__VA_ARGS__);  \
    }                        \
  } while (0)
#define RD_DEBUG(...) rd_debug_print(__VA_ARGS__)
#define RD_STATUS(...) rd_set_last_status(VEXO_LOG_MODULE, VEXO_LOG_FUNC, __VA_ARGS__)
#define RD_PIPE(code, ...) rd_notify(code, __VA_ARGS__)

#endif  // VEXO_COMMON_RD_LOG_H
