#pragma once

/// How the user-defaults argument domain reads the value of a start option. A value is first tried
/// as a property list, in the old text style ("quoted", (a, b), {a = b;}, <0102>) and as XML; what
/// is no complete property list is taken as it stands, so that an ordinary path always comes
/// through unchanged:
///
///     given              the option's string
///     /x/abc.dat         /x/abc.dat
///     "/x y.dat"         /x y.dat         a quoted string loses its quotes
///     (blank)/x.dat      /x.dat           blanks around a single word go
///     /x y.dat           /x y.dat         no property list: verbatim
///     (a, b)  {a = b;}   nil              a container is no string
///     <0102>             nil              nor are data
///     (a                 (a               not closed: verbatim
///     empty              empty            not nil

#include <string>

#include "platform/platform.h"

namespace platform {

/// The string that the value `text` stands for; nil when it is a property list that is no string.
nil_string argument_string(const std::string& text);

/// `NSString boolValue`: blanks, one sign and zeros are skipped; what follows is true when it
/// begins with a digit from 1 to 9 or with Y, y, T or t.
bool text_is_true(const std::string& text);

}  // namespace platform
