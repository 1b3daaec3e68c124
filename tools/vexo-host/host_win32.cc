// The host on Windows: LoadLibrary, the named pipe "\\.\pipe\qdx.win.002"
// created as the front end creates it, and the console as the source of
// events (Ctrl-C, Ctrl-Break or closing the window stops the host; a line
// "a" or "d" on standard input plugs the scanner in or out).
#include <windows.h>

#include <atomic>
#include <cstdio>
#include <string>
#include <thread>

#include "host_sys.h"

namespace host {

namespace {

constexpr const char kPipeName[] = "\\\\.\\pipe\\qdx.win.002";

// Set when the console asks the host to stop.
HANDLE g_stop_event = nullptr;
// Auto-reset events raised by lines on standard input.
HANDLE g_attach_event = nullptr;
HANDLE g_detach_event = nullptr;

std::string error_text(DWORD code) {
  char text[256] = "";
  DWORD n = ::FormatMessageA(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr, code, 0, text,
                             sizeof text, nullptr);
  while (n > 0 && (text[n - 1] == '\n' || text[n - 1] == '\r' || text[n - 1] == ' ')) text[--n] = '\0';
  return std::string(text) + " (error " + std::to_string(code) + ")";
}

BOOL WINAPI on_console_event(DWORD type) {
  switch (type) {
    case CTRL_C_EVENT:
    case CTRL_BREAK_EVENT:
    case CTRL_CLOSE_EVENT:
    case CTRL_LOGOFF_EVENT:
    case CTRL_SHUTDOWN_EVENT:
      ::SetEvent(g_stop_event);
      return TRUE;
    default:
      return FALSE;
  }
}

// Reads lines from standard input for the life of the process; the end of
// the input only ends the reading.
void read_commands() {
  HANDLE in = ::GetStdHandle(STD_INPUT_HANDLE);
  if (in == nullptr || in == INVALID_HANDLE_VALUE) return;
  std::string line;
  char c;
  DWORD n = 0;
  while (::ReadFile(in, &c, 1, &n, nullptr) && n == 1) {
    if (c != '\n') {
      if (c != '\r') line += c;
      continue;
    }
    if (line == "a") ::SetEvent(g_attach_event);
    if (line == "d") ::SetEvent(g_detach_event);
    if (line == "q") ::SetEvent(g_stop_event);
    line.clear();
  }
}

}  // namespace

const char kEventHelp[] =
    "  A line \"a\" on standard input reports the scanner plugged in, \"d\"\n"
    "  pulled out; Ctrl-C, Ctrl-Break or a line \"q\" stops the host.\n";

std::string library_beside_program() {
  char path[MAX_PATH];
  const DWORD n = ::GetModuleFileNameA(nullptr, path, sizeof path);
  std::string p = n > 0 && n < sizeof path ? std::string(path, n) : std::string(".\\vexo-host.exe");
  return p.substr(0, p.find_last_of("\\/") + 1) + "Vexo.dll";
}

void* load_library(const std::string& path, std::string* error) {
  // The full path, so that the library's own dependencies are looked up
  // beside it; no dialog when one is missing.
  DWORD old_mode = 0;
  ::SetThreadErrorMode(SEM_FAILCRITICALERRORS | SEM_NOOPENFILEERRORBOX, &old_mode);
  HMODULE lib = ::LoadLibraryExA(path.c_str(), nullptr, LOAD_WITH_ALTERED_SEARCH_PATH);
  if (lib == nullptr) *error = "cannot load " + path + ": " + error_text(::GetLastError());
  ::SetThreadErrorMode(old_mode, nullptr);
  return reinterpret_cast<void*>(lib);
}

void* library_symbol(void* lib, const char* name) {
  return reinterpret_cast<void*>(::GetProcAddress(static_cast<HMODULE>(lib), name));
}

bool enter_folder(const std::string& dir, std::string* error) {
  if (::SetCurrentDirectoryA(dir.c_str())) return true;
  *error = error_text(::GetLastError());
  return false;
}

void take_events() {
  g_stop_event = ::CreateEventW(nullptr, TRUE, FALSE, nullptr);
  g_attach_event = ::CreateEventW(nullptr, FALSE, FALSE, nullptr);
  g_detach_event = ::CreateEventW(nullptr, FALSE, FALSE, nullptr);
  ::SetConsoleCtrlHandler(on_console_event, TRUE);
  std::thread(read_commands).detach();
}

Event wait_event() {
  const HANDLE events[] = {g_stop_event, g_attach_event, g_detach_event};
  for (;;) {
    const DWORD r = ::WaitForMultipleObjects(3, events, FALSE, INFINITE);
    if (r == WAIT_OBJECT_0 + 1) return Event::kAttach;
    if (r == WAIT_OBJECT_0 + 2) return Event::kDetach;
    if (r == WAIT_OBJECT_0 || r == WAIT_FAILED) return Event::kStop;
  }
}

// One pipe instance, served with overlapped calls so that the destructor can
// end the reader at any point: a client connects, its messages are printed,
// and after it leaves the instance waits for the next one.
struct StatusPipe::State {
  std::string path;
  HANDLE pipe = INVALID_HANDLE_VALUE;
  HANDLE stop = nullptr;
  HANDLE io = nullptr;
  std::thread reader;

