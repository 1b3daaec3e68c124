// Runs a fuzz target's entry point once on each file named, or on each file of
// each folder named (in name order), without libFuzzer: the saved crashes and
// the seed corpus become an ordinary test. A missing folder is skipped, so a
// target without regressions yet still passes.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv);
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

// Reads the whole file; false when it cannot be opened.
bool read_all(const std::filesystem::path& path, std::vector<std::uint8_t>* out) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return false;
  out->assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  // Absolute paths first: the target changes the current folder at start.
  std::vector<std::filesystem::path> files;
  for (int i = 1; i < argc; ++i) {
    std::filesystem::path p = std::filesystem::absolute(argv[i]);
    if (std::filesystem::is_directory(p)) {
      std::vector<std::filesystem::path> in_dir;
      for (const auto& e : std::filesystem::directory_iterator(p)) {
        if (e.is_regular_file()) in_dir.push_back(e.path());
      }
      std::sort(in_dir.begin(), in_dir.end());
      files.insert(files.end(), in_dir.begin(), in_dir.end());
    } else if (std::filesystem::exists(p)) {
      files.push_back(p);
    }
  }
  LLVMFuzzerInitialize(&argc, &argv);
  for (const auto& f : files) {
    std::vector<std::uint8_t> data;
    if (!read_all(f, &data)) {
      std::fprintf(stderr, "cannot read %s\n", f.c_str());
      return 1;
    }
    std::fprintf(stderr, "replaying %s (%zu bytes)\n", f.c_str(), data.size());
    LLVMFuzzerTestOneInput(data.data(), data.size());
  }
  std::fprintf(stderr, "replayed %zu inputs\n", files.size());
  return 0;
}
