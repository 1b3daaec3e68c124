// The reference server is a Linux program. Under Wine a Windows process can
// start a Linux program with CreateProcess, but gets no handle to wait on or
// to end it: a small shell script around the server writes its pid and,
// when it ends, its exit code into files beside its output, and kill(1)
// stops it.
#include <windows.h>

#include <map>
#include <mutex>
#include <optional>

#include "mgmt_server_util.h"
#include "test_util.h"

namespace mgmttest {

namespace {

constexpr int kStartLimitMs = 30000;
constexpr int kStopLimitMs = 30000;

std::mutex g_mutex;
std::map<pid_t, std::string> g_out_files;  // pid -> its output file

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

// A word quoted for sh.
std::string quoted(const std::string& word) {
  std::string q = "'";
  for (char c : word) q += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return q + "'";
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

// Waits until path holds a whole number; nullopt after limit.
std::optional<long> wait_number(const std::string& path, int limit_ms) {
  std::string text;
  const bool done = testutil::wait_until(
      [&] {
        text = testutil::read_file(path);
        return !text.empty() && text.back() == '\n';
      },
      limit_ms);
  return done ? std::optional<long>(std::stol(text)) : std::nullopt;
}

}  // namespace

pid_t spawn(const std::vector<std::string>& args, const std::string& out_file) {
  char cwd[MAX_PATH];
  const DWORD n = ::GetCurrentDirectoryA(sizeof cwd, cwd);
  const std::string dir = n > 0 && n < sizeof cwd ? unix_path(cwd) : "";
  if (dir.empty()) return -1;
  for (const char* end : {".pid", ".exit"}) ::DeleteFileA((out_file + end).c_str());
  std::string command = quoted(kServer);
  for (const auto& a : args) command += " " + quoted(a);
  // The pid and the exit code are renamed into place, so a reader never
  // sees half a number.
  const std::string out = quoted(out_file);
  const std::string script = "cd " + quoted(dir) + " || exit 127\n" + command + " > " + out + " 2>&1 &\n" +
                             "echo $! > " + out + ".pid.tmp && mv " + out + ".pid.tmp " + out + ".pid\n" +
                             "wait $!\necho $? > " + out + ".exit.tmp && mv " + out + ".exit.tmp " + out + ".exit\n";
  testutil::write_file(out_file + ".sh", script);
  if (!run_linux("/bin/sh " + dir + "/" + out_file + ".sh")) return -1;
  const auto pid = wait_number(out_file + ".pid", kStartLimitMs);
  if (!pid) return -1;
  std::lock_guard<std::mutex> lock(g_mutex);
  g_out_files[static_cast<pid_t>(*pid)] = out_file;
  return static_cast<pid_t>(*pid);
}

int wait_exit(pid_t pid) {
  std::string out_file;
  {
    std::lock_guard<std::mutex> lock(g_mutex);
    auto it = g_out_files.find(pid);
    if (it == g_out_files.end()) return -1;
    out_file = it->second;
    g_out_files.erase(it);
  }
  // A registry command runs for well under a second; a hung one fails the test.
  const auto code = wait_number(out_file + ".exit", kStopLimitMs);
  return code ? static_cast<int>(*code) : -1;
}

void terminate(pid_t pid) {
  run_linux("/bin/kill -TERM " + std::to_string(pid));
  if (wait_exit(pid) == -1) run_linux("/bin/kill -KILL " + std::to_string(pid));
}

}  // namespace mgmttest
