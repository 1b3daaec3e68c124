#include "rd_core/pid_data.h"

#include <libxml/entities.h>
#include <libxml/parser.h>
#include <libxml/tree.h>

#include <cstdio>
#include <memory>

#include "init/rd_log.h"

namespace {

struct ErrorText {
  int code;
  const char* text;
};

// Negative codes and 3..73 are the handheld printer's states (PostAuth); the
// capture path uses -1, 0 and the codes from 100 upward. Some texts keep the
// spelling and blanks that clients already match on.
constexpr ErrorText kErrorTexts[] = {
    {-60, "Getting ID's from Device is failed"},
    {-50, "Printing data is Failed"},
    {-40, "Invalid XML is Recieved from Clinet"},
    {-30, "Getting Firmware Version is Failed from the Device"},
    {-20, "Getting Battery Status is Failed from the Device "},
    {-10, "Opening COM Port is failed for device"},
    {-1, "Command Not Sent to Device"},
    {0, "SUCCESS"},
    {3, "Paper Roll is Finished or Not Present"},
    {5, "Sensor Temperature Exceeded the Range"},
    {7, "Sensor Temperature Exceeded the Range and Paper Roll is also Finished or Not Present"},
    {9, "Paper Roll Patch is left Opened"},
    {11, "Paper Roll Patch is Opened and Paper Roll is also Finished or Not Present"},
    {13, "Sensor Temperature Exceeded the Range and Paper Roll Patch is also left Opened"},
    {65, "Battery of Device is Low"},
    {67, "Battery of Device is Low and Paper Roll is also Finished or Not Present"},
    {69, "Sensor Temperature Exceeded the Range and Battery of Device is also Low"},
    {73, "Paper Roll Patch is left Opened and Battery of Device is also Low"},
    {100, "Invalid PidOptions input. XML should strictly adhere to spec."},
    {110, "Invalid value for fType"},
    {120, "Invalid value for fCount"},
    {130, "Invalid value for iType"},
    {140, "Invalid value for iCount"},
    {150, "Invalid value for pidVer"},
    {160, "Invalid value for timeout"},
    {170, "Number of posh positions are not equal to number of finger count"},
    {180, "Face matching is not supported"},
    {190, "Invalid value for format"},
    {200, "Invalid Demo structure"},
    {210, "Protobuf format not supported"},
    {220, "Invalid data in posh"},
    {240, "UIDAI Certificate is INVALID"},
    {505, "Invalid Http Version"},
    {700, "Capture timed out"},
    {710, "Being used by another application"},
    {720, "Device not ready"},
    {730, "Capture Failed"},
    {740, "Device needs to be re-initialized"},
    {750, "RD Service does not support fingerprints"},
    {760, "RD Service does not support Iris"},
    {770, "Invalid URL"},
    {790, "Invalid Command/Request"},
    {999, "Internal error"},
};

struct DocFree {
  void operator()(xmlDoc* d) const { xmlFreeDoc(d); }
};

const xmlChar* X(const char* s) { return reinterpret_cast<const xmlChar*>(s); }

bool set_attr(xmlNode* node, const char* name, const std::string& value) {
  return xmlNewProp(node, X(name), X(value.c_str())) != nullptr;
}

bool set_int_attr(xmlNode* node, const char* name, int value) {
  char text[16];
  std::snprintf(text, sizeof text, "%d", value);
  return xmlNewProp(node, X(name), X(text)) != nullptr;
}

// A child element with escaped text content; an empty text leaves it empty.
xmlNode* new_text_child(xmlNode* parent, const char* name, const std::string& text) {
  xmlNode* node = xmlNewChild(parent, nullptr, X(name), nullptr);
  if (node == nullptr || text.empty()) return node;
  xmlNode* content = xmlNewDocText(parent->doc, X(text.c_str()));
  if (content == nullptr || xmlAddChild(node, content) == nullptr) {
    xmlFreeNode(content);
    return nullptr;
  }
  return node;
}

}  // namespace

const char* rd_error_text(int code) {
  for (const auto& entry : kErrorTexts) {
    if (entry.code == code) return entry.text;
  }
  return nullptr;
}

void set_pid_error(PidDataResponse* response, int code) {
  const char* text = rd_error_text(code);
  response->errCode = code;
  response->errInfo = text ? text : "";
  response->ci.clear();
  response->skey.clear();
  response->hmac.clear();
  response->data.clear();
}

