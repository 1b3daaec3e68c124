#include "postauth/PostAuth_xml_parse.h"

#include <libxml/parser.h>
#include <libxml/tree.h>

#include <cstring>
#include <memory>

#include "common/rd_codes.h"
#include "common/rd_log.h"
#include "common/xml_ptr.h"

namespace {

// Errors are reported through the run log, never printed by libxml2.
constexpr int kParseOptions = XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING;
// The request body region is 2048 bytes; nothing longer can arrive.
constexpr std::size_t kMaxBody = 2048;

bool named(const xmlNode* node, const char* name) {
  return node != nullptr && node->type == XML_ELEMENT_NODE &&
         std::strcmp(reinterpret_cast<const char*>(node->name), name) == 0;
}

const xmlNode* first_element(const xmlNode* parent) {
  for (const xmlNode* c = parent != nullptr ? parent->children : nullptr; c != nullptr; c = c->next) {
    if (c->type == XML_ELEMENT_NODE) return c;
  }
  return nullptr;
}

const xmlNode* element_child(const xmlNode* parent, const char* name) {
  for (const xmlNode* c = parent != nullptr ? parent->children : nullptr; c != nullptr; c = c->next) {
    if (named(c, name)) return c;
  }
  return nullptr;
}

// Copies the attribute's text into out (kPostAuthFieldSize bytes), cut so that
// no UTF-8 sequence is split.
void copy_attribute(const xmlNode* node, const char* attr, char* out) {
  out[0] = '\0';
  if (node == nullptr) return;
  XmlCharPtr value(xmlGetProp(const_cast<xmlNode*>(node), reinterpret_cast<const xmlChar*>(attr)));
  if (!value) return;
  const char* text = reinterpret_cast<const char*>(value.get());
  std::size_t n = strnlen(text, kPostAuthFieldSize);
  if (n >= kPostAuthFieldSize) {
    n = kPostAuthFieldSize - 1;
    while (n > 0 && (static_cast<unsigned char>(text[n]) & 0xC0) == 0x80) --n;
  }
  std::memcpy(out, text, n);
  out[n] = '\0';
}

}  // namespace

int PostAuth_Request_XML_Parse(const char* body, PostAuthFields* fields) {
  *fields = PostAuthFields{};
  const std::size_t len = body != nullptr ? strnlen(body, kMaxBody) : 0;
  DocPtr doc;
  if (len > 0) doc.reset(xmlReadMemory(body, static_cast<int>(len), "PostAuth.xml", nullptr, kParseOptions));
  if (!doc) {
    RD_ERROR("Failed at xmlParseMemory");
    return rd_codes::kPostAuthNotXml;
  }
  const xmlNode* root = xmlDocGetRootElement(doc.get());
  if (root == nullptr) {
    RD_ERROR("xmlDocGetRootElement");
    return rd_codes::kRdBadPidOptions;
  }
  if (!named(root, "PostAuth")) {
    RD_ERROR("Invalid pidoption input : %s", reinterpret_cast<const char*>(root->name));
    return rd_codes::kRdBadPidOptions;
  }
  // CustOpts is the root's first element; Param1 and Param2 sit inside it.
  const xmlNode* cust_opts = first_element(root);
  if (!named(cust_opts, "CustOpts")) cust_opts = nullptr;
  const xmlNode* param1 = element_child(cust_opts, "Param1");
  const xmlNode* param2 = element_child(cust_opts, "Param2");
  copy_attribute(param1, "name", fields->param1_name);
  copy_attribute(param1, "value", fields->param1_value);
  copy_attribute(param2, "name", fields->param2_name);
  copy_attribute(param2, "value", fields->param2_value);
  return 0;
}
