// Runs every file of the folders named on the command line through the fuzz target once, for the
// builds without libFuzzer: the corpus and the crash inputs become a regression test. A missing
// folder is skipped; an unreadable file fails the run.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

int main(int argc, char** argv) {
  int replayed = 0;
  for (int i = 1; i < argc; ++i) {
    std::error_code error;
    if (!std::filesystem::is_directory(argv[i], error)) continue;
    std::vector<std::filesystem::path> files;
    for (const auto& entry : std::filesystem::directory_iterator(argv[i])) {
      if (entry.is_regular_file()) files.push_back(entry.path());
    }
    for (const auto& file : files) {
      std::ifstream in(file, std::ios::binary);
      if (!in) {
        (void)std::fprintf(stderr, "cannot read %s\n", file.c_str());
        return 1;
      }
      const std::vector<char> bytes{std::istreambuf_iterator<char>(in), {}};
      (void)std::fprintf(stderr, "replaying %s\n", file.c_str());
      LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
      ++replayed;
    }
  }
  (void)std::fprintf(stderr, "%d inputs replayed\n", replayed);
  return replayed > 0 ? 0 : 1;
}
