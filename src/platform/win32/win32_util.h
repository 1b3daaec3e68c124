// Helpers shared by the Windows platform files: text conversion for the
// system's wide-character calls, an owner for kernel handles, the
// owner-only security descriptor for files and folders the library creates,
// and the conversion between the header's int handles and Windows handles.
//
// Paths and texts in the library are in the ANSI code page, as the "A" calls
// of the design take them (GetEnvironmentVariableA, CreateFileA); they are
// widened with that code page where a "W" call is used.
//
// Thread-safety: every function may be called from any thread.
#ifndef VEXO_PLATFORM_WIN32_WIN32_UTIL_H
#define VEXO_PLATFORM_WIN32_WIN32_UTIL_H

#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#ifndef NOMINMAX
#define NOMINMAX
#endif
#include <windows.h>

#include <cstdint>
#include <string>

#include "platform/unique_handle.h"

namespace platform::win32 {

// ANSI code page <-> UTF-16. Empty on a conversion failure.
std::wstring widen(const std::string& text);
std::string narrow(const std::wstring& text);

// Kernel handles: both the null handle and INVALID_HANDLE_VALUE count as empty.
struct KernelHandleTraits {
  static HANDLE invalid() { return nullptr; }
  static void close(HANDLE h) {
    if (h != INVALID_HANDLE_VALUE) ::CloseHandle(h);
  }
};
using UniqueKernelHandle = UniqueHandle<KernelHandleTraits>;
// CreateFileW's failure value is INVALID_HANDLE_VALUE; this keeps the owner empty then.
inline HANDLE or_null(HANDLE h) { return h == INVALID_HANDLE_VALUE ? nullptr : h; }

// The header hands handles around as int. Windows keeps kernel and socket
// handle values within 32 bits so that 32- and 64-bit processes can share
// them; a handle is truncated on the way out and sign-extended on the way
// back, which also maps INVALID_HANDLE_VALUE and INVALID_SOCKET to -1.
inline int handle_to_int(HANDLE h) { return static_cast<int>(reinterpret_cast<std::intptr_t>(h)); }
inline HANDLE int_to_handle(int v) { return reinterpret_cast<HANDLE>(static_cast<std::intptr_t>(v)); }

// A security descriptor that grants full access to the current user, the
// local system and the administrators only: the counterpart of mode 0600
// and 0700. Folders pass it on to what is created inside them.
class OwnerOnlySecurity {
 public:
  explicit OwnerOnlySecurity(bool folder);
  ~OwnerOnlySecurity();
  OwnerOnlySecurity(const OwnerOnlySecurity&) = delete;
  OwnerOnlySecurity& operator=(const OwnerOnlySecurity&) = delete;
  // nullptr when the descriptor could not be built (GetLastError set);
  // callers then refuse to create the object rather than open it wider.
  SECURITY_ATTRIBUTES* get() { return descriptor_ ? &attributes_ : nullptr; }

 private:
  PSECURITY_DESCRIPTOR descriptor_ = nullptr;
  SECURITY_ATTRIBUTES attributes_{};
};

// Builds a security descriptor from SDDL into *out (free with LocalFree).
// FALSE with GetLastError set on failure.
BOOL descriptor_from_sddl(const std::string& sddl, PSECURITY_DESCRIPTOR* out);

// Seconds and nanoseconds since 1970 of a FILETIME.
long long filetime_to_unix_seconds(const FILETIME& ft);
long long filetime_to_unix_ns(const FILETIME& ft);

}  // namespace platform::win32

#endif  // VEXO_PLATFORM_WIN32_WIN32_UTIL_H
