#include "tests/support/log_capture.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>

#include <gtest/gtest.h>

#include "tests/support/paths.h"

namespace test {
namespace {

namespace fs = std::filesystem;

fs::path logFolder() {
    char program[MAX_PATH] = {};
    GetModuleFileNameA(nullptr, program, sizeof program);
    const std::string path = program, name = path.substr(path.find_last_of('\\') + 1);
    return temporaryFolder() / "Halvane" / name.substr(0, name.find('.'));
}

/// The log from this position on. A run over midnight has two files, in the order of their names.
std::string logFrom(std::size_t start) {
    std::string text;
    std::error_code missing;
    for (const fs::directory_entry& file : fs::directory_iterator(logFolder(), missing)) {
        text += (std::ostringstream() << std::ifstream(file.path(), std::ios::binary).rdbuf()).str();
    }
    return text.substr(std::min(start, text.size()));
}

Lines split(const std::string& text, char separator) {
    std::istringstream stream(text);
    Lines pieces;
    for (std::string piece; std::getline(stream, piece, separator);) {
        pieces.push_back(piece);
    }
    return pieces;
}

/// "12/11::19:07:33:123-> ->ERROR ::=>text" as "!text".
std::string textOf(const std::string& line) {
    constexpr std::size_t LEVEL = sizeof "12/11::19:07:33:123-> ->" - 1;
    constexpr std::size_t TEXT = LEVEL + sizeof "DEBUG ::=>" - 1;
    return line.size() < TEXT ? "no log line: " + line : (line[LEVEL] == 'E' ? "!" : "") + line.substr(TEXT);
}

}  // namespace

Lines lines(const std::string& text) {
    return split(text, '|');
}

std::string usePrivateTempFolder(const std::string& name) {
    static const fs::path base = temporaryFolder();
    const std::string folder = (base / name).string();
    static const std::uintmax_t leftBehind = fs::remove_all(folder);  // by an earlier run
    static_cast<void>(leftBehind);
    fs::create_directories(folder);
    SetEnvironmentVariableA("TMP", folder.c_str());
    return folder;
}

void setLogLevel(DWORD level) {
    RegSetKeyValueA(HKEY_LOCAL_MACHINE, "Software\\Halvane\\Zentok", "logLevel", REG_DWORD, &level, sizeof level);
}

std::string logFileText() {
    return logFrom(0);
}

Lines logOf(const std::function<void()>& action) {
    fs::create_directories(logFolder());
    const std::size_t before = logFileText().size();
    action();
    Lines log = split(logFrom(before), '\n');
    std::transform(log.begin(), log.end(), log.begin(), textOf);
    return log;
}

}  // namespace test
