// What the fuzz targets share. FUZZ_TARGET(input) { ... } is libFuzzer's entry with the input as
// text; FUZZ_CHECK aborts with the broken invariant in every build (NDEBUG would drop an assert).
// The builds without libFuzzer define TARNLY_FUZZ_REPLAY: main then runs every file of the folders
// named on the command line through the target once, so the corpus and the crash inputs become a
// regression test. A missing folder is skipped; an unreadable file, or no input at all, fails.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

[[noreturn]] inline void fuzzBroken(const char* file, int line, const char* condition) {
  (void)std::fprintf(stderr, "%s:%d: invariant broken: %s\n", file, line, condition);
  std::abort();
}
#define FUZZ_CHECK(condition) ((condition) ? void() : fuzzBroken(__FILE__, __LINE__, #condition))

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

static void fuzzOne(std::string_view input);  // the target's body, from FUZZ_TARGET

int main(int argc, char** argv) {
  int replayed = 0;
  for (int i = 1; i < argc; ++i) {
    std::error_code missing;
    for (const auto& file : std::filesystem::directory_iterator(argv[i], missing)) {
      std::ifstream in(file.path(), std::ios::binary);
      if (!in) return std::fprintf(stderr, "cannot read %s\n", file.path().c_str()), 1;
      (void)std::fprintf(stderr, "replaying %s\n", file.path().c_str());
      const std::string bytes{std::istreambuf_iterator<char>(in), {}};
      fuzzOne(bytes);
      ++replayed;
    }
  }
  return replayed > 0 ? 0 : 1;
}
#endif
