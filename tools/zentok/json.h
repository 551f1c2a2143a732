// JSON text (RFC 8259), put together from the inside out: values are texts that are JSON already.
#pragma once

#include <span>
#include <string>
#include <string_view>
#include <utility>

/// A member's name, in plain ASCII, and its value as JSON.
using JsonMember = std::pair<std::string_view, std::string>;

/// A string. `utf8` is taken as valid UTF-8.
std::string jsonText(std::string_view utf8);
std::string jsonObject(std::span<const JsonMember> members);
std::string jsonArray(std::span<const std::string> values);
