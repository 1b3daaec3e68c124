#include "platform/platform.h"
#include "platform/win32/win32_util.h"

// After windows.h, which it needs.
#include <wincrypt.h>

namespace platform {

int random_bytes(std::uint8_t* out, std::size_t len) {
  if (len > MAXDWORD) return -1;
  HCRYPTPROV provider = 0;
  // A verification context needs no key container, so it works for every
  // user and never shows a dialog.
  if (!::CryptAcquireContextA(&provider, nullptr, nullptr, PROV_RSA_FULL, CRYPT_VERIFYCONTEXT | CRYPT_SILENT)) {
    return -1;
  }
  const BOOL ok = ::CryptGenRandom(provider, static_cast<DWORD>(len), out);
  const DWORD saved = ::GetLastError();
  ::CryptReleaseContext(provider, 0);
  ::SetLastError(saved);
  return ok ? 0 : -1;
}

}  // namespace platform
