#include <openssl/crypto.h>

#include "common/rd_codes.h"
#include "common/rd_config.h"
#include "common/rd_log.h"
#include "common/rd_status.h"
#include "common/Base64.h"
#include "common/hash.h"
#include "mgmt_core/keystore.h"
#include "rd_core/dig_sign.h"
#include "rd_core/pid_crypto.h"
#include "common/secret.h"

int Generate_dih(std::string* dih_text) {
  dih_text->clear();
  const RdIdentity id = rd_identity_copy();
  const RdConfig cfg = rd_config_copy();
  std::string srno_hex = hex_lower(sha256(std::string_view(get_device_serial())));
  std::string work = id.dpId + id.rdsId + cfg.rd_ver + cfg.dc + id.mi + srno_hex;
  Sha256Digest digest = sha256(std::string_view(work));
  RD_INFO("Plain dih generated successfully ... ");
  std::string text;
  if (Base64Encode(digest, &text) != 0 || text.empty()) {
    RD_ERROR("Error at base64 of Plain dih");
    return rd_codes::kRdInternal;
  }
  *dih_text = std::move(text);
  return 0;
}

int Generate_bio_sign(std::span<const std::uint8_t> bio, const std::string& ts, std::string* bs_text) {
  bs_text->clear();
  Secret pem;
  if (GetDevicePrivateKeyFromFile(&pem) != 0) {
    RD_ERROR("Error at to GetDevicePrivateKeyFromFile");
    return rd_codes::kFailed;
  }
  Sha256Digest bio_hash = sha256(bio);
  RD_INFO("Bio-hash generated successfully");

  // Signed: the record's digest, then ts, then dc, with no separators.
  const std::string dc = rd_config_copy().dc;
  std::vector<std::uint8_t> message(bio_hash.begin(), bio_hash.end());
  message.insert(message.end(), ts.begin(), ts.end());
  message.insert(message.end(), dc.begin(), dc.end());

  PkeyPtr key;
  int rc = make_keys(pem.view(), &key);
  if (rc != 0) {
    RD_ERROR("Error at to make key for digital signing");
    return rd_codes::kFailed;
  }
  if (!key) {
    RD_ERROR("skey is null to generate key for make digital signing");
    return rd_codes::kFailed;
  }
  std::vector<std::uint8_t> signature;
  rc = sign_it(message, &signature, key.get());
  if (rc != 0) {
    RD_ERROR("Failed to create signature, return code %d", rc);
    return rd_codes::kFailed;
  }
  std::string text;
  if (Base64Encode(signature, &text) != 0 || text.empty()) {
    RD_ERROR("Error at to create base-64 of encrypted bio-data");
    return rd_codes::kFailed;
  }
  *bs_text = std::move(text);
  RD_INFO("Generation of bio-sign is successful");
  return 0;
}
