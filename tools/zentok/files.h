// Files by their UTF-8 names; failures throw.
#pragma once

#include <cstddef>
#include <functional>
#include <span>
#include <string>
#include <string_view>

/// Hands the content of a file to `consume`, block by block.
void readBlocks(const std::string& file, const std::function<void(std::string_view)>& consume);

/// The whole content of a file with at most `limit` bytes; `what` says in the failure what the file should have been.
std::string readFile(const std::string& file, std::size_t limit, const char* what);

void writeFile(const std::string& file, std::string_view content);
void writeFile(const std::string& file, std::span<const unsigned char> content);
