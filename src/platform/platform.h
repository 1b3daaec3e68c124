// Operating-system layer. Every system call of the library goes through the
// functions declared here; src/platform/posix/ defines them for Linux and
// src/platform/win32/ for Windows, both on top of the system-neutral
// shared.cc. Nothing outside src/platform/ includes a header that exists on
// only one system.
//
// Thread-safety: every function may be called from any thread. Tests redirect
// the clock, the lock folder, the adapter list and the file writers through
// test_seams.h.
#ifndef VEXO_PLATFORM_PLATFORM_H
#define VEXO_PLATFORM_PLATFORM_H

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <ctime>
#include <optional>
#include <string>
#include <vector>

namespace platform {

// ---------------------------------------------------------------- clock
// Seconds since 1970 (UTC), or -1 when the clock cannot be read.
std::time_t now();
// Monotonic milliseconds, for measuring waits.
std::uint64_t monotonic_ms();
// Sleeps the given milliseconds (nanosleep; restarts after signals).
void sleep_ms(unsigned ms);
// The PC-speaker beep of the design: here it only waits the given time.
void beep(unsigned frequency_hz, unsigned duration_ms);

// ---------------------------------------------------------------- errors
// The last system error number of the calling thread (errno).
int last_error();

// ---------------------------------------------------------------- status pipe
// Path of the status FIFO in the user's private runtime folder, the per-user
// counterpart of the pipe namespace: "$XDG_RUNTIME_DIR/qdx.win.002" when that
// variable holds an absolute path, else "/run/user/<effective uid>/qdx.win.002".
// The host makes the FIFO there (and sets XDG_RUNTIME_DIR to the folder it
// chose) before start-up. A path set with set_status_pipe_path wins.
std::string status_pipe_path();
// Test seam: the FIFO at path instead; an empty path restores the above.
void set_status_pipe_path(const std::string& path);
// Opens the FIFO write-only and non-blocking, without following a symbolic
// link, and keeps it only when it is a FIFO of this process's effective user
// that other users can neither read nor write: a FIFO another user planted
// could read the messages or inject its own. The descriptor, or -1 with
// *err = errno: ENOENT nothing there or not a FIFO, ENXIO no reader, ELOOP a
// symbolic link, EPERM another user's FIFO or one open to others.
int pipe_open(const std::string& path, int* err);
// One write of the whole message, never blocking (the descriptor stays
// non-blocking): a reader that stopped reading costs the message, never the
// caller's thread. 0, or -1 with *err = errno (EAGAIN the FIFO is full, EPIPE
// the reader went away; never raises SIGPIPE). A message of at most 4096
// bytes is written whole or not at all.
int pipe_write(int fd, const void* data, std::size_t len, int* err);
void pipe_close(int fd);

// ---------------------------------------------------------------- sockets
using socket_t = int;
constexpr socket_t kInvalidSocket = -1;
socket_t tcp_socket();                              // IPv4 stream socket or kInvalidSocket
int bind_loopback(socket_t s, std::uint16_t port);  // 0 or -1 (errno kept)
int listen_socket(socket_t s, int backlog);         // 0 or -1
// Waits until s is readable (or writable). 1 ready, 0 time-out, -1 error.
int wait_readable(socket_t s, int timeout_ms);
int wait_writable(socket_t s, int timeout_ms);
socket_t accept_socket(socket_t s);  // kInvalidSocket on failure
// recv/send with the system's semantics; send never raises SIGPIPE.
long recv_socket(socket_t s, void* buf, std::size_t len);
long send_socket(socket_t s, const void* buf, std::size_t len);
void close_socket(socket_t s);

// ---------------------------------------------------------------- locks
// A machine-wide binary lock per name (the design's named semaphore). The name
// is the design's, for example "Global\\QDX_WIN_010"; it maps to a lock file in
// lock_dir(). Threads of one process also exclude each other. A lock whose
// holder process dies is released by the system.
struct NamedLock;
// The folder of the lock files: a test's folder (test_seams.h), else the one
// set with set_lock_dir (the configured lock folder), else default_lock_dir().
std::string lock_dir();
// The package's lock folder when it exists, else the system's temporary
// folder: "/run/vexo", else "/tmp" (never $TMPDIR, which differs between
// processes that must share the locks).
std::string default_lock_dir();
// The configured lock folder; empty for the default.
void set_lock_dir(const std::string& dir);
// The lock file of name: "Global\\QDX_WIN_010" -> "<lock_dir()>/Global_QDX_WIN_010.lock".
std::string named_lock_path(const char* name);
// Opens (creating when missing) the lock file of name, never through a
// symbolic link. A file it creates is made readable and writable by every
// user, so that the services of all users of the machine share the lock (it
// holds nothing); an existing one is used as it is, never changed, and only
// when it is a regular file with one link. nullptr on failure, errno kept:
// ELOOP a symbolic link, EEXIST something other than such a file, EACCES a
// file this user may not open.
NamedLock* named_lock_open(const char* name);
// 0 acquired, 1 time-out, -1 failure.
int named_lock_acquire(NamedLock* lock, unsigned timeout_ms);
// 0 released, -1 not held by this process (or failure).
int named_lock_release(NamedLock* lock);
void named_lock_close(NamedLock* lock);

// ---------------------------------------------------------------- dynamic libraries
// "NAME.dll" becomes "libNAME.so"; other names are returned unchanged.
std::string shared_library_name(const std::string& dll_name);
// Joins folder and the platform's name for dll_name: "./RefDll" + "AraTrustFinger.dll"
// gives "./RefDll/libAraTrustFinger.so".
std::string library_path(const std::string& folder, const std::string& dll_name);
void* library_open(const std::string& path);  // nullptr on failure
void* library_symbol(void* lib, const char* name);
std::string library_error();  // the loader's last message
// Path of the file that holds this library's own code (for the service digest).
std::string own_module_path();

// ---------------------------------------------------------------- network adapters
struct Adapter {
  std::uint8_t address[6] = {};
  unsigned index = 0;
  bool ethernet = false;  // ARPHRD_ETHER, else "Other"
  std::string name;
  std::string description;
};
// Adapters with a hardware address, in interface-index order, without loopback
// and all-zero addresses. 0, or -1 when the list cannot be read.
int list_adapters(std::vector<Adapter>* out);

// ---------------------------------------------------------------- file identity
struct FileIdentity {
  unsigned long volume_serial = 0;  // f_fsid of the file's file system, folded to 32 bits
  unsigned long index_high = 0;     // high 32 bits of st_ino
  unsigned long index_low = 0;      // low 32 bits of st_ino
};
// create_new: create the file, failing if it exists (owner-only permissions);
// otherwise open an existing file. 0, or -1 with errno kept.
int file_identity(const std::string& path, bool create_new, FileIdentity* out);
// The two 32-bit words of a file-system identifier folded into one (xor).
unsigned long fold_fsid(const int words[2]);

// ---------------------------------------------------------------- files
// Closes a file descriptor; a negative one is ignored. UniqueFd calls it.
void close_fd(int fd);
bool file_exists(const std::string& path);
bool file_readable(const std::string& path);
// Whole-file read; 0 or -1.
int read_file(const std::string& path, std::string* out);
// Every file and folder the library creates is made here, closed to other
// users: files owner read and write (0600), folders owner only (0700).
// How a replacement reaches the disk. kFlushed: the new file is flushed before
// it is renamed, so after a power cut path holds the old bytes or the new ones.
// kUnflushed: the flush is left to the system; a crash of the process still
// never tears the file, but after a power cut path may hold an older version,
// or (on some file systems) an empty or partly written one. Only for records
// whose reader checks them and copes with an old one.
enum class Durability { kFlushed, kUnflushed };
// Writes a temporary file beside path, flushes it (kFlushed) and renames it
// over path, so a crash never leaves a torn file. The new file's permission
// bits are mode's owner bits only (group and other bits are never granted).
// 0; -1 the temporary file cannot be created (nothing was written); -2 writing,
// flushing or renaming failed (the temporary file is removed, path unchanged).
int write_file_atomic(const std::string& path, const void* data, std::size_t len, unsigned mode = 0600,
                      Durability durability = Durability::kFlushed);
// A crash point: each step of a file replacement (temporary file made,
// written, flushed, renamed) and each step of a paired change. It does
// nothing unless a test armed the countdown of test_seams.h, which kills the
// process (SIGKILL) at the n-th point from then on.
void crash_point();
// Where test_seams.h can make every write_file_atomic fail.
enum class WriteFault { kNone, kOpen, kWrite };
// The same, for writers that need a stream: write() fills the temporary file
// and returns false on failure. 0 or -1.
int write_file_atomic_stream(const std::string& path, const std::function<bool(std::FILE*)>& write,
                             unsigned mode = 0600);
// Moves from over to, replacing an existing to atomically (rename; on
// Windows MoveFileExW with MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH,
// where rename refuses an existing target). 0, or -1 with the error kept.
int rename_over(const std::string& from, const std::string& to);
// fopen for the library's own files: a file it creates is owner read and
// write only (0600). mode is fopen's ("r", "rb", "w", "wb", "a", "ab", with
// or without "+"). The stream, or nullptr with errno kept.
std::FILE* open_file(const std::string& path, const char* mode);
// True when other users (group or others) may create, rename or remove
// entries in the folder at path; false when they may not or it cannot be read.
bool folder_writable_by_others(const std::string& path);
// Removes the temporary files that write_file_atomic leaves in dir when a
// crash cuts a replacement short ("NAME.tmpXXXXXX"). Other files stay.
void remove_stale_temporaries(const std::string& dir);
// Creates every missing folder of path with owner-only permissions. 0 or -1.
int make_dirs(const std::string& path);
// The file's last-access time in seconds, or -1.
long long file_access_time(const std::string& path);
long long file_size(const std::string& path);
// The file's last-modification time in nanoseconds, or -1.
long long file_modify_time_ns(const std::string& path);

// ---------------------------------------------------------------- process
// Marks the process not dumpable: no core file, and other processes of the
// same user cannot attach to it or read its memory. 0, or -1 (errno kept).
int forbid_core_dumps();

// ---------------------------------------------------------------- random
// Cryptographically strong random bytes. 0 or -1.
int random_bytes(std::uint8_t* out, std::size_t len);

// ---------------------------------------------------------------- environment
// The folder the design calls APPDATA: $APPDATA, else $XDG_DATA_HOME, else
// $HOME/.local/share. Empty when none of these gives a folder.
std::string appdata_dir();

// ---------------------------------------------------------------- start-up and alerts
// Starts the system's socket library once (Winsock 2.2 on Windows; POSIX has
// nothing to start). 0, or the start-up's own error code.
int socket_startup();
// Shows text to the user when no log can take it: a message box with the
// caption (no owner window, OK only) on Windows; on POSIX, which has no
// dialog, "CAPTION: TEXT" on standard error only when console is true (the
// library passes its verbose setting).
void alert_box(const char* text, const char* caption, bool console);
// Path of the running program's file ("" when unknown).
std::string program_path();
// The path of the serial port called name: "/dev/NAME" on POSIX, the
// device namespace "//./NAME" on Windows.
std::string serial_port_path(const std::string& name);

}  // namespace platform

#endif  // VEXO_PLATFORM_PLATFORM_H
