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

namespace {

namespace fs = std::filesystem;

std::vector<fs::path> inputsOf(const fs::path& argument) {
  if (!fs::is_directory(argument)) return {argument};
  std::vector<fs::path> files;
  for (const auto& entry : fs::recursive_directory_iterator(argument)) {
    if (entry.is_regular_file()) files.push_back(entry.path());
  }
  // A fixed order makes a failure reproducible from the log alone.
  std::sort(files.begin(), files.end());
  return files;
}

bool replay(const fs::path& file) {
  std::ifstream in(file, std::ios::binary);
  if (!in) return false;
  const std::vector<char> bytes{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
  // An exact-size heap copy lets AddressSanitizer see a read one byte past the input.
  auto buffer = std::make_unique<std::uint8_t[]>(bytes.size());
  std::copy(bytes.begin(), bytes.end(), buffer.get());
  std::fprintf(stderr, "replaying %s (%zu bytes)\n", file.c_str(), bytes.size());
  LLVMFuzzerTestOneInput(buffer.get(), bytes.size());
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: %s FILE_OR_DIRECTORY...\n", argv[0]);
    return 2;
  }
  try {
    std::size_t count = 0;
    for (int i = 1; i < argc; ++i) {
      for (const auto& file : inputsOf(argv[i])) {
        if (!replay(file)) {
          std::fprintf(stderr, "cannot read %s\n", file.c_str());
          return 1;
        }
        ++count;
      }
    }
    // An empty or misnamed corpus would otherwise pass without testing anything.
    if (count == 0) {
      std::fprintf(stderr, "no inputs found\n");
      return 1;
    }
    std::printf("replayed %zu inputs\n", count);
    return 0;
  } catch (const std::exception& e) {
    std::fprintf(stderr, "replay failed: %s\n", e.what());
    return 1;
  }
}
