#include "platform/win32/win32_util.h"

#include <sddl.h>

#include <memory>
#include <vector>

namespace platform::win32 {

std::wstring widen(const std::string& text) {
  if (text.empty()) return std::wstring();
  int n = ::MultiByteToWideChar(CP_ACP, 0, text.data(), static_cast<int>(text.size()), nullptr, 0);
  if (n <= 0) return std::wstring();
  std::wstring out(static_cast<std::size_t>(n), L'\0');
  ::MultiByteToWideChar(CP_ACP, 0, text.data(), static_cast<int>(text.size()), out.data(), n);
  return out;
}

std::string narrow(const std::wstring& text) {
  if (text.empty()) return std::string();
  int n = ::WideCharToMultiByte(CP_ACP, 0, text.data(), static_cast<int>(text.size()), nullptr, 0, nullptr, nullptr);
  if (n <= 0) return std::string();
  std::string out(static_cast<std::size_t>(n), '\0');
  ::WideCharToMultiByte(CP_ACP, 0, text.data(), static_cast<int>(text.size()), out.data(), n, nullptr, nullptr);
  return out;
}

namespace {

struct LocalFreer {
  void operator()(void* p) const { ::LocalFree(p); }
};

// The current user's SID as text ("S-1-5-21-..."), or empty.
std::string current_user_sid() {
  HANDLE raw = nullptr;
  if (!::OpenProcessToken(::GetCurrentProcess(), TOKEN_QUERY, &raw)) return "";
  UniqueKernelHandle token(raw);
  DWORD size = 0;
  ::GetTokenInformation(token.get(), TokenUser, nullptr, 0, &size);
  if (size == 0) return "";
  std::vector<unsigned char> buffer(size);
  if (!::GetTokenInformation(token.get(), TokenUser, buffer.data(), size, &size)) return "";
  LPSTR text = nullptr;
  if (!::ConvertSidToStringSidA(reinterpret_cast<TOKEN_USER*>(buffer.data())->User.Sid, &text)) return "";
  std::unique_ptr<char, LocalFreer> owned(text);
  return owned.get();
}

}  // namespace

BOOL descriptor_from_sddl(const std::string& sddl, PSECURITY_DESCRIPTOR* out) {
  return ::ConvertStringSecurityDescriptorToSecurityDescriptorA(sddl.c_str(), SDDL_REVISION_1, out, nullptr);
}

OwnerOnlySecurity::OwnerOnlySecurity(bool folder) {
  const std::string user = current_user_sid();
  if (user.empty()) return;
  // "P": the parent folder's permissions are not inherited.
  const std::string flags = folder ? "OICI" : "";
  const std::string sddl = "D:P(A;" + flags + ";FA;;;" + user + ")(A;" + flags + ";FA;;;SY)(A;" + flags + ";FA;;;BA)";
  if (!descriptor_from_sddl(sddl, &descriptor_)) {
    descriptor_ = nullptr;
    return;
  }
  attributes_.nLength = sizeof attributes_;
  attributes_.lpSecurityDescriptor = descriptor_;
  attributes_.bInheritHandle = FALSE;
}

OwnerOnlySecurity::~OwnerOnlySecurity() {
  if (descriptor_) ::LocalFree(descriptor_);
}

namespace {
// 100 ns ticks between 1601-01-01 and 1970-01-01.
constexpr long long kEpochDifference = 116444736000000000LL;

long long ticks_since_1970(const FILETIME& ft) {
  ULARGE_INTEGER v;
  v.LowPart = ft.dwLowDateTime;
  v.HighPart = ft.dwHighDateTime;
  return static_cast<long long>(v.QuadPart) - kEpochDifference;
}
}  // namespace

long long filetime_to_unix_seconds(const FILETIME& ft) { return ticks_since_1970(ft) / 10000000LL; }
long long filetime_to_unix_ns(const FILETIME& ft) { return ticks_since_1970(ft) * 100LL; }

}  // namespace platform::win32
