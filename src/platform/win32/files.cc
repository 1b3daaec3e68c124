#include <windows.h>
#include <aclapi.h>
#include <fcntl.h>
#include <io.h>

#include <cctype>
#include <cstdlib>
#include <optional>
#include <vector>

#include "platform/paths.h"
#include "platform/platform.h"
#include "platform/shared.h"
#include "platform/win32/win32_util.h"

namespace platform {

namespace {

// The exit code a crash point leaves, as a shell reports a SIGKILL.
constexpr UINT kCrashExitCode = 137;

// Every share mode: a reader must not stop a writer from replacing the file.
constexpr DWORD kShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;

bool get_attributes(const std::string& path, WIN32_FILE_ATTRIBUTE_DATA* data) {
  const std::wstring wide = win32::widen(path);
  return !wide.empty() && ::GetFileAttributesExW(wide.c_str(), GetFileExInfoStandard, data);
}

// The same six characters after ".tmp" that mkstemp gives, so that
// remove_stale_temporaries finds what a crash left.
std::string temporary_name(const std::string& path) {
  static constexpr char kChars[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";
  std::uint8_t random[6];
  if (random_bytes(random, sizeof random) != 0) {
    const ULONGLONG t = ::GetTickCount64() ^ ::GetCurrentThreadId();
    for (std::size_t i = 0; i < sizeof random; ++i) random[i] = static_cast<std::uint8_t>(t >> (8 * i));
  }
  std::string name = path + ".tmp";
  for (std::uint8_t b : random) name += kChars[b % (sizeof kChars - 1)];
  return name;
}

// Creates a new temporary file beside path; mode without any bits for group
// and others gives an owner-only file, otherwise the folder's permissions
// apply. An empty owner on failure.
win32::UniqueKernelHandle create_temporary(const std::string& path, unsigned mode, std::wstring* tmp) {
  std::optional<win32::OwnerOnlySecurity> security;
  SECURITY_ATTRIBUTES* sa = nullptr;
  if ((mode & 077) == 0) {
    security.emplace(false);
    sa = security->get();
    if (sa == nullptr) return win32::UniqueKernelHandle();
  }
  for (int attempt = 0; attempt < 100; ++attempt) {
    *tmp = win32::widen(temporary_name(path));
    HANDLE h =
        ::CreateFileW(tmp->c_str(), GENERIC_READ | GENERIC_WRITE, 0, sa, CREATE_NEW, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (h != INVALID_HANDLE_VALUE) return win32::UniqueKernelHandle(h);
    if (::GetLastError() != ERROR_FILE_EXISTS) break;
  }
  return win32::UniqueKernelHandle();
}

// The unflushed form leaves out the write-through, as it leaves out the flush.
bool replace_file(const std::wstring& from, const std::string& to, Durability durability = Durability::kFlushed) {
  const std::wstring target = win32::widen(to);
  const DWORD through = durability == Durability::kFlushed ? MOVEFILE_WRITE_THROUGH : 0;
  return ::MoveFileExW(from.c_str(), target.c_str(), MOVEFILE_REPLACE_EXISTING | through) != 0;
}

// Removes the temporary file after a failure, keeping the failure's code.
void discard(const std::wstring& tmp) {
  const DWORD saved = ::GetLastError();
  ::DeleteFileW(tmp.c_str());
  ::SetLastError(saved);
}

}  // namespace

void close_fd(int fd) {
  if (fd >= 0) ::_close(fd);
}

bool file_exists(const std::string& path) {
  WIN32_FILE_ATTRIBUTE_DATA data;
  return get_attributes(path, &data);
}

bool file_readable(const std::string& path) {
  const std::wstring wide = win32::widen(path);
  // FILE_FLAG_BACKUP_SEMANTICS lets a folder be opened too, as access(R_OK) allows.
  win32::UniqueKernelHandle h(win32::or_null(::CreateFileW(wide.c_str(), GENERIC_READ, kShareAll, nullptr,
                                                           OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr)));
  return h.valid();
}

int read_file(const std::string& path, std::string* out) {
  const std::wstring wide = win32::widen(path);
  win32::UniqueKernelHandle h(win32::or_null(
      ::CreateFileW(wide.c_str(), GENERIC_READ, kShareAll, nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr)));
  if (!h) return -1;
  std::string data;
  char buf[65536];
  for (;;) {
    DWORD n = 0;
    if (!::ReadFile(h.get(), buf, sizeof buf, &n, nullptr)) return -1;
    if (n == 0) break;
    data.append(buf, n);
  }
  *out = std::move(data);
  return 0;
}

namespace sys {
void kill_self() {
  ::TerminateProcess(::GetCurrentProcess(), kCrashExitCode);
  ::ExitProcess(kCrashExitCode);
}
}  // namespace sys

int write_file_atomic(const std::string& path, const void* data, std::size_t len, unsigned mode,
                      Durability durability) {
  const WriteFault fault = sys::write_fault();
  if (fault == WriteFault::kOpen) {
    ::SetLastError(ERROR_ACCESS_DENIED);
    return -1;
  }
  std::wstring tmp;
  win32::UniqueKernelHandle file = create_temporary(path, mode, &tmp);
  if (!file) return -1;
  crash_point();
  auto fail = [&tmp, &file] {
    const DWORD saved = ::GetLastError();
    file.reset();
    ::SetLastError(saved);
    discard(tmp);
    return -2;
  };
  if (fault == WriteFault::kWrite) {
    ::SetLastError(ERROR_WRITE_FAULT);
    return fail();
  }
  const char* p = static_cast<const char*>(data);
  std::size_t left = len;
  while (left > 0) {
    const DWORD chunk = left > (1u << 30) ? (1u << 30) : static_cast<DWORD>(left);
    DWORD n = 0;
    if (!::WriteFile(file.get(), p, chunk, &n, nullptr)) return fail();
    p += n;
    left -= n;
    crash_point();
  }
  if (durability == Durability::kFlushed && !::FlushFileBuffers(file.get())) return fail();
  if (!::CloseHandle(file.release())) {
    discard(tmp);
    return -2;
  }
  crash_point();
  if (!replace_file(tmp, path, durability)) {
    discard(tmp);
    return -2;
  }
  crash_point();
  return 0;
}

int write_file_atomic_stream(const std::string& path, const std::function<bool(std::FILE*)>& write, unsigned mode) {
  std::wstring tmp;
  win32::UniqueKernelHandle file = create_temporary(path, mode, &tmp);
  if (!file) return -1;
  // The C runtime takes the handle over: from here fclose closes it.
  const int fd = ::_open_osfhandle(reinterpret_cast<std::intptr_t>(file.get()), _O_BINARY);
  if (fd < 0) {
    file.reset();
    discard(tmp);
    return -1;
  }
  HANDLE h = file.release();
  // Binary: the bytes are the same as on Linux, no CR before LF.
  std::FILE* f = ::_fdopen(fd, "w+b");
  if (f == nullptr) {
    ::_close(fd);
    discard(tmp);
    return -1;
  }
  crash_point();
  bool ok = write(f) && std::fflush(f) == 0 && std::ferror(f) == 0;
  crash_point();
  ok = ok && ::FlushFileBuffers(h);
  ok = std::fclose(f) == 0 && ok;
  crash_point();
  if (!ok || !replace_file(tmp, path)) {
    discard(tmp);
    return -1;
  }
  crash_point();
  return 0;
}

int rename_over(const std::string& from, const std::string& to) {
  return replace_file(win32::widen(from), to) ? 0 : -1;
}

// Always binary: the library's files are the same bytes as on Linux. A new
// file inherits its folder's permissions, which for the user's profile
// (APPDATA) admit only the user, the administrators and the system.
std::FILE* open_file(const std::string& path, const char* mode) {
  std::wstring wide_mode = win32::widen(mode);
  if (wide_mode.find(L'b') == std::wstring::npos) wide_mode += L'b';
  const std::wstring wide = win32::widen(path);
  return wide.empty() ? nullptr : ::_wfopen(wide.c_str(), wide_mode.c_str());
}

// Another user may add or remove entries when the folder's access list
// grants Everyone, Authenticated Users or Users the right to add files or
// folders, delete children, or write in general.
bool folder_writable_by_others(const std::string& path) {
  const std::wstring wide = win32::widen(path);
  PACL dacl = nullptr;
  PSECURITY_DESCRIPTOR sd = nullptr;
  if (wide.empty() || ::GetNamedSecurityInfoW(wide.c_str(), SE_FILE_OBJECT, DACL_SECURITY_INFORMATION, nullptr, nullptr,
                                              &dacl, nullptr, &sd) != ERROR_SUCCESS) {
    return false;
  }
  constexpr ACCESS_MASK kWrite =
      FILE_ADD_FILE | FILE_ADD_SUBDIRECTORY | FILE_DELETE_CHILD | GENERIC_WRITE | GENERIC_ALL;
  bool open = dacl == nullptr;  // no access list: everyone may do everything
  for (DWORD i = 0; !open && i < dacl->AceCount; ++i) {
    void* ace = nullptr;
    if (!::GetAce(dacl, i, &ace)) continue;
    auto* allowed = static_cast<ACCESS_ALLOWED_ACE*>(ace);
    if (allowed->Header.AceType != ACCESS_ALLOWED_ACE_TYPE || (allowed->Mask & kWrite) == 0) continue;
    PSID sid = &allowed->SidStart;
    for (WELL_KNOWN_SID_TYPE other : {WinWorldSid, WinAuthenticatedUserSid, WinBuiltinUsersSid}) {
      if (::IsWellKnownSid(sid, other)) open = true;
    }
  }
  ::LocalFree(sd);
  return open;
}

bool is_absolute_path(const std::string& path) {
  auto sep = [](char c) { return c == '\\' || c == '/'; };
  if (path.size() >= 2 && sep(path[0]) && sep(path[1])) return true;  // \\server\share, \\.\pipe
  return path.size() >= 3 && std::isalpha(static_cast<unsigned char>(path[0])) && path[1] == ':' && sep(path[2]);
}

void remove_stale_temporaries(const std::string& dir) {
  const std::wstring pattern = win32::widen(dir + "\\*.tmp??????");
  WIN32_FIND_DATAW found;
  HANDLE search = ::FindFirstFileW(pattern.c_str(), &found);
  if (search == INVALID_HANDLE_VALUE) return;
  do {
    const std::wstring name = found.cFileName;
    const std::size_t at = name.rfind(L".tmp");
    // The wildcard also matches shorter names: exactly six characters after
    // ".tmp", a name before it, and a plain file.
    if (at == std::wstring::npos || at == 0 || name.size() != at + 10 ||
        (found.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0) {
      continue;
    }
    ::DeleteFileW((win32::widen(dir) + L"\\" + name).c_str());
  } while (::FindNextFileW(search, &found));
  ::FindClose(search);
}

int make_dirs(const std::string& path) {
  if (path.empty()) return -1;
  win32::OwnerOnlySecurity security(true);
  if (security.get() == nullptr) return -1;
  // Each prefix that ends before a separator, skipping a drive ("C:") or the
  // server and share of a UNC path, which cannot be created.
  std::size_t start = 0;
  if (path.size() >= 2 && path[1] == ':') {
    start = 2;
  } else if (path.rfind("\\\\", 0) == 0 || path.rfind("//", 0) == 0) {
    start = path.find_first_of("\\/", 2);
    start = start == std::string::npos ? path.size() : path.find_first_of("\\/", start + 1);
    if (start == std::string::npos) start = path.size();
  }
  std::size_t pos = start;
  while (pos < path.size()) {
    pos = path.find_first_of("\\/", pos + 1);
    const std::string cur = path.substr(0, pos);
    if (cur.empty() || cur.size() <= start) continue;
    const std::wstring wide = win32::widen(cur);
    if (!::CreateDirectoryW(wide.c_str(), security.get()) && ::GetLastError() != ERROR_ALREADY_EXISTS) return -1;
  }
  WIN32_FILE_ATTRIBUTE_DATA data;
  return get_attributes(path, &data) && (data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0 ? 0 : -1;
}

long long file_access_time(const std::string& path) {
  WIN32_FILE_ATTRIBUTE_DATA data;
  if (!get_attributes(path, &data)) return -1;
  return win32::filetime_to_unix_seconds(data.ftLastAccessTime);
}

long long file_size(const std::string& path) {
  WIN32_FILE_ATTRIBUTE_DATA data;
  if (!get_attributes(path, &data)) return -1;
  return static_cast<long long>((static_cast<unsigned long long>(data.nFileSizeHigh) << 32) | data.nFileSizeLow);
}

long long file_modify_time_ns(const std::string& path) {
  WIN32_FILE_ATTRIBUTE_DATA data;
  if (!get_attributes(path, &data)) return -1;
  return win32::filetime_to_unix_ns(data.ftLastWriteTime);
}

// The design reads APPDATA alone; without it start-up fails.
std::string appdata_dir() {
  std::vector<char> buf(MAX_PATH);
  for (;;) {
    DWORD n = ::GetEnvironmentVariableA("APPDATA", buf.data(), static_cast<DWORD>(buf.size()));
    if (n == 0) return "";
    if (n < buf.size()) return std::string(buf.data(), n);
    buf.resize(n);
  }
}

}  // namespace platform
