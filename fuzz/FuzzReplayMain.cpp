// Runs a harness once over every file given, or found in a directory given, on the command line: the
// seed corpus then stays a regression suite in every build, under that build's sanitizers, without
// libFuzzer.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

int main(int argc, char** argv) {
  namespace fs = std::filesystem;
  std::vector<fs::path> files;
  for (int i = 1; i < argc; ++i) {
    // A file given is not a directory to walk: its iterator then ends at once.
    std::error_code notADirectory;
    if (!fs::is_directory(argv[i])) files.emplace_back(argv[i]);
    for (const auto& entry : fs::recursive_directory_iterator(argv[i], notADirectory))
      if (entry.is_regular_file()) files.push_back(entry.path());
  }
  // A fixed order makes a failure reproducible from the log alone.
  std::sort(files.begin(), files.end());
  for (const auto& file : files) {
    std::ifstream in(file, std::ios::binary);
    if (!in) {
      std::fprintf(stderr, "cannot read %s\n", file.c_str());
      return 1;
    }
    // An exact-size heap copy (a vector made from a string's iterators) lets AddressSanitizer see a
    // read one byte past the input.
    const std::string text{std::istreambuf_iterator<char>(in), {}};
    const std::vector<std::uint8_t> bytes(text.begin(), text.end());
    std::fprintf(stderr, "replaying %s (%zu bytes)\n", file.c_str(), bytes.size());
    LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
  }
  // An empty or misnamed corpus would otherwise pass without testing anything.
  if (files.empty()) std::fprintf(stderr, "usage: %s FILE_OR_DIRECTORY... (no inputs found)\n", argv[0]);
  std::printf("replayed %zu inputs\n", files.size());
  return files.empty() ? 1 : 0;
}
