// replay FOLDER: runs a fuzz target, without a fuzzer, over every file of a folder, then over
// mixtures of them. The last line on standard error names the input when the target aborts.

#include <cstddef>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <random>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size);

namespace {

constexpr int mixtures = 5000;

void run(const std::string& name, const std::vector<char>& input) {
    std::fprintf(stderr, "%s\n", name.c_str());
    // A block of exactly the input's size, as the fuzzer hands it over.
    const std::vector<unsigned char> data(input.begin(), input.end());
    LLVMFuzzerTestOneInput(data.data(), data.size());
}

} // namespace

int main(int argc, char** argv) {
    std::map<std::string, std::vector<char>> files;
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator(argc == 2 ? argv[1] : "", error)) {
        std::ifstream file(entry.path(), std::ios::binary);
        files[entry.path()] = {std::istreambuf_iterator<char>(file), {}};
    }
    for (const auto& [name, input] : files) {
        run(name, input);
    }
    // The same in every run.
    std::mt19937 random(1); // NOLINT(*-msc51-cpp)
    const auto below = [&random](std::size_t limit) {
        return static_cast<std::ptrdiff_t>(random() % limit);
    };
    for (int number = 0; number < mixtures && !files.empty(); ++number) {
        std::vector<char> mixture;
        for (auto pieces = 1 + below(6); pieces > 0; --pieces) {
            const auto& input = std::next(files.begin(), below(files.size()))->second;
            const auto begin = below(2) * below(input.size() + 1);
            const auto end = begin + below(input.size() - static_cast<std::size_t>(begin) + 1);
            mixture.insert(mixture.end(), input.begin() + begin, input.begin() + end);
        }
        for (auto changes = below(4); changes > 0 && !mixture.empty(); --changes) {
            mixture[static_cast<std::size_t>(below(mixture.size()))] = static_cast<char>(random());
        }
        run("mixture " + std::to_string(number), mixture);
    }
    std::printf("%zu inputs and their mixtures\n", files.size());
    return files.empty() || error ? 1 : 0;
}
