// Under Wine a Windows process can start a Linux program with CreateProcess,
// which runs it in the background: the Linux side names the folders itself.
#include <windows.h>

#include "mgmt_server_util.h"

namespace mgmttest {

namespace {

// A path as the Linux side sees it (Wine's own conversion), "" when none.
std::string unix_path(const std::string& windows_path) {
  using Convert = char*(CDECL*)(LPCWSTR);
  static const auto convert = reinterpret_cast<Convert>(
      reinterpret_cast<void*>(::GetProcAddress(::GetModuleHandleA("kernel32.dll"), "wine_get_unix_file_name")));
  if (convert == nullptr) return "";
  const std::wstring wide(windows_path.begin(), windows_path.end());
  char* path = convert(wide.c_str());
  if (path == nullptr) return "";
  std::string out = path;
  ::HeapFree(::GetProcessHeap(), 0, path);
  return out;
}

}  // namespace

std::string linux_cwd() {
  char cwd[MAX_PATH];
  const DWORD n = ::GetCurrentDirectoryA(sizeof cwd, cwd);
  return n > 0 && n < sizeof cwd ? unix_path(cwd) : "";
}

bool run_linux(const std::string& command) {
  STARTUPINFOA si{};
  si.cb = sizeof si;
  PROCESS_INFORMATION pi{};
  std::string line = command;
  if (!::CreateProcessA(nullptr, line.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &si, &pi)) return false;
  ::CloseHandle(pi.hThread);
  ::CloseHandle(pi.hProcess);
  return true;
}

}  // namespace mgmttest
