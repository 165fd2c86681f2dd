// What the fuzz targets share. FUZZ_TARGET(input) { ... } is libFuzzer's entry with the input as
// text; FUZZ_CHECK aborts with the broken invariant in every build (NDEBUG would drop an assert).
// Without libFuzzer (TARNLY_FUZZ_REPLAY) main runs every file of the folders on the command line
// through the target once; a missing folder is skipped, an unreadable file or no input fails.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

#define FUZZ_CHECK(condition)                                                                  \
  ((condition) ? void()                                                                        \
               : (std::fprintf(stderr, "%s:%d: broken: %s\n", __FILE__, __LINE__, #condition), \
                  std::abort()))

#define FUZZ_TARGET(input)                                                            \
  static void fuzzOne(std::string_view input);                                        \
  extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) { \
    return fuzzOne(std::string_view(reinterpret_cast<const char*>(data), size)), 0;   \
  }                                                                                   \
  static void fuzzOne(std::string_view input)

#ifdef TARNLY_FUZZ_REPLAY
#include <filesystem>
#include <fstream>
#include <iterator>
static void fuzzOne(std::string_view input);

int main(int argc, char** argv) {
  int replayed = 0;
  for (int i = 1; i < argc; ++i) {
    std::error_code missing;
    for (const auto& file : std::filesystem::directory_iterator(argv[i], missing)) {
      std::ifstream in(file.path(), std::ios::binary);
      (void)std::fprintf(stderr, "replaying %s\n", file.path().c_str());
      FUZZ_CHECK(in.good());
      fuzzOne(std::string{std::istreambuf_iterator<char>(in), {}}), ++replayed;
    }
  }
  return replayed > 0 ? 0 : 1;
}
#endif
