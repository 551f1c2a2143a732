// Helpers for text and files.
#pragma once

#include <cstdint>
#include <string>

/// Built on the stack where it is needed. Paths and texts are in the process's ANSI code page.
class Utils {
public:
    virtual ~Utils() = default;

    /// The value of an environment variable as the process sees it now (GetEnvironmentVariable); empty when not set.
    static std::string getEnv(const char* name);

    /// True when `path` names a file or a folder (GetFileAttributes); false for a null or empty one.
    static bool pathExists(const char* path);

    /// Removes white space at both ends of `text`, in place, and returns it.
    std::string& trim(std::string& text) const;

    static void sleep(std::uint32_t milliseconds);

    /// The folder of the host's executable, not that of this library, without a separator at its end
    /// (GetModuleFileName). Of a path without a separator the whole.
    static std::string getExecutableDir();

    /// The text behind the first "CN=" that has one, up to the next comma or line end, untrimmed; the whole input when
    /// there is none. Case counts, and the "CN=" may stand anywhere.
    static std::string extractCommonName(const std::string& distinguishedName);

private:
    const char* trimCharacters = " \t\n\r\f\v";
};
