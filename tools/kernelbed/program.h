#pragma once

#include <functional>
#include <memory>
#include <string>

#include "tools/kernelbed/reader.h"

namespace kernelbed {

/// The program of a reader: plugs it in and takes commands for it on a unix socket, or takes one to a program
/// that runs. `words` are the commands that only this reader has; `make` makes it with this log.
int RunReaderProgram(int argc, char** argv, const std::string& name, const std::string& words,
                     const std::function<std::unique_ptr<Reader>(FILE*)>& make);

}  // namespace kernelbed
