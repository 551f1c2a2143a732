#include "tools/zentok/files.h"

#include <array>
#include <fstream>

#include "tools/zentok/failure.h"
#include "tools/zentok/text.h"

void readBlocks(const std::string& file, const std::function<void(std::string_view)>& consume) {
    std::ifstream stream(toPath(file), std::ios::binary);
    std::array<char, 65536> block{};
    while (stream) {
        stream.read(block.data(), block.size());
        if (stream.gcount() > 0) {
            consume({block.data(), static_cast<std::size_t>(stream.gcount())});
        }
    }
    if (!stream.eof()) {
        throw Failure("cannot read " + file + "\nCheck the name, and that this user may read the file.");
    }
}

std::string readFile(const std::string& file, std::size_t limit, const char* what) {
    std::string content;
    readBlocks(file, [&](std::string_view block) {
        content += block;
        if (content.size() > limit) {
            throw Failure(file + " is too large for " + what + "\nAt most " + std::to_string(limit) +
                          " bytes are read; check the name.");
        }
    });
    return content;
}

void writeFile(const std::string& file, std::string_view content) {
    std::ofstream stream(toPath(file), std::ios::binary | std::ios::trunc);
    stream.write(content.data(), static_cast<std::streamsize>(content.size()));
    if (!stream.flush()) {
        throw Failure("cannot write " + file + "\nCheck the folder, its permissions and the room on the disk.");
    }
}

void writeFile(const std::string& file, std::span<const unsigned char> content) {
    writeFile(file, std::string_view(reinterpret_cast<const char*>(content.data()), content.size()));
}
