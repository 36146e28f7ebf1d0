#include <string.h>

#include "client/korvel_rnr.h"

static const char kSuffix[] = ".dat";
enum { kSuffixLength = sizeof kSuffix - 1, kLongestNumber = sizeof(size_t) + 1 };

static size_t number_field(unsigned char field[kLongestNumber], size_t value) {
  unsigned char count = 0;
  for (; value != 0; value >>= 8) field[count++] = (unsigned char)(value & 0xff);
  field[count] = count;
  return (size_t)count + 1;
}

size_t korvel_rnr_write_request(void* packet, size_t room, const void* argument,
                                size_t argument_length, const char* command) {
  unsigned char argument_number[kLongestNumber];
  unsigned char command_number[kLongestNumber];
  const size_t command_length = strlen(command);
  const struct {
    const void* bytes;
    size_t length;
  } parts[] = {{argument, argument_length},
               {argument_number, number_field(argument_number, argument_length)},
               {command, command_length},
               {command_number, number_field(command_number, command_length)}};
  size_t length = 0;
  for (size_t i = 0; i < 4; ++i) length += parts[i].length;
  if (length > room) return length;
  unsigned char* end = packet;
  for (size_t i = 0; i < 4; ++i) {
    if (parts[i].length != 0) memcpy(end, parts[i].bytes, parts[i].length);
    end += parts[i].length;
  }
  return length;
}

static const char* base_name(const char* path) {
  const char* const slash = strrchr(path, '/');
  if (slash != NULL) path = slash + 1;
  const char* const backslash = strrchr(path, '\\');
  return backslash != NULL ? backslash + 1 : path;
}

static int ends_in_suffix(const char* name) {
  const size_t length = strlen(name);
  return length >= kSuffixLength && strcmp(name + length - kSuffixLength, kSuffix) == 0;
}

// Copies `name` without any ".dat", and tells the length of what is left; `out` may be null.
static size_t copy_without_suffixes(char* out, const char* name) {
  size_t length = 0;
  while (*name != '\0') {
    if (strncmp(name, kSuffix, kSuffixLength) == 0) {
      name += kSuffixLength;
      continue;
    }
    if (out != NULL) out[length] = *name;
    ++length;
    ++name;
  }
  return length;
}

static int is_dots(const char* id) {
  return strcmp(id, ".") == 0 || strcmp(id, "..") == 0;
}

size_t korvel_rnr_session_id(char* id, size_t room, const char* restore_file) {
  const char* const name = base_name(restore_file);
  if (room != 0) id[0] = '\0';
  if (!ends_in_suffix(name) || copy_without_suffixes(NULL, name) >= room) return 0;
  const size_t length = copy_without_suffixes(id, name);
  id[length] = '\0';
  if (!is_dots(id)) return length;
  id[0] = '\0';
  return 0;
}

size_t korvel_rnr_endpoint_path(char path[KORVEL_RNR_PATH_ROOM], const char* endpoint) {
  const char* const parts[] = {"/tmp/", endpoint, ".ipc"};
  size_t length = 0;
  for (size_t i = 0; i < 3; ++i) {
    for (const char* from = parts[i]; *from != '\0' && length + 1 < KORVEL_RNR_PATH_ROOM; ++from)
      path[length++] = *from;
  }
  path[length] = '\0';
  return length;
}

const char* korvel_rnr_status_text(korvel_rnr_status status) {
  switch (status) {
    case KORVEL_RNR_DONE:
      return "the helper answered";
    case KORVEL_RNR_FAILED:
      return "the helper could not be asked";
    case KORVEL_RNR_WRONG_USE:
      return "the request names no endpoint, no session or no time limit";
    case KORVEL_RNR_NO_ENDPOINT:
      return "no helper serves the endpoint";
    case KORVEL_RNR_REFUSED:
      return "the helper closed the connection without an answer";
    case KORVEL_RNR_TIMED_OUT:
      return "the helper did not answer in time";
    case KORVEL_RNR_NO_FILE:
      return "the restore file cannot be read";
  }
  return "unknown status";
}
