#include "platform/platform.h"
#include "platform/shared.h"
#include "platform/win32/win32_util.h"

namespace platform {

namespace sys {
std::string default_status_pipe_path() { return "\\\\.\\pipe\\qdx.win.002"; }
}  // namespace sys

namespace {
// How long an open waits for a pipe whose instances are all busy.
constexpr DWORD kBusyWaitMs = 2000;
}  // namespace

int pipe_open(const std::string& path, int* err) {
  const std::wstring wide = win32::widen(path);
  // Identification level only: a server that took the pipe's name first
  // learns who we are but cannot act as us.
  auto open = [&wide] {
    return ::CreateFileW(wide.c_str(), GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
                         SECURITY_SQOS_PRESENT | SECURITY_IDENTIFICATION, nullptr);
  };
  HANDLE h = open();
  // Every instance busy: the front end is about to offer the next one.
  if (h == INVALID_HANDLE_VALUE && ::GetLastError() == ERROR_PIPE_BUSY && ::WaitNamedPipeW(wide.c_str(), kBusyWaitMs)) {
    h = open();
  }
  if (h == INVALID_HANDLE_VALUE) {
    *err = static_cast<int>(::GetLastError());
    return -1;
  }
  // A path that a test moved elsewhere may name a plain file.
  if (::GetFileType(h) != FILE_TYPE_PIPE) {
    ::CloseHandle(h);
    *err = ERROR_FILE_NOT_FOUND;
    return -1;
  }
  return win32::handle_to_int(h);
}

int pipe_write(int fd, const void* data, std::size_t len, int* err) {
  if (len > MAXDWORD) {
    *err = ERROR_INVALID_PARAMETER;
    return -1;
  }
  DWORD written = 0;
  if (!::WriteFile(win32::int_to_handle(fd), data, static_cast<DWORD>(len), &written, nullptr)) {
    // ERROR_NO_DATA or ERROR_BROKEN_PIPE when the reader went away.
    *err = static_cast<int>(::GetLastError());
    return -1;
  }
  if (written != len) {
    *err = ERROR_WRITE_FAULT;
    return -1;
  }
  return 0;
}

void pipe_close(int fd) {
  if (fd != -1) ::CloseHandle(win32::int_to_handle(fd));
}

}  // namespace platform
