#include "tools/zentok/commands.h"

#include <algorithm>
#include <iostream>
#include <sstream>

#include "tools/zentok/failure.h"

namespace {

constexpr std::size_t SUMMARY_COLUMN = 21;

bool isHelp(const std::string& word) {
    return word == "--help" || word == "-h" || word == "help" || word == "/?";
}

std::vector<std::string> splitWords(const char* text) {
    std::istringstream stream(text);
    std::vector<std::string> words;
    for (std::string word; stream >> word;) {
        words.push_back(word);
    }
    return words;
}

std::string overview() {
    std::string text =
        "Usage: zentok COMMAND [OPTIONS]\n\n"
        "Uses the keys of a Zentok token through the Zentok cryptographic provider of this machine.\n\n";
    for (const Command& command : allCommands()) {
        std::string words = command.words;
        words.resize(std::max(words.size() + 2, SUMMARY_COLUMN), ' ');
        text += "  " + words + command.summary + "\n";
    }
    return text +
           "\n`zentok COMMAND --help` tells more. The exit code is 0 for success, 1 for a failure and 2 for a "
           "command line that\nmakes no sense.\n";
}

}  // namespace

std::vector<Command> allCommands() {
    std::vector<Command> all;
    for (const auto part : {
#ifdef ZENTOK_HAS_SOFTTOKEN
             tokenCommands(),
#endif
             keyCommands(), signatureCommands(), dataCommands(), certificateCommands(), statusCommands(),
             testCommands(), logCommands(), registerCommands()}) {
        all.insert(all.end(), part.begin(), part.end());
    }
    return all;
}

void runCommand(std::span<const std::string> words) {
    if (words.empty()) {
        throw UsageError("no command given");
    }
    if (isHelp(words[0])) {
        std::cout << overview();
        return;
    }
    for (const Command& command : allCommands()) {
        const std::vector<std::string> name = splitWords(command.words);
        if (words.size() < name.size() || !std::ranges::equal(name, words.first(name.size()))) {
            continue;
        }
        const auto rest = words.subspan(name.size());
        if (std::ranges::find(rest, "--help") != rest.end()) {
            std::cout << commandHelp(command);
            return;
        }
        command.run(Arguments(command.options, rest));
        return;
    }
    throw UsageError("unknown command \"" + words[0] + (words.size() > 1 ? " " + words[1] : "") + "\"");
}
