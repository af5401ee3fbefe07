#pragma once

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>

void target(std::string_view input); ///< what a target does with an input

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
    target({reinterpret_cast<const char*>(data), size});
    return 0;
}

inline void require(bool holds, const char* rule) {
    if (!holds) {
        std::fprintf(stderr, "Does not hold: %s\n", rule);
        std::abort();
    }
}

/// A terminated copy with nothing behind it, so that the address sanitizer sees what reads there.
inline std::unique_ptr<char[]> exactText(std::string_view text) {
    auto copy = std::make_unique<char[]>(text.size() + 1);
    text.copy(copy.get(), text.size());
    return copy;
}
