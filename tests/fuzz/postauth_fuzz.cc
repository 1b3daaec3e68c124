// The POSTAUTH request-body parser on any body.
#include <cstdint>
#include <cstring>
#include <string>

#include "fuzz_env.h"
#include "common/work_area.h"
#include "postauth/PostAuth_xml_parse.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string body = fuzz_text(data, size, kReqBodySize - 1);
  PostAuthFields fields;
  PostAuth_Request_XML_Parse(body.c_str(), &fields);
  for (const char* f : {fields.param1_name, fields.param1_value, fields.param2_name, fields.param2_value}) {
    if (strnlen(f, kPostAuthFieldSize) >= kPostAuthFieldSize) fuzz_fail("field not terminated");
  }
  return 0;
}
