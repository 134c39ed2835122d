#pragma once

#include <cstddef>
#include <string>

/// Reads a regular file as a whole. Never blocks on a pipe.
///
/// Throws std::system_error when the system refuses, and std::runtime_error when the path is not a regular
/// file or the file is larger than `limitMiB`. what() has only the reason, not the path.
std::string ReadWholeFile(const std::string& path, std::size_t limitMiB);
