#pragma once

#include <string>

/// The filesystem root: "/" until the command line says otherwise. A plain prefix of file paths.
const std::string& GetFilesystemRoot();

/// Reads the command line and applies it option by option: root, log level, console logging. False means that
/// the usage text was printed and the process is to end with status 1.
bool ParseCommandLine(int argc, char** argv);
