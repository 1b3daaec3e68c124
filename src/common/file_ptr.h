// Owner for C streams: a FilePtr closes its FILE on every path. A writer that
// must know whether the close succeeded calls std::fclose(f.release()) itself.
#ifndef VEXO_COMMON_FILE_PTR_H
#define VEXO_COMMON_FILE_PTR_H

#include <cstdio>
#include <memory>

struct FileClose {
  void operator()(std::FILE* f) const { std::fclose(f); }
};
using FilePtr = std::unique_ptr<std::FILE, FileClose>;

#endif  // VEXO_COMMON_FILE_PTR_H
