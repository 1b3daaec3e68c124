#include <optional>

#include "platform/platform.h"
#include "platform/win32/win32_util.h"

namespace platform {

int file_identity(const std::string& path, bool create_new, FileIdentity* out) {
  *out = FileIdentity{};
  const std::wstring wide = win32::widen(path);
  std::optional<win32::OwnerOnlySecurity> security;
  SECURITY_ATTRIBUTES* sa = nullptr;
  if (create_new) {
    security.emplace(false);
    sa = security->get();
    if (sa == nullptr) return -1;
  }
  win32::UniqueKernelHandle file(win32::or_null(
      ::CreateFileW(wide.c_str(), create_new ? GENERIC_WRITE : GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, sa,
                    create_new ? CREATE_NEW : OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr)));
  if (!file) return -1;
  BY_HANDLE_FILE_INFORMATION info{};
  if (!::GetFileInformationByHandle(file.get(), &info)) {
    const DWORD saved = ::GetLastError();
    file.reset();
    ::SetLastError(saved);
    return -1;
  }
  out->volume_serial = info.dwVolumeSerialNumber;
  out->index_high = info.nFileIndexHigh;
  out->index_low = info.nFileIndexLow;
  return 0;
}

}  // namespace platform
