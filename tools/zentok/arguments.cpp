#include "tools/zentok/arguments.h"

#include <algorithm>
#include <charconv>

#include "tools/zentok/failure.h"

namespace {

constexpr std::size_t HELP_COLUMN = 24;

std::string padded(std::string text) {
    text.resize(std::max(text.size() + 2, HELP_COLUMN), ' ');
    return text;
}

std::string optionText(const Option& option) {
    return "--" + std::string(option.name) + (option.value == nullptr ? "" : " " + std::string(option.value));
}

}  // namespace

Arguments::Arguments(std::span<const Option> options, std::span<const std::string> words) {
    for (std::size_t i = 0; i < words.size(); ++i) {
        const std::string& word = words[i];
        if (!word.starts_with("--")) {
            throw UsageError("unexpected argument \"" + word + "\"");
        }
        const std::size_t equals = word.find('=');
        const std::string name = word.substr(2, equals == std::string::npos ? equals : equals - 2);
        const auto option = std::ranges::find(options, name, &Option::name);
        if (option == options.end()) {
            throw UsageError("unknown option --" + name);
        }
        const bool attached = equals != std::string::npos;
        std::string value;
        if (option->value == nullptr) {
            if (attached) {
                throw UsageError("--" + name + " takes no value");
            }
        } else if (attached) {
            value = word.substr(equals + 1);
        } else if (++i < words.size()) {
            value = words[i];
        } else {
            throw UsageError("--" + name + " needs a value");
        }
        if (!values_.emplace(name, value).second) {
            throw UsageError("--" + name + " is given twice");
        }
    }
    for (const Option& option : options) {
        if (option.fallback != nullptr) {
            values_.emplace(option.name, option.fallback);
        }
        if (option.required && get(option.name).empty()) {
            throw UsageError("--" + std::string(option.name) + " must not be empty");
        }
    }
}

bool Arguments::has(std::string_view name) const {
    return values_.contains(name);
}

std::optional<std::string> Arguments::find(std::string_view name) const {
    const auto found = values_.find(name);
    return found == values_.end() ? std::nullopt : std::optional(found->second);
}

const std::string& Arguments::get(std::string_view name) const {
    const auto found = values_.find(name);
    if (found == values_.end()) {
        throw UsageError("--" + std::string(name) + " is missing");
    }
    return found->second;
}

unsigned long Arguments::getNumber(std::string_view name, unsigned long least, unsigned long most) const {
    const std::string& text = get(name);
    unsigned long number = 0;
    const char* end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, number);
    if (error != std::errc() || stop != end || number < least || number > most) {
        throw UsageError("--" + std::string(name) + " takes a number from " + std::to_string(least) + " to " +
                         std::to_string(most));
    }
    return number;
}

std::size_t Arguments::getChoice(std::string_view name, std::span<const std::string_view> choices) const {
    const auto found = std::ranges::find(choices, std::string_view(get(name)));
    if (found == choices.end()) {
        std::string list;
        for (const std::string_view choice : choices) {
            list += (list.empty() ? "" : ", ") + std::string(choice);
        }
        throw UsageError("--" + std::string(name) + " takes one of: " + list);
    }
    return static_cast<std::size_t>(found - choices.begin());
}

std::string commandHelp(const Command& command) {
    std::string usage = "Usage: zentok " + std::string(command.words);
    std::string list;
    for (const Option& option : command.options) {
        usage += option.required ? " " + optionText(option) : " [" + optionText(option) + "]";
        list += "  " + padded(optionText(option)) + option.help;
        list += option.fallback == nullptr ? "\n" : " (default " + std::string(option.fallback) + ")\n";
    }
    std::string text = usage + "\n\n" + command.summary + ".\n";
    if (*command.details != '\0') {
        text += std::string(command.details) + "\n";
    }
    return list.empty() ? text : text + "\n" + list;
}
