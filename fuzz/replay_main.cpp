// Replays fuzz inputs without libFuzzer: each argument is a file, or a
// directory whose regular files are all fed to LLVMFuzzerTestOneInput. Used
// by ctest to run the seed corpus in every build.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

bool replayFile(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    fprintf(stderr, "cannot read %s\n", path.c_str());
    return false;
  }
  std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  // A buffer of exactly the file's size, so that ASan sees any read past it.
  std::vector<uint8_t> exact(bytes.begin(), bytes.end());
  LLVMFuzzerTestOneInput(exact.data(), exact.size());
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  int files = 0;
  bool ok = true;
  for (int i = 1; i < argc; ++i) {
    std::error_code ec;
    std::filesystem::path arg(argv[i]);
    if (std::filesystem::is_directory(arg, ec)) {
      for (const auto& entry : std::filesystem::directory_iterator(arg, ec)) {
        if (!entry.is_regular_file()) continue;
        ok = replayFile(entry.path()) && ok;
        ++files;
      }
    } else {
      ok = replayFile(arg) && ok;
      ++files;
    }
  }
  printf("replayed %d inputs\n", files);
  return ok && files > 0 ? 0 : 1;
}
