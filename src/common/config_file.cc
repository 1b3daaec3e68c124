// The sealed config.ini belongs to the configuration module: its lines keep that name.
#define VEXO_LOG_FILE "config"
#include "common/config_file.h"

#include <cstdio>
#include <string>

#include "common/config_dict.h"
#include "common/file_crc.h"
#include "common/rd_codes.h"
#include "common/rd_config.h"
#include "common/rd_log.h"
#include "platform/platform.h"

using rd_codes::kFailed;

namespace {

// A change of config.ini is staged beside it with its seal, then both are
// renamed into place; a crash in between is completed or undone at the next read.
constexpr char kConfigNext[] = "./config.ini.next";
constexpr char kCrcNext[] = "bin_crc.txt.next";

// Loads source, sets key to value and writes the result to target, under the
// name of the design's function that asked. 0 or -1.
int set_config_key(const char* function, const char* source, const char* target, const char* key,
                   const std::string& value, const char* set_error, const char* write_error) {
  RD_LOG_AS(function);
  Dict ini(iniparser_load(source));
  if (ini == nullptr) {
    RD_ERROR("Error in opening file %s", kConfigPath);
    return kFailed;
  }
  if (iniparser_set(ini.get(), key, value.c_str()) != 0) {
    RD_ERROR("%s", set_error);
    return kFailed;
  }
  if (WriteToIniFile(ini.get(), target) != 0) {
    RD_ERROR("%s", write_error);
    return kFailed;
  }
  platform::crash_point();
  return 0;
}

// The same for the setters, whose change is staged as config.ini.next (on
// top of a change staged before and not yet sealed).
int stage_setter_key(const char* function, const char* key, const std::string& value, const char* set_error,
                     const char* write_error) {
  std::remove(kCrcNext);  // any seal staged earlier no longer matches
  return set_config_key(function, platform::file_exists(kConfigNext) ? kConfigNext : kConfigPath, kConfigNext, key,
                        value, set_error, write_error);
}

// A refused value is reported under the design's function that got it.
bool value_refused(const char* function, const char* key, const char* value) {
  RD_LOG_AS(function);
  if (value == nullptr) return true;
  if (ini_value_ok(value)) return false;
  RD_ERROR("Refused a %s value with a line break", key);
  return true;
}

}  // namespace

void recover_config_swap() {
  // Temporary files of replacements that a crash cut short, in every folder
  // whose files the library rewrites.
  const std::string prefix = rd_identity_copy().prefix;
  for (const char* dir : {"", "keystore", "cert/public", "cert/uidai", "DownloadSW"}) {
    platform::remove_stale_temporaries(*dir == '\0' ? prefix : prefix + dir);
  }
  if (platform::file_exists(kConfigNext)) {
    if (platform::file_exists(kCrcNext) && verify_crc(kCrc16, kConfigNext, kCrcNext) == 0 &&
        platform::rename_over(kConfigNext, kConfigPath) == 0 && platform::rename_over(kCrcNext, kCrcPath) == 0) {
      RD_INFO("Completed the interrupted update of config.ini");
      return;
    }
    RD_INFO("Discarded an unsealed update of config.ini");
    std::remove(kConfigNext);
    std::remove(kCrcNext);
    return;
  }
  if (platform::file_exists(kCrcNext)) {
    // The new config.ini is in place; only its seal is still beside it.
    if (verify_crc(kCrc16, kConfigPath, kCrcNext) == 0 && platform::rename_over(kCrcNext, kCrcPath) == 0) {
      RD_INFO("Completed the interrupted update of config.ini");
      return;
    }
    std::remove(kCrcNext);
  }
}

int seal_config_file() {
  if (!platform::file_exists(kConfigNext)) {
    RD_ERROR("No staged config.ini to seal");
    return 3;
  }
  const int sealed = add_crc(kCrc16, kConfigNext, kCrcNext);
  if (sealed != 0) return sealed;
  platform::crash_point();
  if (platform::rename_over(kConfigNext, kConfigPath) != 0) {
    RD_ERROR("Renaming %s failed", kConfigNext);
    return 3;
  }
  platform::crash_point();
  if (platform::rename_over(kCrcNext, kCrcPath) != 0) {
    RD_ERROR("Renaming %s failed", kCrcNext);
    return 3;
  }
  platform::crash_point();
  return 0;
}

int WriteToIniFile(dictionary* dict, const char* path) {
  if (dict == nullptr || path == nullptr) {
    RD_ERROR("Error Ini file not present to write dc value");
    return kFailed;
  }
  auto dump = [dict](std::FILE* f) {
    iniparser_dump_ini(dict, f);
    return true;
  };
  if (platform::write_file_atomic_stream(path, dump) != 0) {
    RD_ERROR("Error Ini file not present to write dc value");
    return kFailed;
  }
  return 0;
}

bool ini_value_ok(std::string_view value) { return value.find_first_of(std::string_view("\r\n\0", 3)) == value.npos; }

// dc as stored: with a newline on purpose, which the INI reader strips again.
// An INI library that quotes values when it writes them (iniparser 4.2) would
// keep it inside the quotes and break the line, so there the value goes alone.
static std::string dc_value(const char* dc) {
  constexpr bool kIniQuotesValues = VEXO_INI_QUOTES_VALUES != 0;
  return std::string(dc) + (kIniQuotesValues ? "" : "\n");
}

int write_config_file(const char* dc) {
  if (value_refused("write_config_file", "dc", dc)) return kFailed;
  return stage_setter_key("write_config_file", "CONFIG:dc", dc_value(dc), "Error iniparser_set  to write dc value",
                          "Error at to write dc value in ini file");
}

int stage_config_file_dc(const char* dc) {
  if (value_refused("write_config_file", "dc", dc)) return kFailed;
  std::remove(kCrcStaged);
  return set_config_key("write_config_file", kConfigPath, kConfigStaged, "CONFIG:dc", dc_value(dc),
                        "Error iniparser_set  to write dc value", "Error at to write dc value in ini file");
}

int write_config_file_ssl_enable(const char* value) {
  if (value_refused("write_config_file_ssl_enable", "is_ssl_enable", value)) return kFailed;
  return stage_setter_key("write_config_file_ssl_enable", "CONFIG:is_ssl_enable", std::string(value).substr(0, 7),
                          "Error iniparser_set  to write ssl_enable value",
                          "Error at to write ssl_enable value in ini file");
}
