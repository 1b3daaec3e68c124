#include "rd_core/protobuf_rd.h"

#include <array>
#include <charconv>
#include <new>
#include <string_view>

#include "auth.pb-c.h"
#include "common/rd_codes.h"
#include "common/rd_log.h"

using rd_codes::kFailed;

namespace {

using PbPid = In__Gov__Uidai__Authserver__Protobuf__Pid;
using PbDemo = In__Gov__Uidai__Authserver__Protobuf__Demo;
using PbPi = In__Gov__Uidai__Authserver__Protobuf__Pi;
using PbDob = In__Gov__Uidai__Authserver__Protobuf__Dob;
using PbPa = In__Gov__Uidai__Authserver__Protobuf__Pa;
using PbPfa = In__Gov__Uidai__Authserver__Protobuf__Pfa;
using PbBios = In__Gov__Uidai__Authserver__Protobuf__Bios;
using PbBio = In__Gov__Uidai__Authserver__Protobuf__Bio;
using PbPv = In__Gov__Uidai__Authserver__Protobuf__Pv;
using PbMs = In__Gov__Uidai__Authserver__Protobuf__Ms;
using PbPosition = In__Gov__Uidai__Authserver__Protobuf__Position;

// Position names in the order of their enum values 1..13.
constexpr std::array<std::string_view, 13> kPositions = {
    "LEFT_IRIS",   "RIGHT_IRIS",   "LEFT_INDEX",   "LEFT_LITTLE", "LEFT_MIDDLE", "LEFT_RING", "LEFT_THUMB",
    "RIGHT_INDEX", "RIGHT_LITTLE", "RIGHT_MIDDLE", "RIGHT_RING",  "RIGHT_THUMB", "UNKNOWN"};

PbPosition position_value(const std::string& name) {
  for (std::size_t i = 0; i < kPositions.size(); ++i) {
    if (kPositions[i] == name) return static_cast<PbPosition>(i + 1);
  }
  return IN__GOV__UIDAI__AUTHSERVER__PROTOBUF__POSITION__UNKNOWN;
}

// The message fields point into the input's strings; packing only reads them.
char* text(const std::string& s) { return const_cast<char*>(s.c_str()); }
char* optional_text(const std::string& s) { return s.empty() ? nullptr : text(s); }

// A whole decimal number. false for empty or partly numeric text.
bool parse_int(std::string_view s, std::int32_t* value) {
  if (s.empty()) return false;
  auto [end, ec] = std::from_chars(s.data(), s.data() + s.size(), *value);
  return ec == std::errc() && end == s.data() + s.size();
}

void set_int(const std::string& s, protobuf_c_boolean* has, std::int32_t* value) {
  if (parse_int(s, value)) *has = 1;
}

// First letter of a one-letter value mapped through letters[i] -> i + 1.
bool letter_value(const std::string& s, std::string_view letters, int* value) {
  if (s.empty()) return false;
  std::size_t pos = letters.find(s[0]);
  if (pos == std::string_view::npos) return false;
  *value = static_cast<int>(pos) + 1;
  return true;
}

void set_ms(const std::string& s, std::string_view letters, protobuf_c_boolean* has, PbMs* ms) {
  int v = 0;
  if (letter_value(s, letters, &v)) {
    *has = 1;
    *ms = static_cast<PbMs>(v);
  }
}

// "YYYY-MM-DD" (or "YYYY-MM", or "YYYY") into *dob. false when no year.
bool fill_dob(const std::string& text, PbDob* dob) {
  std::string_view rest = text;
  std::array<std::string_view, 3> parts{};
  std::size_t n = 0;
  while (n < parts.size()) {
    std::size_t dash = rest.find('-');
    parts[n++] = rest.substr(0, dash);
    if (dash == std::string_view::npos) break;
    rest.remove_prefix(dash + 1);
  }
  if (!parse_int(parts[0], &dob->year)) return false;
  if (n > 1 && parse_int(parts[1], &dob->month)) dob->has_month = 1;
  if (n > 2 && parse_int(parts[2], &dob->day)) dob->has_day = 1;
  return true;
}

bool valid_lang(std::int32_t v) {
  static constexpr std::array<int, 13> kLangs = {1, 2, 5, 6, 7, 11, 12, 13, 15, 16, 20, 21, 22};
  for (int l : kLangs) {
    if (l == v) return true;
  }
  return false;
}

// The demographic part of the message. Its members point into each other
// and into the input, so it lives until the message is packed.
struct DemoParts {
  PbDemo demo = IN__GOV__UIDAI__AUTHSERVER__PROTOBUF__DEMO__INIT;
  PbPi pi = IN__GOV__UIDAI__AUTHSERVER__PROTOBUF__PI__INIT;
  PbDob dob = IN__GOV__UIDAI__AUTHSERVER__PROTOBUF__DOB__INIT;
  PbPa pa = IN__GOV__UIDAI__AUTHSERVER__PROTOBUF__PA__INIT;
  PbPfa pfa = IN__GOV__UIDAI__AUTHSERVER__PROTOBUF__PFA__INIT;
};

void fill_pi(const PiGroup& in, PbPi* pi, PbDob* dob) {
  set_ms(in.ms, "EP", &pi->has_ms, &pi->ms);
  pi->name = optional_text(in.name);
  set_int(in.mv, &pi->has_mv, &pi->mv);
  pi->lname = optional_text(in.lname);
  set_int(in.lmv, &pi->has_lmv, &pi->lmv);
  int v = 0;
  if (letter_value(in.gender, "FMT", &v)) {
    pi->has_gender = 1;
    pi->gender = static_cast<In__Gov__Uidai__Authserver__Protobuf__Pi__Gender>(v);
  }
  if (fill_dob(in.dob, dob)) pi->dob = dob;
  if (letter_value(in.dobt, "VDA", &v)) {
    pi->has_dobt = 1;
    pi->dobt = static_cast<In__Gov__Uidai__Authserver__Protobuf__Pi__Dobt>(v);
  }
  set_int(in.age, &pi->has_age, &pi->age);
  pi->email = optional_text(in.email);
  pi->phone = optional_text(in.phone);
}

void fill_pa(const PaGroup& in, PbPa* pa) {
  // Only exact matching is ever sent for the address.
  set_ms(in.ms, "E", &pa->has_ms, &pa->ms);
  pa->co = optional_text(in.co);
  pa->house = optional_text(in.house);
  pa->street = optional_text(in.street);
  pa->lm = optional_text(in.lm);
  pa->loc = optional_text(in.loc);
  pa->vtc = optional_text(in.vtc);
  pa->subdist = optional_text(in.subdist);
  pa->dist = optional_text(in.dist);
  pa->state = optional_text(in.state);
  pa->pc = optional_text(in.pc);
  pa->po = optional_text(in.po);
  pa->country = optional_text(in.country);
}

void fill_pfa(const PfaGroup& in, PbPfa* pfa) {
  set_ms(in.ms, "EP", &pfa->has_ms, &pfa->ms);
  pfa->av = optional_text(in.av);
  set_int(in.mv, &pfa->has_mv, &pfa->mv);
  pfa->lav = optional_text(in.lav);
  set_int(in.lmv, &pfa->has_lmv, &pfa->lmv);
}

// The Demo message of a request that gave one: the language and the groups given.
void fill_demo(const PidInput& in, DemoParts* parts) {
  std::int32_t lang = 0;
  if (parse_int(in.lang, &lang) && valid_lang(lang)) {
    parts->demo.has_lang = 1;
    parts->demo.lang = static_cast<In__Gov__Uidai__Authserver__Protobuf__LangCode>(lang);
  }
  if (in.pi.given) {
    fill_pi(in.pi, &parts->pi, &parts->dob);
    parts->demo.pi = &parts->pi;
  }
  if (in.pa.given) {
    fill_pa(in.pa, &parts->pa);
    parts->demo.pa = &parts->pa;
  }
  if (in.pfa.given) {
    fill_pfa(in.pfa, &parts->pfa);
    parts->demo.pfa = &parts->pfa;
  }
}

// The Bios message: one Bio per record, in capture order. Its members point
// into the input; it lives until the message is packed. May throw bad_alloc.
struct BioParts {
  std::vector<PbBio> records;
  std::vector<PbBio*> pointers;
  PbBios bios = IN__GOV__UIDAI__AUTHSERVER__PROTOBUF__BIOS__INIT;
};

void fill_bios(const PidInput& in, BioParts* parts) {
  for (const CapturedFinger& finger : in.fingers) {
    for (const BioRecord& record : finger.records) {
      PbBio bio = IN__GOV__UIDAI__AUTHSERVER__PROTOBUF__BIO__INIT;
      bio.type = record.image ? IN__GOV__UIDAI__AUTHSERVER__PROTOBUF__BIO_TYPE__FIR
                              : IN__GOV__UIDAI__AUTHSERVER__PROTOBUF__BIO_TYPE__FMR;
      bio.posh = position_value(finger.position);
      bio.content.len = record.bytes.size();
      bio.content.data = const_cast<std::uint8_t*>(record.bytes.data());
      bio.bs = text(record.bs);
      parts->records.push_back(bio);
    }
  }
  for (PbBio& bio : parts->records) parts->pointers.push_back(&bio);
  parts->bios.n_bio = parts->pointers.size();
  parts->bios.bio = parts->pointers.data();
  parts->bios.dih = text(in.dih);
}

}  // namespace

