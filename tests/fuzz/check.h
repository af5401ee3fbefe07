#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string_view>

/// Ends the run as a crash, with @p rule on standard error, unless it holds: the fuzzer, or the
/// replay, then keeps or names the input.
inline void require(bool holds, const char* rule) {
    if (!holds) {
        std::fprintf(stderr, "Does not hold: %s\n", rule);
        std::abort();
    }
}

/// A copy of @p text, terminated, in a block of exactly its size: the address sanitizer sees the
/// first byte that is read beyond its end.
inline std::unique_ptr<char[]> exactText(std::string_view text) {
    auto copy = std::make_unique<char[]>(text.size() + 1);
    std::copy(text.begin(), text.end(), copy.get());
    return copy;
}

inline std::string_view asText(const unsigned char* data, std::size_t size) {
    return {reinterpret_cast<const char*>(data), size};
}
