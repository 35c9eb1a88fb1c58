// Runs a harness once over every file given, or found in a directory given, on the command line: the
// seed corpus then stays a regression suite in every build, under that build's sanitizers, without
// libFuzzer.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

int main(int argc, char** argv) try {
  namespace fs = std::filesystem;
  std::vector<fs::path> files;
  for (int i = 1; i < argc; ++i) {
    if (!fs::is_directory(argv[i])) {
      files.emplace_back(argv[i]);
      continue;
    }
    for (const auto& entry : fs::recursive_directory_iterator(argv[i])) {
      if (entry.is_regular_file()) files.push_back(entry.path());
    }
  }
  // A fixed order makes a failure reproducible from the log alone.
  std::sort(files.begin(), files.end());
  for (const auto& file : files) {
    std::ifstream in(file, std::ios::binary);
    if (!in) {
      std::fprintf(stderr, "cannot read %s\n", file.c_str());
      return 1;
    }
    const std::vector<char> bytes{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    // An exact-size heap copy lets AddressSanitizer see a read one byte past the input.
    const auto buffer = std::make_unique<std::uint8_t[]>(bytes.size());
    std::copy(bytes.begin(), bytes.end(), buffer.get());
    std::fprintf(stderr, "replaying %s (%zu bytes)\n", file.c_str(), bytes.size());
    LLVMFuzzerTestOneInput(buffer.get(), bytes.size());
  }
  // An empty or misnamed corpus would otherwise pass without testing anything.
  if (files.empty()) std::fprintf(stderr, "usage: %s FILE_OR_DIRECTORY... (no inputs found)\n", argv[0]);
  std::printf("replayed %zu inputs\n", files.size());
  return files.empty() ? 1 : 0;
} catch (const std::exception& e) {
  std::fprintf(stderr, "replay failed: %s\n", e.what());
  return 1;
}
