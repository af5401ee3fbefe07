#include "QELfileInfo.h"

#include "QELgregorian.h"

#include <sys/stat.h>

namespace {

constexpr std::uint32_t regularBit = 0x8000;
constexpr std::uint32_t directoryBit = 0x4000;
constexpr std::uint32_t ownerWriteBit = 0x80;

QELfileInfo fromStat(const struct stat& status) {
    // A time before 1970 wraps around.
    return {.mode = status.st_mode,
            .size = static_cast<std::uint64_t>(status.st_size),
            .modified = static_cast<std::uint64_t>(status.st_mtime) * microsPerSecond};
}

} // namespace

void statPath(QELfileInfo& info, const char* path) {
    struct stat status {};
    info = path != nullptr && stat(path, &status) == 0 ? fromStat(status) : QELfileInfo{};
}

void statStream(QELfileInfo& info, std::FILE* stream) {
    struct stat status {};
    info =
        stream != nullptr && fstat(fileno(stream), &status) == 0 ? fromStat(status) : QELfileInfo{};
}

bool isRegular(const QELfileInfo& info) {
    return (info.mode & regularBit) != 0;
}

bool isDirectory(const QELfileInfo& info) {
    return (info.mode & directoryBit) != 0;
}

bool isWritable(const QELfileInfo& info) {
    return (info.mode & ownerWriteBit) != 0;
}
