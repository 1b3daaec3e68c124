// TEMPORARY until the download lands.
#ifndef VEXO_MGMT_CORE_DOWNLOAD_H
#define VEXO_MGMT_CORE_DOWNLOAD_H
#include <string>
int download_software_update(const std::string& url, const std::string& checksum, bool wait);
#endif