int FramePidOutputProtobuf(const PidInput& in, std::vector<std::uint8_t>* packed) {
  packed->clear();
  // Required texts always go out; an empty one is sent as "".
  PbPid pid = IN__GOV__UIDAI__AUTHSERVER__PROTOBUF__PID__INIT;
  pid.ver = text(in.ver);
  pid.ts = text(in.ts);
  pid.wadh = text(in.wadh);
  DemoParts demo;
  if (in.demo_given) {
    fill_demo(in, &demo);
    pid.demo = &demo.demo;
  }
  PbPv pv = IN__GOV__UIDAI__AUTHSERVER__PROTOBUF__PV__INIT;
  if (in.otp_given) {
    pv.otp = optional_text(in.otp);
    pv.pin = optional_text(in.pin);
    pid.pv = &pv;
  }
  try {
    BioParts bios;
    fill_bios(in, &bios);
    pid.bios = &bios.bios;
    packed->resize(in__gov__uidai__authserver__protobuf__pid__get_packed_size(&pid), 0);
    in__gov__uidai__authserver__protobuf__pid__pack(&pid, packed->data());
  } catch (const std::bad_alloc&) {
    RD_ERROR("Could not able to allocate memory for protobuf pidblock");
    packed->clear();
    return kFailed;
  }
  return 0;
}
