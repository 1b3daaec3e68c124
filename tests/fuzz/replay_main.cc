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
#include <vector>

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv);
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

int main(int argc, char** argv) {
  namespace fs = std::filesystem;
  // Absolute paths first: the target changes the current folder at start.
  std::vector<fs::path> files;
  for (int i = 1; i < argc; ++i) {
    const fs::path p = fs::absolute(argv[i]);
    std::vector<fs::path> found;
    if (fs::is_directory(p)) {
      for (const auto& e : fs::directory_iterator(p)) {
        if (e.is_regular_file()) found.push_back(e.path());
      }
    } else if (fs::exists(p)) {
      found.push_back(p);
    }
    std::sort(found.begin(), found.end());
    files.insert(files.end(), found.begin(), found.end());
  }
  LLVMFuzzerInitialize(&argc, &argv);
  for (const auto& f : files) {
    std::ifstream in(f, std::ios::binary);
    if (!in) {
      std::fprintf(stderr, "cannot read %s\n", f.c_str());
      return 1;
    }
    const std::vector<std::uint8_t> data{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    std::fprintf(stderr, "replaying %s (%zu bytes)\n", f.c_str(), data.size());
    LLVMFuzzerTestOneInput(data.data(), data.size());
  }
  std::fprintf(stderr, "replayed %zu inputs\n", files.size());
  return 0;
}
