// replay SEEDS: runs a fuzz target over every line of a file, in which \\ and \xHH stand for a byte
// as for printf %b, then over mixtures of them. Names each on standard error before it is run.

#include <fstream>
#include <iostream>
#include <random>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size);

static std::string unescaped(const std::string& line) {
    std::string bytes;
    for (std::size_t i = 0; i < line.size(); ++i) {
        const bool hex = line.compare(i, 2, "\\x") == 0;
        bytes += hex ? static_cast<char>(std::stoi(line.substr(i + 2, 2), nullptr, 16)) : line[i];
        i += hex ? 3 : line[i] == '\\' ? 1 : 0;
    }
    return bytes;
}

static void run(const std::string& name, const std::string& input) {
    std::cerr << name << '\n';
    const std::vector<unsigned char> exact(input.begin(), input.end()); // nothing behind its end
    LLVMFuzzerTestOneInput(exact.data(), exact.size());
}

int main(int /*argc*/, char** argv) {
    std::vector<std::string> seeds;
    std::ifstream file(argv[1]);
    for (std::string line; std::getline(file, line);) {
        seeds.push_back(unescaped(line));
        run(line, seeds.back());
    }
    std::mt19937 random(1); // NOLINT(*-msc51-cpp): the same in every run
    const auto below = [&](std::size_t limit) {
        return random() % limit;
    };
    for (int number = 0; number < 5000; ++number) {
        std::string mixture;
        for (auto pieces = 1 + below(6); pieces > 0; --pieces) {
            const std::string& seed = seeds.at(below(seeds.size()));
            const auto begin = below(2) * below(seed.size() + 1);
            mixture += seed.substr(begin, below(seed.size() - begin + 1));
        }
        mixture.replace(below(mixture.size() + 1), below(2), below(2), static_cast<char>(random()));
        run("mixture " + std::to_string(number), mixture);
    }
}
