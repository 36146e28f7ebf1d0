#pragma once

/// Keeps the log file small: by rotating it away, or by cutting off its oldest lines. Both work on
/// the open file, positioned at its end, and ignore every failure.

namespace muro {

class xfile;

/// Closes `file`. If its position was at `size` or above, its name becomes NAME.0, the old NAME.0
/// becomes NAME.1 and so on; `count` old files stay, and the unbroken run of files above them is
/// deleted. Deliberate: the numbers start at 0. Sizes are compared as signed numbers. Nothing is
/// moved when the name stands for another file by now, or for none: somebody else has rotated,
/// replaced or removed it. True when the name was moved away.
bool rotate_log(xfile& file, unsigned long long size, int count);

/// If `file`'s position is above `size`, leaves the newest lines of it, at most `size` / 2 bytes,
/// beginning in the middle of a line where that half begins there. The file stays open. True when
/// its content may have changed. Nothing is done when the name stands for another file by now, or
/// when somebody has made the file shorter than its position. A write that fails or a process that
/// ends in the middle loses no line of the newer half: it is still at the end, and the next cut
/// starts from it again.
bool cut_log(xfile& file, unsigned long long size);

}  // namespace muro
