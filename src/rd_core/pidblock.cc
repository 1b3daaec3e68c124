#include "rd_core/pidblock.h"

#include <libxml/tree.h>

#include <cstdio>
#include <memory>
#include <new>

#include "common/rd_codes.h"
#include "common/rd_log.h"
#include "common/secret.h"
#include "common/xml_ptr.h"
#include "rd_core/pid_crypto.h"
#include "rd_core/pid_input.h"
#include "rd_core/pidblock_A600.h"
#include "rd_core/protobuf_rd.h"

namespace {

// Adds name=value when value is non-empty. false when libxml2 fails.
bool add_attr(xmlNode* node, const char* name, const std::string& value) {
  if (value.empty()) return true;
  return xmlNewProp(node, BAD_CAST name, BAD_CAST value.c_str()) != nullptr;
}

// The one-letter attributes (ms, gender, dobt) carry only their first character.
bool add_letter_attr(xmlNode* node, const char* name, const std::string& value) {
  if (value.empty()) return true;
  return add_attr(node, name, value.substr(0, 1));
}

xmlNode* add_child(xmlNode* parent, const char* name) { return xmlNewChild(parent, nullptr, BAD_CAST name, nullptr); }

bool add_pi(xmlNode* demo, const PiGroup& pi) {
  xmlNode* n = add_child(demo, "Pi");
  return n != nullptr && add_letter_attr(n, "ms", pi.ms) && add_attr(n, "mv", pi.mv) && add_attr(n, "name", pi.name) &&
         add_attr(n, "lname", pi.lname) && add_attr(n, "lmv", pi.lmv) && add_letter_attr(n, "gender", pi.gender) &&
         add_attr(n, "dob", pi.dob) && add_letter_attr(n, "dobt", pi.dobt) && add_attr(n, "age", pi.age) &&
         add_attr(n, "phone", pi.phone) && add_attr(n, "email", pi.email);
}

bool add_pa(xmlNode* demo, const PaGroup& pa) {
  xmlNode* n = add_child(demo, "Pa");
  return n != nullptr && add_letter_attr(n, "ms", pa.ms) && add_attr(n, "co", pa.co) &&
         add_attr(n, "house", pa.house) && add_attr(n, "street", pa.street) && add_attr(n, "lm", pa.lm) &&
         add_attr(n, "loc", pa.loc) && add_attr(n, "vtc", pa.vtc) && add_attr(n, "subdist", pa.subdist) &&
         add_attr(n, "dist", pa.dist) && add_attr(n, "state", pa.state) && add_attr(n, "country", pa.country) &&
         add_attr(n, "pc", pa.pc) && add_attr(n, "po", pa.po);
}

bool add_pfa(xmlNode* demo, const PfaGroup& pfa) {
  xmlNode* n = add_child(demo, "Pfa");
  return n != nullptr && add_letter_attr(n, "ms", pfa.ms) && add_attr(n, "mv", pfa.mv) && add_attr(n, "av", pfa.av) &&
         add_attr(n, "lav", pfa.lav) && add_attr(n, "lmv", pfa.lmv);
}

bool build_pid(const PidInput& in, xmlDoc* doc) {
  xmlNode* root = xmlNewNode(nullptr, BAD_CAST "Pid");
  if (root == nullptr) return false;
  xmlDocSetRootElement(doc, root);
  if (!add_attr(root, "ts", in.ts) || !add_attr(root, "ver", in.ver) || !add_attr(root, "wadh", in.wadh)) {
    return false;
  }
  if (in.demo_given) {
    xmlNode* demo = add_child(root, "Demo");
    if (demo == nullptr || !add_attr(demo, "lang", in.lang)) return false;
    if (in.pi.given && !add_pi(demo, in.pi)) return false;
    if (in.pa.given && !add_pa(demo, in.pa)) return false;
    if (in.pfa.given && !add_pfa(demo, in.pfa)) return false;
  }
  xmlNode* bios = add_child(root, "Bios");
  if (bios == nullptr || !add_attr(bios, "dih", in.dih)) return false;
  for (const CapturedFinger& finger : in.fingers) {
    for (const BioRecord& record : finger.records) {
      xmlNode* bio = xmlNewTextChild(bios, nullptr, BAD_CAST "Bio", BAD_CAST record.base64.c_str());
      if (bio == nullptr || !add_attr(bio, "type", record.image ? "FIR" : "FMR") ||
          !add_attr(bio, "posh", finger.position) || !add_attr(bio, "bs", record.bs)) {
        return false;
      }
    }
  }
  if (in.otp_given) {
    xmlNode* pv = add_child(root, "Pv");
    if (pv == nullptr || !add_attr(pv, "otp", in.otp) || !add_attr(pv, "pin", in.pin)) return false;
  }
  return true;
}

// The session key is an AES-256 key.
using SessionKey = SecretArray<32>;

// Runs the scanner. 0; 700 or 730 as the capture answered them; or 999 for
// any other fault (told on the status pipe).
int capture_fingers(PidOptionsRequest& request, const std::string& ts, std::vector<CapturedFinger>* fingers) {
  RD_LOG_AS("GenerateEncPIDBlock");
  const int rc = FP_Cap(fingers, request, ts);
  if (rc == 0) return 0;
  RD_ERROR("Error at FP Capture");
  if (rc == rd_codes::kRdTimeout || rc == rd_codes::kRdCaptureFailed) return rc;
  RD_PIPE("5000", "Internal Error\n");
  return rd_codes::kRdInternal;
}

// The device identity hash for the Bios element. 0 or 999 (reported).
int device_hash(std::string* dih) {
  RD_LOG_AS("GenerateEncPIDBlock");
  if (Generate_dih(dih) == 0) return 0;
  RD_ERROR("Error at dih generation ...");
  RD_STATUS("Error at dih generation ... ");
  RD_PIPE("10000", "Error at dih generation\n");
  return rd_codes::kRdInternal;
}

// A fresh session key, wrapped for UIDAI in *skey, with the expiry of the
// certificate that wrapped it in *ci. 0 or the code of the fault (reported).
int session_key(const std::string& env, SessionKey* key, std::string* skey, std::string* ci) {
  RD_LOG_AS("GenerateEncPIDBlock");
  const int rc = GenerateEncandPlainSessionKey(env, key->data(), skey, ci);
  if (rc != 0) {
    RD_ERROR("Error at GenerateEncandPlainSessionKey ");
    RD_STATUS("Error at GenerateEncandPlainSessionKey ");
    RD_PIPE("10000", "Error at Generate encrypted and|plain sessionKey\n");
  }
  return rc;
}

// The plain Pid block, protobuf for format 'P' and XML otherwise. 0 or 999
// (logged).
int frame_plain_pid(const PidInput& input, char format, std::vector<std::uint8_t>* plain) {
  RD_LOG_AS("GenerateEncPIDBlock");
  int rc = 0;
  if (format == 'P') {
    rc = FramePidOutputProtobuf(input, plain);
  } else {
    std::string xml;
    rc = FramePidInnerXML(input, &xml);
    plain->assign(xml.begin(), xml.end());
    cleanse(xml.data(), xml.size());
  }
  if (rc != 0) {
    cleanse(plain->data(), plain->size());  // whatever part of it was framed
    RD_ERROR("Error at framing the plain pid block");
    return rd_codes::kRdInternal;
  }
  // The plain Pid holds biometric records and the OTP: only its length is told.
  RD_INFO("Length of plain pid is %d", static_cast<int>(plain->size()));
  return 0;
}

// Encrypts the plain Pid and its hash under key, then cleanses the plain Pid
// whatever the outcome. 0 or 999 (reported).
int encrypt_pid(std::vector<std::uint8_t>* plain, const SessionKey& key, const std::string& ts, std::string* data,
                std::string* hmac) {
  RD_LOG_AS("GenerateEncPIDBlock");
  const int rc = GenerateEncPID_EncPIDHash(*plain, key.data(), ts, data, hmac);
  cleanse(plain->data(), plain->size());
  if (rc != 0) {
    RD_ERROR("Error at to generate encrypted pinblock and encrypted pidblock hash");
    RD_STATUS("Error at to generate encrypted pinblock and encrypted pidblock hash");
    RD_PIPE("10000", "Error at to generate encrypted|pidblock and encrypted pidblock|hash\n");
    return rd_codes::kRdInternal;
  }
  return 0;
}

// Capture, device hash, session key, plain Pid, encryption: the first fault
// ends the run with its code. The session key is cleansed on every path.
int generate(PidOptionsRequest& request, EncPidBlock* out) {
  RD_LOG_AS("GenerateEncPIDBlock");
  std::string ts;
  if (capture_timestamp(&ts) != 0) {
    RD_ERROR("Error at capture timestamp");
    return rd_codes::kRdInternal;
  }
  std::vector<CapturedFinger> fingers;
  int rc = capture_fingers(request, ts, &fingers);
  if (rc != 0) return rc;
  std::string dih;
  rc = device_hash(&dih);
  if (rc != 0) return rc;

  SessionKey key{};
  std::string skey, ci;
  rc = session_key(request.env, &key, &skey, &ci);
  if (rc != 0) return rc;
  std::vector<std::uint8_t> plain;
  rc = frame_plain_pid(make_pid_input(request, ts, dih, fingers), request.format, &plain);
  if (rc != 0) return rc;
  std::string data, hmac;
  rc = encrypt_pid(&plain, key, ts, &data, &hmac);
  if (rc != 0) return rc;

  out->data = std::move(data);
  out->hmac = std::move(hmac);
  out->skey = std::move(skey);
  out->ci = std::move(ci);
  for (const CapturedFinger& finger : fingers) {
    out->nmPoints.push_back(finger.nmPoints);
    out->qScore.push_back(finger.qScore);
  }
  return 0;
}

}  // namespace

