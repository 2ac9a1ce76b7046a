// Stands in for libFuzzer where there is none: runs a target over the files that are named, once each. So the
// committed inputs are tests in every build, and a target can't fall behind what it calls.
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

int main(int count, char** files) {
  if (count < 2) {
    std::fprintf(stderr, "replay: no inputs\n");
    return 2;
  }
  for (int i = 1; i < count; ++i) {
    std::ifstream file(files[i], std::ios::binary);
    if (!file) {
      std::fprintf(stderr, "replay: %s can't be read\n", files[i]);
      return 1;
    }
    const std::string input{std::istreambuf_iterator<char>(file), {}};
    LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(input.data()), input.size());
  }
  std::printf("replay: %d inputs\n", count - 1);
  return 0;
}
