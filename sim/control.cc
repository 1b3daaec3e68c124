#include "control.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>

namespace simctl {

platform::Mutex g_sim_mutex;

namespace {

constexpr const char* kControlFile = "sim_control.ini";
constexpr const char* kCallLogFile = "sim_calls.log";

// Process-wide state of this library.
std::string g_last_content GUARDED_BY(g_sim_mutex);
std::map<std::string, std::size_t> g_positions GUARDED_BY(g_sim_mutex);
std::map<std::string, unsigned long> g_counters GUARDED_BY(g_sim_mutex);

// The folder is taken when the library is loaded: the loader may report the
// path it was given, which may be relative to a folder the host leaves later.
const std::string g_library_dir = find_library_dir();

bool read_whole(const std::string& path, std::string* out) {
  out->clear();
  FILE* f = std::fopen(path.c_str(), "rb");
  if (f == nullptr) return false;
  char buf[4096];
  std::size_t n;
  while ((n = std::fread(buf, 1, sizeof buf, f)) > 0) out->append(buf, n);
  std::fclose(f);
  return true;
}

bool parse_long(const std::string& text, long* out) {
  std::size_t b = text.find_first_not_of(" \t");
  std::size_t e = text.find_last_not_of(" \t");
  if (b == std::string::npos) return false;
  const std::string t = text.substr(b, e - b + 1);
  errno = 0;
  char* end = nullptr;
  const long v = std::strtol(t.c_str(), &end, 10);
  if (errno != 0 || end == t.c_str() || *end != '\0') return false;
  *out = v;
  return true;
}

}  // namespace

const std::string& library_dir() { return g_library_dir; }

std::vector<long> parse_list(const std::string& text) {
  std::vector<long> values;
  std::size_t start = 0;
  while (start <= text.size()) {
    std::size_t comma = text.find(',', start);
    if (comma == std::string::npos) comma = text.size();
    long v;
    if (parse_long(text.substr(start, comma - start), &v)) values.push_back(v);
    start = comma + 1;
  }
  return values;
}

ControlCall::ControlCall() : lock_(&g_sim_mutex) {
  const std::string path = g_library_dir + "/" + kControlFile;
  std::string content;
  const bool present = read_whole(path, &content);
  if (content != g_last_content) {
    g_last_content = content;
    g_positions.clear();
    g_counters.clear();
  }
  if (present) dict_.reset(iniparser_load(path.c_str()));
}

std::string ControlCall::text(const char* key, const char* def) const {
  if (!dict_) return def;
  // iniparser keeps keys in lower case; keys outside a section get a leading ':'.
  const std::string in_section = std::string("sim:") + key;
  const std::string top = std::string(":") + key;
  const char* v = iniparser_getstring(dict_.get(), in_section.c_str(), nullptr);
  if (v == nullptr) v = iniparser_getstring(dict_.get(), top.c_str(), nullptr);
  return v != nullptr ? v : def;
}

long ControlCall::number(const char* key, long def) const {
  long v;
  return parse_long(text(key, ""), &v) ? v : def;
}

long ControlCall::bounded(const char* key, long def, long lo, long hi) const {
  const long v = number(key, def);
  return v < lo ? lo : (v > hi ? hi : v);
}

long ControlCall::next(const char* list_key, const char* single_key, long def) {
  const std::vector<long> list = parse_list(text(list_key, ""));
  std::size_t& pos = g_positions[list_key];
  if (pos < list.size()) return list[pos++];
  return single_key != nullptr ? number(single_key, def) : def;
}

unsigned long ControlCall::bump(const char* name) { return g_counters[name]++; }

int scripted(ControlCall& c, const std::string& key) {
  return static_cast<int>(c.next((key + "_results").c_str(), (key + "_result").c_str(), 0));
}

void ControlCall::log_call(const char* name, long result) const {
  if (number("call_log", 0) == 0) return;
  const std::string path = g_library_dir + "/" + kCallLogFile;
  FILE* f = std::fopen(path.c_str(), "ab");
  if (f == nullptr) return;  // the log is a test aid; a read-only folder is no error
  std::fprintf(f, "%s %ld\n", name, result);
  std::fclose(f);
}

}  // namespace simctl
