#include "rd_core/xml_parse.h"

#include <libxml/parser.h>
#include <libxml/tree.h>
#include <libxml/xmlschemas.h>

#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "common/rd_codes.h"
#include "common/rd_config.h"
#include "common/rd_log.h"
#include "common/xml_ptr.h"
#include "platform/mutex.h"
#include "platform/platform.h"

namespace {

constexpr const char* kScratchFile = "Final.xml";
constexpr std::size_t kSchemaPathSize = 128;
constexpr std::size_t kRawPoshSize = 1024;
constexpr std::size_t kMaxPositionLength = kPositionSize - 1;
// Never fetch anything from the network, never substitute entities, and keep
// libxml2's own error printing off: every fault is reported through our log.
constexpr int kParseOptions = XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING;

constexpr const char* kPositionNames[] = {
    "LEFT_INDEX",   "LEFT_LITTLE",  "LEFT_MIDDLE", "LEFT_RING",   "LEFT_THUMB", "RIGHT_INDEX",
    "RIGHT_LITTLE", "RIGHT_MIDDLE", "RIGHT_RING",  "RIGHT_THUMB", "UNKNOWN",
};

// Guards the scratch file: two validations never write or read it at once.
platform::Mutex g_validate_mutex;

void quiet_errors(void*, xmlError*) {}

// libxml2's first initialisation is not safe to race; do it once, here.
void init_libxml() {
  static const bool initialised = (xmlInitParser(), true);
  (void)initialised;
}

bool name_is(const xmlChar* name, const char* expected) {
  return name != nullptr && std::strcmp(reinterpret_cast<const char*>(name), expected) == 0;
}

std::string attribute_value(xmlDoc* doc, const xmlAttr* attr) {
  const XmlCharPtr text(xmlNodeListGetString(doc, attr->children, 1));
  return text ? reinterpret_cast<const char*>(text.get()) : "";
}

// Decimal conversion in the manner of atoi (leading blanks, sign, digits up to
// the first other character, 0 for no digits), clamped to the int range.
int to_int(const std::string& text) {
  errno = 0;
  long long v = std::strtoll(text.c_str(), nullptr, 10);
  if (v > INT_MAX) return INT_MAX;
  if (v < INT_MIN) return INT_MIN;
  return static_cast<int>(v);
}

// Copies value into *field when it fits a field of capacity bytes (NUL
// included); a longer value is refused rather than cut.
bool copy_bounded(const std::string& value, std::size_t capacity, const char* what, std::string* field) {
  RD_LOG_AS("Parse_XML_Request");
  if (value.size() >= capacity) {
    RD_ERROR("Invalid pidoption input : %s value is too long", what);
    return false;
  }
  *field = value;
  return true;
}

bool is_position_name(const std::string& entry) {
  for (const char* name : kPositionNames) {
    if (entry == name) return true;
  }
  return false;
}

template <typename Group>
struct DemoField {
  const char* name;
  std::string Group::*member;
};

constexpr DemoField<PiGroup> kPiFields[] = {
    {"ms", &PiGroup::ms},   {"mv", &PiGroup::mv},         {"name", &PiGroup::name},   {"lname", &PiGroup::lname},
    {"lmv", &PiGroup::lmv}, {"gender", &PiGroup::gender}, {"dob", &PiGroup::dob},     {"dobt", &PiGroup::dobt},
    {"age", &PiGroup::age}, {"phone", &PiGroup::phone},   {"email", &PiGroup::email},
};
constexpr DemoField<PaGroup> kPaFields[] = {
    {"ms", &PaGroup::ms},         {"co", &PaGroup::co},           {"house", &PaGroup::house},
    {"street", &PaGroup::street}, {"lm", &PaGroup::lm},           {"loc", &PaGroup::loc},
    {"vtc", &PaGroup::vtc},       {"subdist", &PaGroup::subdist}, {"dist", &PaGroup::dist},
    {"state", &PaGroup::state},   {"country", &PaGroup::country}, {"pc", &PaGroup::pc},
    {"po", &PaGroup::po},
};
constexpr DemoField<PfaGroup> kPfaFields[] = {
    {"ms", &PfaGroup::ms},   {"mv", &PfaGroup::mv},   {"av", &PfaGroup::av},
    {"lav", &PfaGroup::lav}, {"lmv", &PfaGroup::lmv},
};

// The one-letter attributes (match strategy, gender, date-of-birth type).
bool is_letter_field(const char* name) {
  return std::strcmp(name, "ms") == 0 || std::strcmp(name, "gender") == 0 || std::strcmp(name, "dobt") == 0;
}

bool is_ascii(const std::string& value) {
  for (unsigned char c : value) {
    if (c >= 0x80) return false;
  }
  return true;
}

// Sets the group's flag and copies the attributes it knows. 0 or 100.
template <typename Group, std::size_t N>
int read_demo_group(xmlDoc* doc, const xmlNode* node, const DemoField<Group> (&fields)[N], Group* group) {
  RD_LOG_AS("Parse_XML_Request");
  group->given = 1;
  for (const xmlAttr* a = node->properties; a != nullptr; a = a->next) {
    for (const auto& field : fields) {
      if (!name_is(a->name, field.name)) continue;
      const std::string value = attribute_value(doc, a);
      if (is_letter_field(field.name) && !is_ascii(value)) {
        // These keep one character in the Pid: half of a UTF-8 character
        // would make the Pid invalid for UIDAI.
        RD_ERROR("Invalid Demo attribute : %s", field.name);
        return rd_codes::kRdBadPidOptions;
      }
      if (!copy_bounded(value, kDemoValueSize, field.name, &(group->*field.member))) {
        return rd_codes::kRdBadPidOptions;
      }
      break;
    }
  }
  return 0;
}

int read_demo(xmlDoc* doc, const xmlNode* demo, PidOptionsRequest* request) {
  for (const xmlAttr* a = demo->properties; a != nullptr; a = a->next) {
    if (name_is(a->name, "lang") && !copy_bounded(attribute_value(doc, a), kDemoValueSize, "lang", &request->lang)) {
      return rd_codes::kRdBadPidOptions;
    }
  }
  if (xmlFirstElementChild(const_cast<xmlNode*>(demo)) == nullptr) return 0;
  request->demo_given = 1;
  for (xmlNode* c = xmlFirstElementChild(const_cast<xmlNode*>(demo)); c != nullptr; c = xmlNextElementSibling(c)) {
    int rc = 0;
    if (name_is(c->name, "Pi")) {
      rc = read_demo_group(doc, c, kPiFields, &request->pi);
    } else if (name_is(c->name, "Pa")) {
      rc = read_demo_group(doc, c, kPaFields, &request->pa);
    } else if (name_is(c->name, "Pfa")) {
      rc = read_demo_group(doc, c, kPfaFields, &request->pfa);
    }
    if (rc != 0) return rc;
  }
  return 0;
}

// Reads fCount, fType or posh; other names are left alone. 0 or the code of
// the fault.
int read_finger_opt(const xmlChar* name, const std::string& value, PidOptionsRequest* request,
                    std::string* raw_posh) {
  RD_LOG_AS("Parse_XML_Request");
  if (name_is(name, "fCount")) {
    int count = to_int(value);
    // Compared unsigned so that a negative count fails too.
    if (static_cast<unsigned>(count) > kMaxFingers) {
      RD_ERROR("Invalid fingerprint count : %d", count);
      return rd_codes::kRdBadFCount;
    }
    request->fCount = count;
    request->finger_requested = count >= 1 ? 1 : 0;
  } else if (name_is(name, "fType")) {
    int type = to_int(value);
    if (static_cast<unsigned>(type) > 2) {
      RD_ERROR("Invalid finger print type : %d", type);
      return rd_codes::kRdBadFType;
    }
    request->fType = type;
    // Image records are large: an image capture is limited to two fingers.
    // Only the count read so far is seen, so the attribute order matters.
    if (type != 0 && request->fCount > 2) {
      RD_ERROR("Invalid fingerprint count : %d", request->fCount);
      return rd_codes::kRdBadFCount;
    }
  } else if (name_is(name, "posh")) {
    request->positions.clear();
    if (value.size() >= kRawPoshSize) {
      RD_ERROR("Invalid position");
      return rd_codes::kRdBadPosh;
    }
    *raw_posh = value;
  }
  return 0;
}

// Reads iCount, pCount, format, pidVer or timeout; other names are left
// alone. 0 or the code of the fault.
int read_mode_opt(const xmlChar* name, const std::string& value, PidOptionsRequest* request) {
  RD_LOG_AS("Parse_XML_Request");
  if (name_is(name, "iCount")) {
    if (to_int(value) != 0) {
      RD_ERROR("Rd service does not support iris");
      return rd_codes::kRdNoIris;
    }
  } else if (name_is(name, "pCount")) {
    if (to_int(value) != 0) {
      RD_ERROR("Invalid face count value(It should be 0");
      return rd_codes::kRdNoFace;
    }
    request->face_requested = 0;
    request->pCount = 0;
  } else if (name_is(name, "format")) {
    int format = to_int(value);
    if (static_cast<unsigned>(format) > 1) {
      RD_ERROR("Invalid format value : %d", format);
      return rd_codes::kRdBadFormat;
    }
    request->format = format == 1 ? 'P' : 'X';
  } else if (name_is(name, "pidVer")) {
    if (value != "2.0") {
      RD_ERROR("Invalid PID version");
      return rd_codes::kRdBadPidVer;
    }
  } else if (name_is(name, "timeout")) {
    int timeout = to_int(value);
    if (timeout > 60000) return rd_codes::kRdBadTimeout;
    request->timeout_given = 1;
    request->timeout = timeout;
  }
  return 0;
}

// Copies env, otp or wadh within their bounds; other names are left alone.
// 0 or 100.
int read_text_opt(const xmlChar* name, const std::string& value, PidOptionsRequest* request) {
  if (name_is(name, "env")) {
    if (!copy_bounded(value, kEnvSize, "env", &request->env)) return rd_codes::kRdBadPidOptions;
  } else if (name_is(name, "otp")) {
    request->otp_given = 1;
    if (!copy_bounded(value, kOtpSize, "otp", &request->otp)) return rd_codes::kRdBadPidOptions;
  } else if (name_is(name, "wadh")) {
    if (!copy_bounded(value, kWadhSize, "wadh", &request->wadh)) return rd_codes::kRdBadPidOptions;
  }
  return 0;
}

// Walks the attributes of one Opts element in document order. 0 or the code
// of the first fault. Each name belongs to one reader alone, so an attribute
// is read once and the faults come in document order.
int read_opts(xmlDoc* doc, const xmlNode* opts, PidOptionsRequest* request, std::string* raw_posh) {
  for (const xmlAttr* a = opts->properties; a != nullptr; a = a->next) {
    const std::string value = attribute_value(doc, a);
    int rc = read_finger_opt(a->name, value, request, raw_posh);
    if (rc == 0) rc = read_mode_opt(a->name, value, request);
    if (rc == 0) rc = read_text_opt(a->name, value, request);
    if (rc != 0) return rc;
  }
  return 0;
}

// Settles the positions after an Opts element. 0 or 220.
int settle_positions(const std::string& raw_posh, PidOptionsRequest* request) {
  RD_LOG_AS("Parse_XML_Request");
  const bool both_kinds = request->fType == 2 && request->fCount >= 2;
  if (raw_posh.empty()) {
    if (both_kinds) {
      RD_ERROR("Invalid position");
      return rd_codes::kRdBadPosh;
    }
    return 0;
  }
  int n = split_positions(raw_posh.c_str(), &request->positions);
  if (both_kinds && n >= 1) {
    for (const auto& p : request->positions) {
      if (p == "UNKNOWN") {
        RD_ERROR("Invalid position");
        return rd_codes::kRdBadPosh;
      }
    }
  }
  if (n == -1) {
    RD_ERROR("Invalid position");
    return rd_codes::kRdBadPosh;
  }
  // A miscounted posh is answered with 220, the code of bad posh data.
  if (n != request->fCount) {
    RD_ERROR("Number of posh positions are not equal to number of finger count");
    return rd_codes::kRdBadPosh;
  }
  return 0;
}

bool write_scratch(const char* body, std::size_t len) REQUIRES(g_validate_mutex) {
  FILE* f = platform::open_file(kScratchFile, "wb");
  if (f == nullptr) return false;
  const bool written = std::fwrite(body, 1, len, f) == len;
  return std::fclose(f) == 0 && written;
}

}  // namespace

