#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>

#include <charconv>
#include <climits>
#include <cstdio>
#include <memory>
#include <sstream>

#include "common/rd_codes.h"
#include "common/rd_config.h"
#include "common/rd_log.h"
#include "common/hash.h"
#include "mgmt_core/mgmt_api.h"
#include "rd_core/dig_sign.h"
#include "rd_core/pid_crypto.h"
#include "rd_core/uidai_certs.h"
#include "common/openssl_ptr.h"

namespace {

constexpr const char* kMonths[12] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                     "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

// A whole token as a decimal number within [lo, hi].
bool parse_number(const std::string& token, int lo, int hi, int* value) {
  const char* end = token.data() + token.size();
  auto [ptr, ec] = std::from_chars(token.data(), end, *value);
  return ec == std::errc() && ptr == end && *value >= lo && *value <= hi;
}

// The certificate's not-after time in OpenSSL's text form, converted to ci.
int cert_expiry_ci(X509* cert, std::string* ci) {
  BioPtr mem(BIO_new(BIO_s_mem()));
  if (!mem || ASN1_TIME_print(mem.get(), X509_get0_notAfter(cert)) != 1) return rd_codes::kFailed;
  char* data = nullptr;
  long len = BIO_get_mem_data(mem.get(), &data);
  if (len <= 0 || data == nullptr) return rd_codes::kFailed;
  return cert_time_text_to_ci(std::string(data, static_cast<std::size_t>(len)), ci);
}

// Checks cert_pem against the checksum expected for it; 1 when it fails.
int cert_invalid(UidaiCert which, const std::string& cert_pem) {
  int invalid = 0;
  check_valid_cert(cert_pem, uidai_expected_checksum(which, cert_pem), &invalid);
  return invalid;
}

}  // namespace

int cert_time_text_to_ci(const std::string& text, std::string* ci) {
  ci->clear();
  // "Jun  1 10:00:00 2027 GMT": month, day, time, year, zone.
  std::istringstream in(text);
  std::string month_name, day_text, time_text, year_text;
  if (!(in >> month_name >> day_text >> time_text >> year_text)) return rd_codes::kFailed;
  int month = 0;
  for (int i = 0; i < 12; ++i) {
    if (month_name == kMonths[i]) month = i + 1;
  }
  int day = 0, year = 0;
  if (month == 0 || !parse_number(day_text, 1, 31, &day) || !parse_number(year_text, 0, 9999, &year)) {
    return rd_codes::kFailed;
  }
  char buf[16];
  std::snprintf(buf, sizeof buf, "%d%02d%02d", year, month, day);
  *ci = buf;
  return 0;
}

void check_valid_cert(const std::string& cert_pem, const std::string& expected_checksum, int* invalid) {
  if (invalid == nullptr) return;
  Sha256Digest digest = sha256(std::string_view(cert_pem));
  std::string hash_buf = hex_lower(digest);
  if (hash_buf.size() != 64) {
    RD_ERROR("Get_sha2 failed");
    *invalid = 1;
    return;
  }
  if (hash_buf == expected_checksum) return;
  RD_INFO("cert_checksum is %s", expected_checksum.c_str());
  RD_INFO("hash_buf is %s", hash_buf.c_str());
  RD_ERROR("Check-Sum Verification failed");
  RD_STATUS("Certificate Check-Sum Verification failed ");
  *invalid = 1;
}

