// Owners for libxml2 objects: std::unique_ptr<T, XFree> frees them on every
// path. One set for the whole library, so each module only names its type.
#ifndef VEXO_COMMON_XML_PTR_H
#define VEXO_COMMON_XML_PTR_H

#include <libxml/tree.h>
#include <libxml/xmlmemory.h>
#include <libxml/xmlschemas.h>

#include <memory>

struct DocFree {
  void operator()(xmlDoc* d) const { xmlFreeDoc(d); }
};
// Texts that libxml2 allocates (xmlGetProp, xmlNodeListGetString, dumps).
struct XmlCharFree {
  void operator()(xmlChar* s) const { xmlFree(s); }
};
struct SchemaParserFree {
  void operator()(xmlSchemaParserCtxt* c) const { xmlSchemaFreeParserCtxt(c); }
};
struct SchemaFree {
  void operator()(xmlSchema* s) const { xmlSchemaFree(s); }
};
struct SchemaValidFree {
  void operator()(xmlSchemaValidCtxt* c) const { xmlSchemaFreeValidCtxt(c); }
};

using DocPtr = std::unique_ptr<xmlDoc, DocFree>;
using XmlCharPtr = std::unique_ptr<xmlChar, XmlCharFree>;

#endif  // VEXO_COMMON_XML_PTR_H
