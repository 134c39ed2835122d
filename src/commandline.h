#pragma once

#include <string>

/// The filesystem root: "/" until the command line says otherwise. A plain prefix of file paths.
const std::string& GetFilesystemRoot();

/// Applies the command line option by option: root, log level, console logging. False means that it printed
/// the usage text and the process must end with status 1.
bool ParseCommandLine(int argc, char** argv);