PidInput make_pid_input(const PidOptionsRequest& request, const std::string& ts, const std::string& dih,
                        std::span<const CapturedFinger> fingers) {
  PidInput in;
  in.ts = ts;
  in.ver = request.ver;
  in.wadh = request.wadh;
  in.otp_given = request.otp_given;
  in.otp = request.otp;
  in.demo_given = request.demo_given;
  in.lang = request.lang;
  in.pi = request.pi;
  in.pa = request.pa;
  in.pfa = request.pfa;
  in.dih = dih;
  in.fingers = fingers;
  return in;
}

int FramePidInnerXML(const PidInput& in, std::string* xml) {
  xml->clear();
  DocPtr doc(xmlNewDoc(BAD_CAST "1.0"));
  if (!doc || !build_pid(in, doc.get())) {
    RD_ERROR("Error at creating the pid xml node");
    return rd_codes::kFailed;
  }
  xmlChar* raw = nullptr;
  int size = 0;
  xmlDocDumpFormatMemoryEnc(doc.get(), &raw, &size, "UTF-8", 0);
  const XmlCharPtr buf(raw);
  if (buf == nullptr || size <= 0) {
    RD_ERROR("Error at creating the pid xml node");
    return rd_codes::kFailed;
  }
  xml->assign(reinterpret_cast<const char*>(buf.get()), static_cast<std::size_t>(size));
  cleanse(buf.get(), static_cast<std::size_t>(size));
  return 0;
}

int GenerateEncPIDBlock(PidOptionsRequest& request, EncPidBlock* out) {
  *out = EncPidBlock{};
  try {
    int rc = generate(request, out);
    if (rc != 0) *out = EncPidBlock{};
    return rc;
  } catch (const std::bad_alloc&) {
    RD_ERROR("Memory allocation failed");
    *out = EncPidBlock{};
    return rd_codes::kRdInternal;
  }
}
