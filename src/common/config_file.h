// The sealed config.ini: a change is staged beside it as config.ini.next,
// sealed, and renamed into place with its seal, so that a crash at any step
// leaves either the old pair or the new one. The configuration reader, the
// exported setters and the Management operations write through here.
//
// Paths are relative to the current folder. Thread-safety: meant for start-up
// and the host's management thread; the Management operations hold the scanner
// lock while they change the pair.
#ifndef VEXO_COMMON_CONFIG_FILE_H
#define VEXO_COMMON_CONFIG_FILE_H

#include <string_view>

typedef struct _dictionary_ dictionary;

// The configuration file and its seal.
inline constexpr char kConfigPath[] = "./config.ini";
inline constexpr char kCrcPath[] = "bin_crc.txt";

// The key rotation's copy of config.ini and its seal: made beside the pair in
// force and put in place together with the new key (keystore.h).
inline constexpr char kConfigStaged[] = "./config.ini.staged";
inline constexpr char kCrcStaged[] = "bin_crc.txt.staged";

// True when value can be one INI value: no CR, LF or NUL, which would end it
// and let the rest stand as keys or sections of their own. Every writer of
// config.ini and proxy.ini refuses other values.
bool ini_value_ok(std::string_view value);

// Sets dc ("dc\n") in a staged copy of config.ini; seal_config_file puts it
// in place. 0 or -1.
int write_config_file(const char* dc);
// Sets dc in a copy of config.ini written to kConfigStaged; config.ini stays
// as it is. The caller seals it into kCrcStaged. 0 or -1.
int stage_config_file_dc(const char* dc);
// Seals the staged config.ini and renames it and its seal into place, the
// configuration first. 0; 3 no staged file, sealing or renaming failed; -1
// the seal file cannot be created. A crash at any step leaves a pair that
// recover_config_swap completes (both staged files whole) or undoes.
int seal_config_file();
// Completes or discards a sealed change that a crash interrupted, and
// removes the temporary files of cut-short replacements in the working
// folder. Run before config.ini is read.
void recover_config_swap();
// Dumps dict to path through a temporary file renamed over it. 0 or -1.
int WriteToIniFile(dictionary* dict, const char* path);
// Sets is_ssl_enable (at most 7 characters kept) in a staged copy of
// config.ini, like write_config_file. 0 or -1.
int write_config_file_ssl_enable(const char* value);

#endif  // VEXO_COMMON_CONFIG_FILE_H
