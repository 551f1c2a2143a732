// Files of a test program: its own calls, the platform's and a native program each know them by a path of their kind.
#pragma once

#include <filesystem>
#include <string>

namespace test {

/// The path of a file of this program as a native program sees it.
std::string nativePath(const std::string& path);

/// The platform's temporary folder as the C++ library takes it. A native test program has the system's own paths there;
/// the platform's calls take those as well, on the drive that is the whole file system.
std::filesystem::path temporaryFolder();

}  // namespace test