  // Waits for the overlapped call to end. false when stopped or failed.
  bool finish(OVERLAPPED* ov, BOOL started, DWORD* bytes) {
    if (!started && ::GetLastError() != ERROR_IO_PENDING) return false;
    const HANDLE waits[] = {stop, io};
    if (::WaitForMultipleObjects(2, waits, FALSE, INFINITE) != WAIT_OBJECT_0 + 1) {
      ::CancelIo(pipe);
      ::GetOverlappedResult(pipe, ov, bytes, TRUE);
      return false;
    }
    return ::GetOverlappedResult(pipe, ov, bytes, FALSE) != 0;
  }

  void serve() {
    char buf[4096];
    while (::WaitForSingleObject(stop, 0) != WAIT_OBJECT_0) {
      OVERLAPPED ov{};
      ov.hEvent = io;
      DWORD n = 0;
      BOOL ok = ::ConnectNamedPipe(pipe, &ov);
      // A client that came before the call is connected already.
      if (!ok && ::GetLastError() == ERROR_PIPE_CONNECTED) {
        ok = TRUE;
      } else if (!finish(&ov, ok, &n)) {
        if (::WaitForSingleObject(stop, 0) == WAIT_OBJECT_0) return;
        ::DisconnectNamedPipe(pipe);
        continue;
      }
      for (;;) {
        ov = OVERLAPPED{};
        ov.hEvent = io;
        n = 0;
        if (!finish(&ov, ::ReadFile(pipe, buf, sizeof buf, &n, &ov), &n) || n == 0) break;
        std::printf("pipe: %.*s", static_cast<int>(n), buf);
        if (buf[n - 1] != '\n') std::printf("\n");
        std::fflush(stdout);
      }
      ::DisconnectNamedPipe(pipe);
    }
  }
};

StatusPipe::StatusPipe() : state_(std::make_unique<State>()) {}

StatusPipe::~StatusPipe() {
  if (state_->stop != nullptr) ::SetEvent(state_->stop);
  if (state_->reader.joinable()) state_->reader.join();
  if (state_->pipe != INVALID_HANDLE_VALUE) ::CloseHandle(state_->pipe);
  if (state_->stop != nullptr) ::CloseHandle(state_->stop);
  if (state_->io != nullptr) ::CloseHandle(state_->io);
}

const std::string& StatusPipe::path() const { return state_->path; }

bool StatusPipe::start(const std::string& folder, std::string* error) {
  state_->path = kPipeName;
  if (!folder.empty()) {
    // The library opens the one name the system gives the pipe.
    *error = "a named pipe has no folder: --status-pipe-dir is for POSIX systems";
    return false;
  }
  // The first instance of the name, so that no other program owns it; the
  // default security lets only this user, the administrators and the system
  // write to it. Remote clients are refused.
  state_->pipe = ::CreateNamedPipeA(
      state_->path.c_str(), PIPE_ACCESS_INBOUND | FILE_FLAG_OVERLAPPED | FILE_FLAG_FIRST_PIPE_INSTANCE,
      PIPE_TYPE_BYTE | PIPE_READMODE_BYTE | PIPE_WAIT | PIPE_REJECT_REMOTE_CLIENTS, 1, 4096, 4096, 0, nullptr);
  if (state_->pipe == INVALID_HANDLE_VALUE) {
    *error = "cannot create " + state_->path + " (is another host running?): " + error_text(::GetLastError());
    return false;
  }
  state_->stop = ::CreateEventW(nullptr, TRUE, FALSE, nullptr);
  state_->io = ::CreateEventW(nullptr, TRUE, FALSE, nullptr);
  if (state_->stop == nullptr || state_->io == nullptr) {
    *error = "cannot create events: " + error_text(::GetLastError());
    return false;
  }
  State* s = state_.get();
  s->reader = std::thread([s] { s->serve(); });
  return true;
}

void leave(int code) {
  std::fflush(stdout);
  // As _exit does: no library clean-up runs under threads that are gone.
  ::TerminateProcess(::GetCurrentProcess(), static_cast<UINT>(code));
  ::ExitProcess(static_cast<UINT>(code));
}

}  // namespace host
