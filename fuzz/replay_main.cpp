// Runs a fuzzer's entry on every file given and every file of the folders
// given, as libFuzzer
// would run them once: the corpus and past findings replayed as a test of
// the ordinary build.  A crash or sanitizer report ends the run; the file
// that caused it is named just before.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv);

int main(int argc, char** argv) {
  LLVMFuzzerInitialize(&argc, &argv);
  std::vector<std::filesystem::path> files;
  for (int i = 1; i < argc; ++i) {
    if (std::filesystem::is_regular_file(argv[i])) {
      files.emplace_back(argv[i]);
      continue;
    }
    std::error_code missing;  // a fuzzer without findings has no folder
    for (const auto& entry : std::filesystem::recursive_directory_iterator(argv[i], missing))
      if (entry.is_regular_file()) files.push_back(entry.path());
  }
  if (files.empty()) {
    std::fprintf(stderr, "no input in the folders given\n");
    return 1;
  }
  for (const auto& file : files) {
    std::fprintf(stderr, "%s\n", file.c_str());
    std::ifstream in(file, std::ios::binary);
    const std::vector<uint8_t> bytes{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
  }
  std::fprintf(stderr, "%zu inputs replayed\n", files.size());
  return 0;
}
