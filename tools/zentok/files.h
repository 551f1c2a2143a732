// Files by their UTF-8 names; failures throw.
#pragma once

#include <functional>
#include <string>
#include <string_view>

/// Hands the content of a file to `consume`, block by block.
void readBlocks(const std::string& file, const std::function<void(std::string_view)>& consume);

/// The whole content of a small file.
std::string readFile(const std::string& file);

void writeFile(const std::string& file, std::string_view content);
