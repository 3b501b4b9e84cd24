// MD5 digests of shared files, for the file information a node answers.
#pragma once

#include <cstddef>
#include <filesystem>
#include <string>

namespace qel {

// Bytes read and hashed at a time, so a file is never held whole.
inline constexpr size_t kHashChunk = size_t{1} << 20;

// The MD5 of the file's bytes in 32 lower-case hexadecimal digits. A file
// that cannot be read (missing, a folder, not a regular file) throws
// std::system_error naming path.
std::string GetFileHash(const std::filesystem::path& path);

}  // namespace qel
