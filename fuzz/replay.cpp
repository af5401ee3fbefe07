// replay FOLDER: runs a fuzz target over every file of a folder, without a fuzzer.

#include <cstddef>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size);

int main(int argc, char** argv) {
    std::error_code error;
    std::size_t count = 0;
    if (argc == 2) {
        for (const auto& entry : std::filesystem::directory_iterator(argv[1], error)) {
            // Named first: it is the last line when the target aborts.
            std::fprintf(stderr, "%s\n", entry.path().c_str());
            std::ifstream file(entry.path(), std::ios::binary);
            const std::vector<char> input{std::istreambuf_iterator<char>(file), {}};
            // A block of exactly the input's size, as the fuzzer hands it over.
            const std::vector<unsigned char> data(input.begin(), input.end());
            LLVMFuzzerTestOneInput(data.data(), data.size());
            ++count;
        }
    }
    std::printf("%zu inputs\n", count);
    return count > 0 && !error ? 0 : 1;
}
