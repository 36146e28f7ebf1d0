#pragma once

/// String utilities. Deliberate: they carry no namespace, but for `muro::atoi`. Strings are bytes;
/// a zero byte is a byte like any other. All are stateless and fail only for lack of memory.

#include <string>
#include <vector>

/// Replaces every occurrence of `from` in `s` by `to`, left to right and without overlap; what was
/// put in is not searched again. True when at least one replacement was made. An empty `from`
/// occurs nowhere: false, and `s` stays.
bool replace_all(std::string& s, const std::string& from, const std::string& to);

/// Appends to `*out` the pieces of `s` between occurrences of `sep`, empty ones included. The last
/// piece is always appended: "" gives one empty piece, "a," gives "a" and an empty one.
void tokenize(std::vector<std::string>* out, const std::string& s, char sep);

bool starts_with(const std::string& s, const std::string& prefix);
bool ends_with(const std::string& s, const std::string& suffix);

namespace muro {

/// The decimal number at the front of `s`, as `destringify<int>` reads it: leading blanks are
/// skipped, the number ends at the first character that is not part of it, no number gives 0.
int atoi(const std::string& s);

}  // namespace muro
