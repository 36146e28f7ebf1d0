#include "muro/sys/strings.h"

#include "muro/core/fmt.h"

bool replace_all(std::string& s, const std::string& from, const std::string& to) {
  // The search for an empty text would find it at the same place for ever.
  if (from.empty()) return false;
  std::size_t hit = s.find(from);
  if (hit == std::string::npos) return false;
  // Built apart, so that `from` and `to` may be `s` itself.
  std::string result;
  std::size_t done = 0;
  for (; hit != std::string::npos; hit = s.find(from, done)) {
    result.append(s, done, hit - done).append(to);
    done = hit + from.size();
  }
  result.append(s, done);
  s.swap(result);
  return true;
}

void tokenize(std::vector<std::string>* out, const std::string& s, char sep) {
  std::size_t begin = 0;
  for (std::size_t end; (end = s.find(sep, begin)) != std::string::npos; begin = end + 1) {
    out->push_back(s.substr(begin, end - begin));
  }
  out->push_back(s.substr(begin));
}

bool starts_with(const std::string& s, const std::string& prefix) {
  return s.size() >= prefix.size() && s.compare(0, prefix.size(), prefix) == 0;
}

bool ends_with(const std::string& s, const std::string& suffix) {
  return s.size() >= suffix.size() &&
         s.compare(s.size() - suffix.size(), suffix.size(), suffix) == 0;
}

namespace muro {

int atoi(const std::string& s) {
  return destringify<int>(s);
}

}  // namespace muro
