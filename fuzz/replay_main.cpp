// Replays a fuzzer's stored inputs as an ordinary test, where there is no libFuzzer.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

int main(int argc, char* argv[]) {
  size_t replayed = 0;
  for (int i = 1; i < argc; i++) {
    for (const auto& entry : std::filesystem::directory_iterator(argv[i])) {
      std::ifstream file(entry.path(), std::ios::binary);
      const std::vector<char> bytes{std::istreambuf_iterator<char>(file), {}};
      fprintf(stderr, "%s\n", entry.path().c_str());
      LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
      replayed++;
    }
  }
  fprintf(stderr, "%zu inputs replayed\n", replayed);
  return replayed == 0 ? 1 : 0;
}
