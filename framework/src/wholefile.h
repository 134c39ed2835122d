#pragma once

#include <cstddef>
#include <string>

/// Reads a regular file as a whole. Does not wait for the writer of a pipe of that name.
///
/// Throws std::system_error when the system refuses, and std::runtime_error when the name belongs to
/// something else or the file is larger than `limitMiB`. what() is the reason alone, without the path.
std::string ReadWholeFile(const std::string& path, std::size_t limitMiB);
