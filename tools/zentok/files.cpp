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

std::string readFile(const std::string& file) {
    std::string content;
    readBlocks(file, [&content](std::string_view block) { content += block; });
    return content;
}

void writeFile(const std::string& file, std::string_view content) {
    std::ofstream stream(toPath(file), std::ios::binary | std::ios::trunc);
    stream.write(content.data(), static_cast<std::streamsize>(content.size()));
    if (!stream.flush()) {
        throw Failure("cannot write " + file + "\nCheck the folder, its permissions and the room on the disk.");
    }
}
