// The native openssl as a witness from outside: run from a test program under Wine, which hands a native program's
// command line to the system underneath.
#pragma once

#include <string>
#include <vector>

#include "tests/support/paths.h"

namespace test {

using Bytes = std::vector<unsigned char>;

struct CommandResult {
    int exitCode = -1;   ///< -1: not started; 124: not ended in time, as timeout(1) says it
    std::string output;  ///< standard output and standard error together
};

/// Runs openssl with these arguments, each passed on exactly as it stands, and waits for its end.
CommandResult runOpenssl(const std::vector<std::string>& arguments);

/// A folder of its own in the temporary folder, deleted with all its files at the end.
class ScratchFolder {
public:
    ScratchFolder();
    ~ScratchFolder();
    ScratchFolder(const ScratchFolder&) = delete;
    ScratchFolder& operator=(const ScratchFolder&) = delete;

    [[nodiscard]] const std::string& path() const { return folder; }
    [[nodiscard]] std::string file(const std::string& name) const { return folder + "/" + name; }
    [[nodiscard]] std::string nativeFile(const std::string& name) const { return nativePath(file(name)); }

    /// Writes a file and returns its native path.
    std::string write(const std::string& name, const Bytes& contents) const;

    /// A file's contents; empty when it is not there.
    [[nodiscard]] Bytes read(const std::string& name) const;

private:
    std::string folder;
};

}  // namespace test