int split_positions(const char* raw, std::vector<std::string>* positions) {
  positions->clear();
  const char* p = raw;
  while (*p != '\0') {
    if (*p == ',') {
      ++p;
      continue;
    }
    const char* end = std::strchr(p, ',');
    std::size_t len = end ? static_cast<std::size_t>(end - p) : std::strlen(p);
    if (len > kMaxPositionLength || positions->size() == static_cast<std::size_t>(kMaxFingers))
      return rd_codes::kFailed;
    std::string entry;
    for (std::size_t i = 0; i < len; ++i) {
      if (!std::isspace(static_cast<unsigned char>(p[i]))) entry.push_back(p[i]);
    }
    positions->push_back(entry);
    if (!is_position_name(entry)) return rd_codes::kFailed;
    p += len;
  }
  return static_cast<int>(positions->size());
}

int Pidinput_validate(const char* body) {
  init_libxml();
  platform::MutexLock lock(&g_validate_mutex);
  const std::string schema_path = rd_identity_copy().prefix + "Final.xsd";
  if (schema_path.size() >= kSchemaPathSize) {
    RD_ERROR("Could not parse %s", schema_path.c_str());
    return rd_codes::kFailed;
  }
  const std::size_t len = body ? std::strlen(body) : 0;
  // A scratch file, written and read back under the mutex and deleted on every
  // path, so a plain write is enough: nothing ever reads a torn copy.
  if (!write_scratch(body ? body : "", len)) {
    RD_ERROR("Could not parse %s", kScratchFile);
    std::remove(kScratchFile);
    return rd_codes::kFailed;
  }
  xmlLineNumbersDefault(1);

  int result = rd_codes::kFailed;
  // The schema is read like any other document (no network, no noise); it
  // must outlive the schema built from it, so it is declared first.
  DocPtr schema_doc(xmlReadFile(schema_path.c_str(), nullptr, kParseOptions));
  std::unique_ptr<xmlSchemaParserCtxt, SchemaParserFree> pctxt;
  if (schema_doc) pctxt.reset(xmlSchemaNewDocParserCtxt(schema_doc.get()));
  std::unique_ptr<xmlSchema, SchemaFree> schema;
  if (pctxt) {
    xmlSchemaSetParserStructuredErrors(pctxt.get(), quiet_errors, nullptr);
    schema.reset(xmlSchemaParse(pctxt.get()));
  }
  std::unique_ptr<xmlSchemaValidCtxt, SchemaValidFree> vctxt;
  if (schema) vctxt.reset(xmlSchemaNewValidCtxt(schema.get()));
  if (!vctxt) {
    RD_ERROR("%s validation generated an internal error", kScratchFile);
  } else {
    xmlSchemaSetValidStructuredErrors(vctxt.get(), quiet_errors, nullptr);
    DocPtr doc(xmlReadFile(kScratchFile, nullptr, kParseOptions));
    if (!doc) {
      RD_ERROR("Could not parse %s", kScratchFile);
      result = 1;
    } else {
      result = xmlSchemaValidateDoc(vctxt.get(), doc.get());
      if (result == 0) {
        RD_INFO("%s validates", kScratchFile);
      } else if (result > 0) {
        RD_ERROR("%s fails to validate", kScratchFile);
      } else {
        RD_ERROR("%s validation generated an internal error", kScratchFile);
      }
    }
  }
  std::remove(kScratchFile);
  return result;
}

