// The command table's types, and the arguments of one call checked against it.
#pragma once

#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

struct Option {
    const char* name;   ///< without the dashes
    const char* value;  ///< what the help calls its value; null for a switch
    const char* help;   ///< one sentence
    bool required = false;
    const char* fallback = nullptr;  ///< the value when the option is not given
};

/// The options that one call gave, each known to its command.
class Arguments {
public:
    /// Reads `words` against `options`; throws UsageError for whatever does not fit.
    Arguments(std::span<const Option> options, std::span<const std::string> words);

    bool has(std::string_view name) const;
    std::optional<std::string> find(std::string_view name) const;

    /// The value of an option that is required or has a fallback.
    const std::string& get(std::string_view name) const;

    /// The same as a whole number in [least, most]; throws UsageError.
    unsigned long getNumber(std::string_view name, unsigned long least, unsigned long most) const;

    /// The same as the index of one of `choices`; throws UsageError.
    std::size_t getChoice(std::string_view name, std::span<const std::string_view> choices) const;

private:
    std::map<std::string, std::string, std::less<>> values_;
};

struct Command {
    const char* words;    ///< what the user types, "token create"
    const char* summary;  ///< one line for the list of commands
    const char* details;  ///< more for its own help; may be empty
    std::span<const Option> options;
    void (*run)(const Arguments&);  ///< throws Failure or UsageError
};

/// Help of one command.
std::string commandHelp(const Command& command);