std::string format_finger_list(const int* values, int count) {
  std::string list;
  if (count > kMaxFingers) count = kMaxFingers;
  for (int i = 0; i < count; ++i) {
    char item[16];
    std::snprintf(item, sizeof item, "%03d,", values[i]);
    list += item;
  }
  if (!list.empty()) list.pop_back();
  return list;
}

int FramePidOutputOuterXML(const PidDataResponse& r, std::string* out) {
  out->clear();
  // libxml2's first initialisation is not safe to race; C++ runs this once.
  static const bool initialised = (xmlInitParser(), true);
  (void)initialised;
  std::unique_ptr<xmlDoc, DocFree> doc(xmlNewDoc(X("1.0")));
  if (!doc) {
    RD_ERROR("Error at xmlNewDoc");
    return -1;
  }
  xmlNode* root = xmlNewNode(nullptr, X("PidData"));
  if (root == nullptr) {
    RD_ERROR("Error at xmlNewNode");
    return -1;
  }
  // Owned by the document from here on, so every later failure frees it too.
  xmlDocSetRootElement(doc.get(), root);

  xmlNode* resp = xmlNewChild(root, nullptr, X("Resp"), nullptr);
  if (resp == nullptr || !set_int_attr(resp, "errCode", r.errCode) || !set_attr(resp, "errInfo", r.errInfo) ||
      !set_int_attr(resp, "fCount", r.fCount) || !set_int_attr(resp, "fType", r.fType) ||
      !set_int_attr(resp, "iCount", r.iCount) || !set_int_attr(resp, "iType", r.iType) ||
      !set_int_attr(resp, "pCount", r.pCount) || !set_int_attr(resp, "pType", r.pType) ||
      !set_attr(resp, "nmPoints", format_finger_list(r.nmPoints, r.fCount)) ||
      !set_attr(resp, "qScore", format_finger_list(r.qScore, r.fCount))) {
    RD_ERROR("Error xmlNewChild");
    return -1;
  }

  xmlNode* info = xmlNewChild(root, nullptr, X("DeviceInfo"), nullptr);
  if (info == nullptr || !set_attr(info, "dpId", r.dpId) || !set_attr(info, "rdsId", r.rdsId) ||
      !set_attr(info, "rdsVer", r.rdsVer) || !set_attr(info, "dc", r.dc) || !set_attr(info, "mi", r.mi) ||
      !set_attr(info, "mc", r.mc)) {
    RD_ERROR("Error at xmlNewChild");
    return -1;
  }
  xmlNode* additional = xmlNewChild(info, nullptr, X("additional_info"), nullptr);
  if (additional == nullptr) {
    RD_ERROR("Error xmlNewChild");
    return -1;
  }
  xmlNode* param = xmlNewChild(additional, nullptr, X("Param"), nullptr);
  if (param == nullptr || !set_attr(param, "name", "srno") || !set_attr(param, "value", r.srno)) {
    RD_ERROR("Error at xmlNewChild");
    return -1;
  }

  xmlNode* skey = new_text_child(root, "Skey", r.skey);
  xmlNode* hmac = skey && set_attr(skey, "ci", r.ci) ? new_text_child(root, "Hmac", r.hmac) : nullptr;
  xmlNode* data = hmac ? new_text_child(root, "Data", r.data) : nullptr;
  if (data == nullptr || !set_attr(data, "type", r.type)) {
    RD_ERROR("Error at xmlNewChild");
    return -1;
  }

  xmlChar* text = nullptr;
  int size = 0;
  xmlDocDumpMemory(doc.get(), &text, &size);
  if (text == nullptr || size < 0) {
    xmlFree(text);
    RD_ERROR("Error at xmlDocDumpMemory");
    return -1;
  }
  out->assign(reinterpret_cast<const char*>(text), static_cast<std::size_t>(size));
  xmlFree(text);
  return 0;
}

std::string xml_escape_attribute(const std::string& text) {
  if (text.find_first_of("&<>\"\r") == std::string::npos) return text;
  std::unique_ptr<xmlChar, decltype(xmlFree)> escaped(
      xmlEncodeSpecialChars(nullptr, reinterpret_cast<const xmlChar*>(text.c_str())), xmlFree);
  if (!escaped) return std::string();
  return reinterpret_cast<const char*>(escaped.get());
}