constexpr char kDefaultEnv = 'P';

int Parse_XML_Request(const char* body, PidOptionsRequest* request) {
  init_libxml();
  *request = PidOptionsRequest{};
  const std::size_t len = body ? std::strlen(body) : 0;
  DocPtr doc;
  if (len <= static_cast<std::size_t>(INT_MAX)) {
    doc.reset(xmlReadMemory(body ? body : "", static_cast<int>(len), "PidOptions.xml", nullptr, kParseOptions));
  }
  if (!doc) {
    RD_ERROR("Failed at xmlParseMemory");
    return rd_codes::kRdBadPidOptions;
  }
  xmlNode* root = xmlDocGetRootElement(doc.get());
  if (root == nullptr) {
    RD_ERROR("xmlDocGetRootElement");
    return rd_codes::kRdBadPidOptions;
  }
  if (!name_is(root->name, "PidOptions")) {
    RD_ERROR("Invalid pidoption input : %s", reinterpret_cast<const char*>(root->name));
    return rd_codes::kRdBadPidOptions;
  }

  // The environment defaults to production. Built and moved in rather than
  // assigned from a literal: GCC 12 misreads the inlined literal copy as an
  // overlapping memcpy (-Wrestrict) in optimised builds.
  request->env = std::string(1, kDefaultEnv);
  bool ver_seen = false;
  for (const xmlAttr* a = root->properties; a != nullptr; a = a->next) {
    if (name_is(a->name, "ver")) {
      std::string ver = attribute_value(doc.get(), a);
      if (ver != "1.0" && ver != "2.0") {
        RD_ERROR("Invalid pid option version : %s", ver.c_str());
        return rd_codes::kRdBadPidOptions;
      }
      request->ver = ver;
      ver_seen = true;
    } else if (name_is(a->name, "env")) {
      std::string env = attribute_value(doc.get(), a);
      if (env.empty()) env = std::string(1, kDefaultEnv);
      if (!copy_bounded(env, kEnvSize, "env", &request->env)) return rd_codes::kRdBadPidOptions;
    }
  }
  if (!ver_seen) {
    RD_ERROR("Invalid pidoption input :Ver atttribute is missing");
    return rd_codes::kRdBadPidOptions;
  }

  std::string raw_posh;
  for (xmlNode* child = xmlFirstElementChild(root); child != nullptr; child = xmlNextElementSibling(child)) {
    if (name_is(child->name, "Opts")) {
      int rc = read_opts(doc.get(), child, request, &raw_posh);
      if (rc == 0) rc = settle_positions(raw_posh, request);
      if (rc != 0) return rc;
    } else if (name_is(child->name, "Demo")) {
      int rc = read_demo(doc.get(), child, request);
      if (rc != 0) return rc;
    }
  }
  return 0;
}

int Allowed_methods(const PidOptionsRequest& request) {
  if (request.finger_requested) return 0;
  if (request.face_requested) {
    RD_ERROR("Face Authentication is not Supported");
    return rd_codes::kFailed;
  }
  if (request.otp_given) {
    RD_ERROR("Only otp Authentication is not allowed");
    return rd_codes::kFailed;
  }
  RD_ERROR("Type of Authentication is not specified");
  return rd_codes::kFailed;
}
