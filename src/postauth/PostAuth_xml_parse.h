// Parser of the POSTAUTH request body:
//   <PostAuth><CustOpts><Param1 name="PRINTER" value="text"/>
//   <Param2 name="GET_BATTERYSTATUS" value=""/></CustOpts></PostAuth>
// The command is in each Param's name attribute, its data in the value
// attribute. Network access and entity loading are off.
//
// Thread-safety: may run on many connection threads at once.
#ifndef VEXO_POSTAUTH_POSTAUTH_XML_PARSE_H
#define VEXO_POSTAUTH_POSTAUTH_XML_PARSE_H

#include <cstddef>

// Room of each parsed text, the terminating NUL included.
constexpr std::size_t kPostAuthFieldSize = 256;

// The four texts of a request; a missing element or attribute leaves "".
struct PostAuthFields {
  char param1_name[kPostAuthFieldSize] = {};
  char param1_value[kPostAuthFieldSize] = {};
  char param2_name[kPostAuthFieldSize] = {};
  char param2_value[kPostAuthFieldSize] = {};
};

// Parses body (NUL-terminated) into *fields, cleared first. Longer texts are
// cut to 255 bytes at a character boundary.
// 0 parsed; -1 not XML ("Failed at xmlParseMemory"); 100 no root element
// ("xmlDocGetRootElement") or a root other than PostAuth ("Invalid pidoption input : %s").
int PostAuth_Request_XML_Parse(const char* body, PostAuthFields* fields);

#endif  // VEXO_POSTAUTH_POSTAUTH_XML_PARSE_H
