#pragma once

#include <string>

namespace platform {

/// The installation directory, or an empty text when the product is not installed. QVL_PATH in the environment comes
/// first, unless the process runs with raised rights; then the first line of the file that an installer leaves.
std::string installationPath();

/// Directory of the running program, without a slash at its end; empty if the system does not tell.
std::string programDirectory();

/// True if the process runs with more rights than its user has. Nothing from the environment and nothing from the
/// working directory may then choose what is opened or loaded.
bool hasRaisedRights();

/// A directory or file name as other systems write it, in this system's form: the drive is dropped, backslashes become
/// slashes.
std::string toSystemPath(const std::string& path);

}  // namespace platform
