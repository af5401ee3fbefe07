#pragma once

#include <cstdint>
#include <cstdio>

/// What the file system tells of a file: a plain value, all 0 for a file it tells nothing of.
struct QELfileInfo {
    std::uint32_t mode = 0;     ///< st_mode
    std::uint64_t size = 0;     ///< bytes
    std::uint64_t modified = 0; ///< whole seconds in microseconds since 1970 UTC, not 1601
};

/// Fills the record from a path, symbolic links followed, or clears it when the path is null or
/// cannot be read.
void statPath(QELfileInfo& info, const char* path);

/// The same from the descriptor of an open stream, which stays the caller's.
void statStream(QELfileInfo& info, std::FILE* stream);

/// @name Kind and permission
/// Each tests one bit of the mode: a socket has those of a regular file and of a directory, a block
/// device that of a directory. Writable is meant for the owner.
/// @{
bool isRegular(const QELfileInfo& info);
bool isDirectory(const QELfileInfo& info);
bool isWritable(const QELfileInfo& info);
/// @}
