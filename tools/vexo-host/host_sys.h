// What the host program does differently on each system (host_posix.cc,
// host_win32.cc): loading the library, the front end's status pipe, and the
// events that stand for plugging the scanner in and out and for stopping.
//
// Thread-safety: take_events runs before any other thread starts; the pipe's
// reader is a thread of its own.
#ifndef VEXO_TOOLS_VEXO_HOST_HOST_SYS_H
#define VEXO_TOOLS_VEXO_HOST_HOST_SYS_H

#include <memory>
#include <string>

namespace host {

// How the user raises the events, for the usage text.
extern const char kEventHelp[];

// The library beside the running program: libVexo.so or Vexo.dll.
std::string library_beside_program();
// Loads the library; nullptr with *error set on failure.
void* load_library(const std::string& path, std::string* error);
void* library_symbol(void* lib, const char* name);

// Makes dir the current folder. false with *error set on failure.
bool enter_folder(const std::string& dir, std::string* error);

// Readies the events before any thread starts (POSIX: blocks the signals
// for every thread, ignores SIGPIPE; Windows: the console's Ctrl-C).
void take_events();
enum class Event { kAttach, kDetach, kStop };
// Waits for the next event.
Event wait_event();

// The status pipe the library writes to, created as the front end creates
// it; every message is printed as "pipe: TEXT" while the object lives.
class StatusPipe {
 public:
  StatusPipe();
  ~StatusPipe();
  StatusPipe(const StatusPipe&) = delete;
  StatusPipe& operator=(const StatusPipe&) = delete;
  // Creates the pipe and starts the reader; false with *error set. POSIX: the
  // FIFO qdx.win.002 in folder (relative: from the starting folder), else in
  // $XDG_RUNTIME_DIR when that is this user's folder closed to others, else in
  // a fresh private folder under /tmp; XDG_RUNTIME_DIR is then set to the
  // FIFO's folder, where the library looks for it. Windows: the named pipe
  // "\\.\pipe\qdx.win.002"; folder must be empty.
  bool start(const std::string& folder, std::string* error);
  // The path the library is to open.
  const std::string& path() const;

 private:
  struct State;
  std::unique_ptr<State> state_;
};

// Ends the process with code without unloading the library, whose threads
// live as long as the process.
[[noreturn]] void leave(int code);

}  // namespace host

#endif  // VEXO_TOOLS_VEXO_HOST_HOST_SYS_H
