#include "tools/rnrctl/catalogue.h"

namespace rnrctl {
namespace {

// clang-format off
constexpr log_message kMessages[] = {
    {"createFolder", "Failed to create directory: %1%", "A folder of the session could not be made; the rest of the line is the system's reason.", "Look at the owner and the free space of /Library/VeskRuntime, and at what stands in the way of the folder."},
    {"moveRestoreFileIfNeeded", "Restore file does not exist: %1%", "The session was to be registered, but its restore file is not there (any more).", "Have the client write its restore file and register again."},
    {"moveRestoreFileIfNeeded", "Failed to create session folder", "The session's folder could not be made; the line before tells why.", ""},
    {"moveRestoreFileIfNeeded", "Failed to move file: %1%", "The restore file could not be moved into the session's folder. \"File exists\": one from an earlier registration is still there. \"Cross-device link\": it lies on another volume.", "For a left-over file: rnrctl sessions reset ID, then register again. Else write the restore file to the system's volume."},
    {"moveHelper", "Helper file %1% does not exist", "The helper's own executable is gone, so it cannot bring a copy into the session's folder.", "Install the helper anew."},
    {"moveHelper", "Failed to create helper folder", "The folder for the helper's copy could not be made; the line before tells why.", ""},
    {"moveHelper", "Failed to move file to %1%: %2%", "The helper could not be moved into the session's folder. \"File exists\": one from an earlier installation is still there.", "rnrctl sessions reset ID, then install again."},
    {"moveAppBundle", "Failed to create bundle folder", "The folder for the client's copy could not be made; the line before tells why.", ""},
    {"moveAppBundle", "Failed to move bundle: %1%", "The client's bundle could not be copied into the session's folder.", "Look whether the bundle is where -exePath says, whether a copy is there already, and at the free space."},
    {"moveAppBundle", "failed to set permission %1%", "The copied bundle itself did not get its mode and owner.", ""},
    {"moveAppBundle", "failed to set permissions for %1%:::%2%", "One entry of the copied bundle did not get its mode and owner. The client may still start.", ""},
    {"createTestFile", "Failed to create test file", "The self-test could not write its test file.", "Look at what stands at the test file's place in /tmp."},
    {"testMoveFile", "Failed to move restore file", "The self-test could not move its test file into a session folder; the line before tells why.", ""},
    {"testInstantVersion", "Failed to install service while simulating instant app rnr", "The self-test could not install a session's daemon; the lines before tell why.", ""},
    {"installServiceNoInstant", "Failed to install daemon: %1%", "The shared daemon's job file could not be written, or launchctl not be started.", "Run the installation as root; look at /Library/LaunchDaemons."},
    {"installServiceNoInstant", "Failed to install daemon: unknown error", "The shared daemon could not be installed, and nothing tells why; most likely memory ran out.", "Install again."},
    {"installService", "Insufficient arguments, exiting...", "The session's daemon was to be installed without -exePath or -restoreFile.", "Give both options."},
    {"installService", "Failed to move restore file", "The restore file could not be moved into the session's folder; the line before tells why.", ""},
    {"installService", "Failed to install daemon: %1%", "The session daemon's job file could not be written, or launchctl not be started.", "Run the installation as root; look at /Library/LaunchDaemons."},
    {"uninstallServiceRemove", "Removing all related files", "The session is over: its daemon, its folder and its job files are being removed.", ""},
    {"uninstallServiceRemove", "Failed to remove launchd daemon plist: %1%", "Something of a session that is over could not be removed: its daemon's job file, or its folder.", "rnrctl sessions reset ID removes what is left."},
    {"commandReceived", "Korvel executable not found", "A client asked to be registered, but the client is not installed in /Applications.", "Install the client, then register again."},
    {"commandReceived", "Failed to move restore file", "A client asked to be registered, but its restore file could not be moved; the line before tells why.", ""},
    {"commandReceived", "Failed to install agent", "The session's agent job file is not there after the attempt to write it: the client will not come back.", "rnrctl doctor ID tells what stands in the way."},
    {"commandReceived", "Failed to uninstall agent for %1%", "A session that resigned still has its agent's job file, or its file names no session: the client may come back.", "rnrctl sessions reset ID removes it."},
    {"commandReceived", "exception", "A request could not be carried out: it was malformed, or a step of it failed. The client was answered all the same.", "The lines before tell how far it came."},
    {"main", "restore file %1% does not exist, removing this service", "At boot the session's restore file was gone, so the session is over and the helper removes all that is its own.", ""},
    {"main", "Failed to uninstall agent for %1%", "Comes once at the end of every removal, also of one that went well; when it comes twice the agent's job file is still there.", "When it comes twice: rnrctl sessions reset ID."},
    {"main", "Failed to install service, will not be able to resume properly", "The session's daemon could not be installed; the lines before tell why. The client will not come back after a restart.", ""},
    {"main", "Install agent failed", "The session's own helper could not write the agent's job file. It serves all the same; the client will not come back by itself.", "rnrctl doctor ID tells what stands in the way."},
    {"main", "Invalid restore file, should remove self", "The helper was started with a -restoreFile whose name holds no session's ID. It ended with status 42 and changed nothing.", "The base name must be the ID and \".dat\"."},
    {"get_console", "need to be admin", "The owner of the console was asked for by a process that is not root.", "Run the helper as root."},
    {"get_console", "console is %1%", "The user id that owns the console.", ""},
    {"attached_to_console", "session %1% - %2% %3%", "The security session the helper runs in: its id, its attribute bits, and whether it has the display.", ""},
    {"launchd_agent_install_only", "writing pinfo: %1%", "The agent's job file is being written.", ""},
    {"launchd_agent_install_only", "unable to write pinfo", "The agent's job file could not be written.", "Look at owner, free space and what stands at its path in /Library/LaunchAgents."},
    {"launchd_agent_uninstall", "stopping %1%...", "The agent is being stopped in every session; its job file goes 3 seconds later.", ""},
    {"launchd_daemon_install", "writing pinfo: %1%", "The daemon's job file is being written.", ""},
    {"launchd_daemon_start", "launching %1%", "launchctl is being started to load (1) or unload (0) the daemon.", ""},
    {"launchd_agent_start", "agent in %1% update (start=%2%) for %3% %4%", "The agent is being started (1) or stopped (0) in the session of this user id (before 10.10); the last number is 1 for the user at the console.", ""},
    {"launchd_agent_start", "trying in session", "launchctl is being run as the user at the console.", ""},
    {"launchd_agent_start", "failed to run launctl: %1%", "launchctl could not be run as the user at the console, or did not end within 5 seconds.", ""},
    {"launchd_agent_start", "calling remove", "launchctl is being asked to remove the agent of the user at the console.", ""},
    {"launchd_agent_start", "failed to run launctl remove: %1%", "launchctl could not be run to remove the agent, or did not end within 5 seconds.", ""},
    {"launchd_agent_start_v2", "agent in %1% update (start=%2%) for %3%", "The agent is being started (1) or stopped (0) in the session of this login process (from 10.10 on).", ""},
    {"launchd_agent_start_v2", "err: %1%", "\"id\" failed for the name of a user who is logged in.", ""},
    {"launchd_agent_start_v2", "failed to retrieve effective user id, will not load for user %1%", "A logged-in user's id could not be learned, so that session was passed over; the others are served.", "After the user's next log-in launchd starts the agent by itself."},
    {"send_to_sock", "rpc to %1%", "A message goes to a user's launchd (before 10.10).", ""},
    {"send_to_sock", "got %1% - retrying", "A part of the launchd's reply has come; more is being read.", ""},
    {"launchd_call", "received %1%-%2%-%3%", "The launchd's reply: its type and two numbers. Type 9 is an answer.", ""},
    {"launchd_exec", "session not found", "The user is not logged in, so nothing could be run in that session.", "After the user's next log-in launchd starts the agent by itself."},
    {"launchd_exec", "preparing ...", "What an earlier one-shot job left is being removed.", ""},
    {"launchd_exec", "submiting ...", "The one-shot job is being submitted to the user's launchd.", ""},
    {"launchd_exec", "err %1%", "The one-shot job could not be submitted: the user's launchd refused, or did not answer.", ""},
    {"launchd_exec", "cleaning ...", "The one-shot job is being removed.", ""},
    {"ipc", "endpoint %1% cannot be opened: %2%", "The socket could not be opened, so no client can reach this helper.", "Another helper may hold it, or something that is no socket stands at its path; rnrctl doctor tells."},
    {"thread startup", "pthread_create failed: %1%", "A thread could not be started; the machine is out of threads or memory.", ""},
    {"thread startup", "error count: %1%", "How many times a thread could not be started since the helper began.", ""},
    {"", "new maximum number of threads: %1%", "So many threads run at once, more than ever before in this process.", ""},
    {"muro::init", "invalid api provided (want=16, got=%1%)", "The runtime was handed a table of another version: helper and host do not belong together.", "Install both from one package."},
};

constexpr failed_function kFunctions[] = {
    {"get_current_dir", "the working folder cannot be told (it may have been removed)"},
    {"expand_filename", "a path cannot be made absolute: not even \"/\" resolves"},
    {"move_file", "a file cannot be moved: something is at the target already, or the two lie on different volumes"},
    {"get_file_mode", "a file's mode cannot be read"},
    {"set_executable", "a file cannot be made executable"},
    {"remove_directory", "a folder cannot be removed; what is left in it tells why"},
    {"delete_file", "a file cannot be deleted"},
    {"delete_recursive", "a folder and what is in it cannot be deleted as a whole"},
    {"_get_home_dir", "there is no home folder: neither HOME nor TMPDIR is set"},
    {"get_exe_path", "the running executable's path cannot be told"},
    {"createTestFile", "the self-test's file cannot be used: something else stands at its place"},
    {"get_console", "the owner of the console cannot be told"},
    {"send_to_sock", "a user's launchd cannot be talked to"},
    {"launchd_call", "a user's launchd gave a reply that is no answer"},
    {"pop", "a user's launchd gave a reply that is too short"},
    {"convert", "text for a job file cannot be converted"},
    {"pipe_server", "the endpoint's server cannot be started"},
    {"ipc", "the endpoint's socket cannot be opened"},
    {"make_socket", "a socket cannot be made"},
    {"init_thread", "the threads' set-up failed"},
    {"rec_mutex", "a lock cannot be made"},
    {"lock", "a lock cannot be taken"},
    {"unlock", "a lock cannot be given back"},
    {"semaphore", "a semaphore cannot be made"},
    {"wait", "waiting failed"},
    {"post", "a waiting thread cannot be woken"},
    {"cond_", "waiting failed"},
    {"detach", "a thread cannot be started"},
    {"slock", "a lock cannot be taken"},
    {"clock_realtime", "the time of day cannot be read"},
    {"clock_monotonic", "the running clock cannot be read"},
    {"wait_for_event", "waiting for a descriptor failed"},
    {"system", "a program cannot be run, or did not end in time"},
    {"init_", "a program cannot be started"},
    {"read", "a program's output cannot be read"},
    {"done", "a program's status cannot be told"},
};

// Sources: the helper's and this tool's own statuses; launchctl(1) and launchd's bootstrap errors
// as launchctl error(1) names them.
constexpr numbered kNumbers[] = {
    {"korvel_helper ends with", 0, "done: installed, removed, or tested as asked"},
    {"korvel_helper ends with", 1, "the installation or the self-test failed; the log tells at which step"},
    {"korvel_helper ends with", 42, "-restoreFile names no session; nothing was changed"},
    {"korvel_helper ends with", 134, "ended by an exception that nobody caught (SIGABRT): out of memory, as a rule"},
    {"rnrctl ends with", 0, "done; for doctor: nothing found"},
    {"rnrctl ends with", 1, "another failure"},
    {"rnrctl ends with", 2, "wrong use, or a file or ID that names no session"},
    {"rnrctl ends with", 3, "no helper serves the endpoint"},
    {"rnrctl ends with", 4, "the helper closed the connection without an answer"},
    {"rnrctl ends with", 5, "time-out"},
    {"rnrctl ends with", 6, "the restore file cannot be read"},
    {"rnrctl ends with", 7, "the helper answered, and did not do what it was asked; its log tells why"},
    {"rnrctl ends with", 10, "doctor found something to know"},
    {"rnrctl ends with", 11, "doctor found something that is not as it should be"},
    {"rnrctl ends with", 12, "doctor found why a session does not come back"},
    {"launchctl ends with", 3, "no such process: the job is not loaded"},
    {"launchctl ends with", 5, "input/output error, launchd's word for most failures of bootstrap: the job is loaded already, its file is refused, or the domain is not there"},
    {"launchctl ends with", 17, "the job is loaded already"},
    {"launchctl ends with", 36, "the operation is under way"},
    {"launchctl ends with", 37, "the operation is under way already: the job is loaded or being unloaded"},
    {"launchctl ends with", 109, "the job file is no valid property list"},
    {"launchctl ends with", 111, "the job file names no program"},
    {"launchctl ends with", 112, "no such domain: that user is not logged in"},
    {"launchctl ends with", 113, "no such job in that domain"},
    {"launchctl ends with", 119, "the job is disabled by an override: launchctl enable DOMAIN/LABEL lifts it"},
    {"launchctl ends with", 122, "the job file, or a folder above it, has the wrong owner or mode"},
    {"launchctl ends with", 125, "the domain does not support this: the job is for another kind of session"},
    {"launchctl ends with", 133, "the job is loaded already"},
    {"launchctl ends with", 134, "the job is not for this kind of session"},
};
// clang-format on

}  // namespace

std::span<const log_message> log_messages() {
  return kMessages;
}

std::span<const failed_function> failed_functions() {
  return kFunctions;
}

std::span<const numbered> numbers() {
  return kNumbers;
}

}  // namespace rnrctl
