#pragma once

/// The file system of a simulated Mac, made in memory.
///
///   /usr, /lib*           the machine's own, read-only
///   /bin                  a folder of links with what a Mac has there, so that /bin/launchctl can
///                         be put beside them
///   /private/{etc,tmp,var}   with /etc, /tmp, /var as links into it, as on a Mac
///   /dev                  a handful of the machine's devices; /dev/console is a plain file whose
///                         owner is the console user
///   /Library, /System/Library, /Applications, /Users   what the helper meets
///
/// Nothing else of the machine can be seen.

#include "sim/namespaces.h"
#include "sim/run_options.h"

namespace macroot {

/// Replaces the calling process's file system by a Mac's, for good: the machine's own is detached.
/// The caller is root in mount and process namespaces of its own. Throws `failure`.
void enter_mac_tree(const run_options& options, id_mode mode);

}  // namespace macroot
