// Owning handle for iniparser dictionaries, shared by the configuration files.
#ifndef VEXO_COMMON_CONFIG_DICT_H
#define VEXO_COMMON_CONFIG_DICT_H

#include <iniparser.h>

#include <memory>

struct DictFree {
  void operator()(dictionary* d) const { iniparser_freedict(d); }
};
using Dict = std::unique_ptr<dictionary, DictFree>;

#endif  // VEXO_COMMON_CONFIG_DICT_H