namespace {

// The UIDAI certificate for env ("S", "PP", else production) into *pem, and
// whether it fails its checksum (1) or not (0). A staging request sent while
// the production Management server is configured uses the production one.
int choose_uidai_cert(const std::string& env, std::string* pem) {
  RD_LOG_AS("uid_rsa_public_encrypt");
  int invalid = 0;
  if (env == "S") {
    *pem = uidai_cert_in_force(UidaiCert::kStage);
    // A production Management server must not see staging captures: use the
    // production certificate when the registration URL is the production one.
    const RdConfig cfg = rd_config_copy();
    if (!cfg.prod_register_url.empty() && cfg.mgmt_url_register == cfg.prod_register_url) {
      RD_INFO("MS URL is production URL, But RD Service request is for stagging");
      const UidaiCert which = uidai_current_prod_cert();
      *pem = uidai_cert_in_force(which);
      invalid = cert_invalid(which, *pem);
      if (invalid == 0) RD_INFO("Prod UIDAI Certificate is VAID");
    }
  } else if (env == "PP") {
    RD_INFO("Pre-Prod UIDAI Certificate verification");
    *pem = uidai_cert_in_force(UidaiCert::kPreProd);
    invalid = cert_invalid(UidaiCert::kPreProd, *pem);
    if (invalid == 0) {
      RD_INFO("Pre-Prod UIDAI Certificate is VAID");
    } else {
      RD_ERROR("Pre-Prod UIDAI Certificate is INVAID");
    }
  } else {
    const UidaiCert which = uidai_current_prod_cert();
    *pem = uidai_cert_in_force(which);
    invalid = cert_invalid(which, *pem);
    if (invalid == 0) {
      RD_INFO("Prod UIDAI Certificate is VALID");
    } else {
      RD_ERROR("Prod UIDAI Certificate is INVAID");
    }
  }
  return invalid;
}

// in wrapped with PKCS#1 v1.5 under the public key of the certificate pem into
// *out, and the certificate's expiry as ci into *ci. 0 or kFailed (reported).
int wrap_with_cert(const std::string& pem, std::span<const std::uint8_t> in, std::vector<std::uint8_t>* out,
                   std::string* ci) {
  RD_LOG_AS("uid_rsa_public_encrypt");
  BioPtr bio(pem.size() <= static_cast<std::size_t>(INT_MAX) ? BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size()))
                                                             : nullptr);
  std::unique_ptr<X509, X509Free> cert(bio ? PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr) : nullptr);
  if (!cert) {
    RD_ERROR("Error at PEM_read_X509");
    return rd_codes::kFailed;
  }
  PkeyPtr pkey(X509_get_pubkey(cert.get()));
  if (!pkey) {
    RD_ERROR("Error at X509_get_pubkey");
    return rd_codes::kFailed;
  }
  std::string expiry;
  if (cert_expiry_ci(cert.get(), &expiry) != 0) {
    RD_ERROR("Error at reading the certificate expiry date");
    return rd_codes::kFailed;
  }

  std::unique_ptr<EVP_PKEY_CTX, PkeyCtxFree> ctx(EVP_PKEY_CTX_new(pkey.get(), nullptr));
  std::size_t len = 0;
  std::vector<std::uint8_t> wrapped;
  bool ok = ctx && EVP_PKEY_encrypt_init(ctx.get()) == 1 &&
            EVP_PKEY_CTX_set_rsa_padding(ctx.get(), RSA_PKCS1_PADDING) == 1 &&
            EVP_PKEY_encrypt(ctx.get(), nullptr, &len, in.data(), in.size()) == 1 && len > 0;
  if (ok) {
    wrapped.resize(len);
    ok = EVP_PKEY_encrypt(ctx.get(), wrapped.data(), &len, in.data(), in.size()) == 1;
  }
  if (!ok) {
    RD_ERROR("Error at uid_rsa_public_encrypt RSA_public_encrypt");
    return rd_codes::kFailed;
  }
  wrapped.resize(len);
  *out = std::move(wrapped);
  *ci = std::move(expiry);
  return 0;
}

}  // namespace

int uid_rsa_public_encrypt(const std::string& env, std::span<const std::uint8_t> in, std::vector<std::uint8_t>* out,
                           std::string* ci) {
  out->clear();
  ci->clear();
  if (in.empty()) {
    RD_ERROR("Invalid Input parameters, Either indata or inlen is null");
    return rd_codes::kFailed;
  }
  std::string pem;
  if (choose_uidai_cert(env, &pem) != 0) {
    // The capture answers at once; the host runs the update on its own
    // thread, without the scanner lock this capture holds.
    RD_INFO("Going To download New version of RD Service");
    mgmt_request_software_update();
    RD_INFO("Software_Update is left to the host program");
    return rd_codes::kRdBadUidaiCert;
  }
  return wrap_with_cert(pem, in, out, ci);
}
