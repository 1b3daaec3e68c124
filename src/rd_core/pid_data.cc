// PidData framing reports as part of the capture module.
#define VEXO_LOG_FILE "api"
#include "rd_core/pid_data.h"

#include <libxml/parser.h>
#include <libxml/tree.h>

#include <cstdio>
#include <memory>

#include "common/rd_codes.h"
#include "common/rd_log.h"
#include "common/xml_ptr.h"

using rd_codes::kFailed;

namespace {

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

const char* rd_error_text(int code) { return rd_codes::code_message(rd_codes::Family::kRd, code); }

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
  DocPtr doc(xmlNewDoc(X("1.0")));
  if (!doc) {
    RD_ERROR("Error at xmlNewDoc");
    return kFailed;
  }
  xmlNode* root = xmlNewNode(nullptr, X("PidData"));
  if (root == nullptr) {
    RD_ERROR("Error at xmlNewNode");
    return kFailed;
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
    return kFailed;
  }

  xmlNode* info = xmlNewChild(root, nullptr, X("DeviceInfo"), nullptr);
  if (info == nullptr || !set_attr(info, "dpId", r.dpId) || !set_attr(info, "rdsId", r.rdsId) ||
      !set_attr(info, "rdsVer", r.rdsVer) || !set_attr(info, "dc", r.dc) || !set_attr(info, "mi", r.mi) ||
      !set_attr(info, "mc", r.mc)) {
    RD_ERROR("Error at xmlNewChild");
    return kFailed;
  }
  xmlNode* additional = xmlNewChild(info, nullptr, X("additional_info"), nullptr);
  if (additional == nullptr) {
    RD_ERROR("Error xmlNewChild");
    return kFailed;
  }
  xmlNode* param = xmlNewChild(additional, nullptr, X("Param"), nullptr);
  if (param == nullptr || !set_attr(param, "name", "srno") || !set_attr(param, "value", r.srno)) {
    RD_ERROR("Error at xmlNewChild");
    return kFailed;
  }

  xmlNode* skey = new_text_child(root, "Skey", r.skey);
  xmlNode* hmac = skey && set_attr(skey, "ci", r.ci) ? new_text_child(root, "Hmac", r.hmac) : nullptr;
  xmlNode* data = hmac ? new_text_child(root, "Data", r.data) : nullptr;
  if (data == nullptr || !set_attr(data, "type", r.type)) {
    RD_ERROR("Error at xmlNewChild");
    return kFailed;
  }

  xmlChar* raw = nullptr;
  int size = 0;
  xmlDocDumpMemory(doc.get(), &raw, &size);
  const XmlCharPtr text(raw);
  if (text == nullptr || size < 0) {
    RD_ERROR("Error at xmlDocDumpMemory");
    return kFailed;
  }
  out->assign(reinterpret_cast<const char*>(text.get()), static_cast<std::size_t>(size));
  return 0;
}
