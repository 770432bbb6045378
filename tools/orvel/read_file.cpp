#include <fstream>
#include <iostream>
#include <sstream>

#include "commands.h"

std::optional<std::string> orvelReadFile(std::string_view path) {
  std::stringstream text;
  if (path == "-") {
    text << std::cin.rdbuf();
    return text.str();
  }
  std::ifstream in{std::string(path), std::ios::binary};
  if (!in) return std::nullopt;
  text << in.rdbuf();
  if (in.bad()) return std::nullopt;
  return text.str();
}
