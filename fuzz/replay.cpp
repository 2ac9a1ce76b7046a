// Replaces libFuzzer in other builds: runs a target once over each input of a folder, and then over mutated
// copies. So every build tests earlier findings, and a target can't rot. Usage: TARGET FOLDER COPIES [SEED].
// The seed is printed; passing it repeats a run.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

constexpr std::size_t maxInputBytes = 4096;

std::vector<std::string> ReadInputs(const char* folder) {
  std::vector<std::filesystem::path> files;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) files.push_back(entry.path());
  std::sort(files.begin(), files.end());
  std::vector<std::string> inputs;
  for (const auto& path : files) {
    std::ifstream file(path, std::ios::binary);
    inputs.emplace_back(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
  }
  return inputs;
}

std::string Changed(const std::vector<std::string>& inputs, std::mt19937_64& random) {
  const auto below = [&](std::size_t limit) { return static_cast<std::size_t>(random() % limit); };
  std::string input = inputs[below(inputs.size())];
  for (std::size_t i = below(8) + 1; i > 0; --i) {
    const std::size_t at = below(input.size() + 1);
    const std::size_t change = below(4);
    const std::string& other = inputs[below(inputs.size())];
    if (change == 0) input.insert(at, 1, static_cast<char>(random()));
    if (change == 1) input.erase(at, below(16));
    if (change == 2 && at < input.size()) input[at] = static_cast<char>(random());
    if (change == 3) input.insert(at, other.substr(below(other.size() + 1), below(64)));
  }
  return input.substr(0, maxInputBytes);
}

void Run(const std::string& input) {
  LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(input.data()), input.size());
}

}  // namespace

int main(int count, char** arguments) {
  const std::vector<std::string> inputs = count < 3 ? std::vector<std::string>() : ReadInputs(arguments[1]);
  if (inputs.empty()) {
    std::fprintf(stderr, "replay: no inputs; usage: TARGET FOLDER COPIES [SEED]\n");
    return 2;
  }
  const std::uint64_t seed = count > 3 ? std::strtoull(arguments[3], nullptr, 10) : std::random_device()();
  std::printf("replay: seed %llu\n", static_cast<unsigned long long>(seed));
  std::fflush(stdout);
  std::mt19937_64 random(seed);
  for (const std::string& input : inputs) Run(input);
  const unsigned long copies = std::strtoul(arguments[2], nullptr, 10);
  for (unsigned long i = 0; i < copies; ++i) Run(Changed(inputs, random));
  std::printf("replay: %zu inputs and %lu changed ones\n", inputs.size(), copies);
  return 0;
}
