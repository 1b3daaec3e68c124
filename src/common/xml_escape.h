// The one escaper for texts that the library writes into its XML answers by
// hand (DeviceInfo, PostAuthResp): values from outside (a device, the
// Management server) placed inside a double-quoted attribute.
//
// Thread-safety: reentrant.
#ifndef VEXO_COMMON_XML_ESCAPE_H
#define VEXO_COMMON_XML_ESCAPE_H

#include <string>
#include <string_view>

// text made safe for a double-quoted attribute of a UTF-8 document: &, <, >
// and " become their entities; TAB, LF and CR become &#9;, &#10; and &#13;,
// so that a reader gets them back and an answer stays on its lines; other
// control characters (which XML cannot carry) are dropped; a byte that
// starts no valid UTF-8 sequence becomes '?'. Plain text comes back unchanged.
std::string xml_escape_attribute(std::string_view text);

#endif  // VEXO_COMMON_XML_ESCAPE_H
