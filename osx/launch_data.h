#pragma once

/// Packing the data items of launchd's local-socket protocol, as it was before 10.10.
///
/// An item starts with a head of three 64-bit words in host byte order (little-endian where the
/// protocol is spoken), which nothing aligns:
///
///     | type | first value word | second value word | data ...
///       8      8                  8
///
///     type  kind          first  second               data
///     1     dictionary    0      keys and values      8 bytes of filler for each, then key,
///                                counted separately   value, key, value, ...
///     2     array         0      elements             8 bytes of filler for each, then the elements
///     6     boolean       0      1 or 0               none
///     7     string        0      length in bytes      the text, then 1 to 8 zero bytes up to a
///                                                     multiple of 8
///     9     error number  as received, replies only   not read
///
/// Containers are laid out depth first, every child in full behind the filler; there are no
/// offsets. The dictionary { "a": true }, 96 bytes, as its words:
///
///     1 0 2   0 0   7 0 1 "a"   6 0 1
///
/// Only what the program sends can be built, and only a head can be read.

#include <map>
#include <string>
#include <vector>

#include "muro/core/fmt.h"
#include "netbuf/netbuf.h"

/// The operations; each returns a new buffer with one packed item. They keep no state; sizes beyond
/// the 32-bit limit of `netbuf` throw what that throws.
class launch_data {
 public:
  using word = muro::raw_endian<unsigned long long, true>;

  /// A head as it lies in the data.
  struct head {
    word type;
    word first;
    word second;
  };

  static constexpr unsigned long long kDictionary = 1;
  static constexpr unsigned long long kArray = 2;
  static constexpr unsigned long long kBoolean = 6;
  static constexpr unsigned long long kString = 7;
  static constexpr unsigned long long kErrorNumber = 9;

  /// A head alone, which is the whole of a boolean. Deliberate: its value is the second word, and
  /// the first is 0.
  static netbuf add(unsigned long long type, unsigned long long first, unsigned long long second);

  /// A string.
  static netbuf add_string(const std::string& text);

  /// A container of that type with the packed `items` in their order; with type 2 an array. The
  /// filler is zero.
  static netbuf add_vect(const std::vector<netbuf>& items, unsigned long long type);

  /// A dictionary with the packed values of `entries`, by ascending byte order of the keys.
  static netbuf add_dict(const std::map<std::string, netbuf>& entries);

  /// Takes the head off the front of `data`. Throws `muro::exception` ":Error in 'pop'" and leaves
  /// `data` as it was when it holds fewer than 24 bytes.
  static head pop(netbuf& data);
};
