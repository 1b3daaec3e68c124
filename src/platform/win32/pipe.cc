#include "platform/platform.h"
#include "platform/shared.h"
#include "platform/win32/win32_util.h"

#include <vector>

namespace platform {

namespace sys {
std::string default_status_pipe_path() { return "\\\\.\\pipe\\qdx.win.002"; }
}  // namespace sys

namespace {
// How long an open waits for a pipe whose instances are all busy.
constexpr DWORD kBusyWaitMs = 2000;

// The user SID of a process's token, or an empty buffer.
std::vector<BYTE> user_of(HANDLE process) {
  HANDLE raw = nullptr;
  if (!::OpenProcessToken(process, TOKEN_QUERY, &raw)) return {};
  win32::UniqueKernelHandle token(raw);
  DWORD size = 0;
  ::GetTokenInformation(token.get(), TokenUser, nullptr, 0, &size);
  std::vector<BYTE> info(size);
  if (size == 0 || !::GetTokenInformation(token.get(), TokenUser, info.data(), size, &size)) return {};
  return info;
}

// True when the process serving the pipe runs as this process's user: a
// process of another user that took the pipe's name first would otherwise
// read every status message.
bool served_by_this_user(HANDLE pipe) {
  ULONG pid = 0;
  if (!::GetNamedPipeServerProcessId(pipe, &pid)) return false;
  win32::UniqueKernelHandle server(::OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION, FALSE, pid));
  if (!server) return false;
  const std::vector<BYTE> theirs = user_of(server.get());
  const std::vector<BYTE> ours = user_of(::GetCurrentProcess());
  if (theirs.empty() || ours.empty()) return false;
  return ::EqualSid(reinterpret_cast<const TOKEN_USER*>(theirs.data())->User.Sid,
                    reinterpret_cast<const TOKEN_USER*>(ours.data())->User.Sid) != FALSE;
}
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
  if (!served_by_this_user(h)) {
    ::CloseHandle(h);
    *err = ERROR_ACCESS_DENIED;
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
