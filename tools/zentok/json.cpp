#include "tools/zentok/json.h"

std::string jsonText(std::string_view utf8) {
    constexpr char DIGITS[] = "0123456789abcdef";
    std::string text = "\"";
    for (const char character : utf8) {
        const auto code = static_cast<unsigned char>(character);
        if (code < 0x20) {
            text += std::string("\\u00") + DIGITS[code >> 4] + DIGITS[code & 15];
        } else {
            text += character == '"' || character == '\\' ? std::string("\\") + character : std::string(1, character);
        }
    }
    return text + "\"";
}

std::string jsonObject(std::span<const JsonMember> members) {
    std::string text;
    for (const auto& [name, value] : members) {
        text += (text.empty() ? "" : ", ") + jsonText(name) + ": " + value;
    }
    return "{" + text + "}";
}

std::string jsonArray(std::span<const std::string> values) {
    std::string text;
    for (const std::string& value : values) {
        text += (text.empty() ? "\n  " : ",\n  ") + value;
    }
    return "[" + text + "\n]";
}
