#pragma once

/// String utilities. They carry no namespace, but for `muro::atoi`.

#include <string>
#include <vector>

bool replace_all(std::string& s, const std::string& from, const std::string& to);
void tokenize(std::vector<std::string>* out, const std::string& s, char sep);
bool starts_with(const std::string& s, const std::string& prefix);
bool ends_with(const std::string& s, const std::string& suffix);

namespace muro {
int atoi(const std::string& s);
}  // namespace muro
