#include "platform/linux/argument_value.h"
#include "platform/platform.h"

namespace platform {
namespace {

// The process's own argument list; written once before threads start, then only read.
int argument_count = 0;
char** argument_list = nullptr;

bool names_a_key(const std::string& word) {
  return !word.empty() && word.front() == '-';
}

// The text behind the last "-key value" pair, nil without one. A word that starts with "-" is
// never a value: the key before it stands alone and counts for nothing.
nil_string last_value_of(const std::string& key) {
  nil_string found;
  for (int i = 1; i + 1 < argument_count; ++i) {
    const std::string word = argument_list[i];
    const std::string next = argument_list[i + 1];
    if (!names_a_key(word) || names_a_key(next)) continue;
    if (word.compare(1, std::string::npos, key) == 0) found = next;
  }
  return found;
}

}  // namespace

void set_arguments(int argc, char** argv) {
  argument_count = argc;
  argument_list = argv;
}

nil_string string_option(const char* key) {
  const nil_string value = last_value_of(key);
  return value ? argument_string(*value) : std::nullopt;
}

bool bool_option(const char* key) {
  const nil_string value = string_option(key);
  return value && text_is_true(*value);
}

}  // namespace platform
