#pragma once

/// The self-test role: the helper exercises its own file handling and installation on a session
/// "test1245" of its own making. It needs root's rights and a client at "/Applications/Korvel.app".
///
/// Deliberate: the test leaves no helper behind. Its installation moves the running executable into
/// the test session's folder, and the clean-up deletes it there.

/// The test session's folder. The role empties it before the first step.
inline constexpr const char* kTestSessionFolder = "/Library/VeskRuntime/sessions/test1245";

/// Writes the restore file "/tmp/test1245.dat" with the content "test", over an old one. Logs
/// "Failed to create test file" and returns when it cannot; the next step then fails. A link at
/// that place, a file with a second name, or anything that is no file is a failure too, and left as
/// it is: everyone may write to /tmp, and root must not write where some other user points.
void createTestFile();

/// Moves the restore file into the session folder and deletes that folder. Logs "Failed to move
/// restore file" and ends the process with status 1, the log written, when it cannot be moved.
void testMoveFile();

/// Installs the per-session daemon, waits ten seconds, uninstalls it and deletes the folder. Logs
/// "Failed to install service while simulating instant app rnr" and ends the process with status
/// 1, the log written, when it cannot be installed.
void testInstantVersion();
