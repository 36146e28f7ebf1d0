#!/bin/sh
# Removes the helper and all that it has made: jobs, job files, launchd's notes about them, endpoints,
# session folders, logs, its own files and the installer's receipt. Run as root; may be run again.
#
# Nothing here follows what a user could have put into a path: the names come from the folders of
# launchd and of the sessions, which only root writes, and links are removed as links.
set -u
PATH=/usr/bin:/bin:/usr/sbin:/sbin
export PATH

service=com.norvane.korvel.helper
restart=com.norvane.korvel.restart
tools=/Library/PrivilegedHelperTools
runtime=/Library/VeskRuntime
daemons=/Library/LaunchDaemons
agents=/Library/LaunchAgents
receipt=com.norvane.korvel.helper.pkg
plist_buddy=${PLIST_BUDDY:-/usr/libexec/PlistBuddy}

if [ "$(id -u)" -ne 0 ]; then
  echo "korvel_uninstall: run this as root" >&2
  exit 1
fi

failed=0
complain() {
  echo "korvel_uninstall: $*" >&2
  failed=1
}

# The users who have a launchd domain, from the processes' owners.
users() {
  ps -ax -o uid= | tr -d ' ' | sort -un | grep -v '^0$'
}

login_windows() {
  ps -ax -o pid= -o uid= -o comm= | awk -v uid="$1" '$2 == uid && /loginwindow/ {print $1}'
}

# The job of file $1 in every domain that may have it. launchctl says so where there is none; what
# counts is whether processes are left, which comes later.
stop_daemon() {
  launchctl unload "$1" >/dev/null 2>&1
}

stop_agent() {
  label=$(basename "$1" .plist)
  launchctl unload -S LoginWindow "$1" >/dev/null 2>&1
  for uid in $(users); do
    launchctl bootout "gui/$uid/$label" >/dev/null 2>&1 && continue
    # Before 10.10 every user has a launchd of their own, reached from inside their session.
    for pid in $(login_windows "$uid"); do
      launchctl bsexec "$pid" sudo -u "#$uid" launchctl unload -S Aqua "$1" >/dev/null 2>&1
    done
  done
}

# Removes the entries of our labels from the file $1, in which launchd keeps what was loaded or
# unloaded with -w. launchd reads it at the next start of the system. A label ends in a session's
# name, which may hold blanks and colons.
forget_overrides() {
  [ -f "$1" ] || return 0
  "$plist_buddy" -c Print "$1" 2>/dev/null | sed -n 's/^ *\(com\.norvane\.korvel\..*\) = .*/\1/p' |
    while IFS= read -r label; do
      case $label in
        "$service" | "$service".* | "$restart".*)
          "$plist_buddy" -c "Delete \":$(printf %s "$label" | sed 's/:/\\:/g')\"" "$1" ;;
      esac
    done
  if "$plist_buddy" -c Print "$1" 2>/dev/null | grep -q 'com\.norvane\.korvel\.'; then
    complain "entries are left in $1"
  fi
}

# Helpers and clients that no launchd has ended: those started by hand, or from a session's folder.
processes() {
  ps -axww -o pid= -o args= | awk -v tools="$tools/korvel_helper" -v sessions="$runtime/sessions/" \
    '$2 == tools || index($2, sessions) == 1 || index($0, " --connect-restore " sessions) {print $1}'
}

end_processes() {
  for signal in TERM KILL; do
    tries=0
    for pid in $(processes); do kill -s "$signal" "$pid" 2>/dev/null; done
    while [ -n "$(processes)" ] && [ $tries -lt 50 ]; do
      sleep 0.1
      tries=$((tries + 1))
    done
  done
  [ -z "$(processes)" ] || complain "still running: $(processes | tr '\n' ' ')"
}

remove() {
  rm -rf -- "$@" || complain "cannot remove $*"
}

for file in "$agents/$restart".*.plist; do
  [ -e "$file" ] && stop_agent "$file"
done
for file in "$daemons/$service".*.plist "$daemons/$service.plist"; do
  [ -e "$file" ] && stop_daemon "$file"
done
remove "$agents/$restart".*.plist "$daemons/$service".*.plist "$daemons/$service.plist"
end_processes
for file in /var/db/com.apple.xpc.launchd/disabled*.plist \
  /var/db/launchd.db/com.apple.launchd/overrides.plist \
  /var/db/launchd.db/com.apple.launchd.peruser.*/overrides.plist; do
  forget_overrides "$file"
done
rm -f -- /tmp/korvel_helper.ipc /tmp/korvel_helper_*.ipc || complain "cannot remove the endpoints"
remove "$runtime/sessions"
rmdir "$runtime" 2>/dev/null # others may keep things there
remove "$tools"/korvel_helper "$tools"/korvel_helper*.out* "$tools/korvel_uninstall" \
  /usr/local/bin/rnrctl /usr/local/lib/libkorvel_rnr.a /usr/local/include/client/korvel_rnr.h \
  /usr/local/share/man/man5/korvel_helper.5 /usr/local/share/man/man8/korvel_helper.8 \
  /usr/local/share/man/man8/rnrctl.8 /usr/local/share/bash-completion/completions/rnrctl \
  /usr/local/share/zsh/site-functions/_rnrctl \
  /usr/local/share/fish/vendor_completions.d/rnrctl.fish
if command -v pkgutil >/dev/null; then pkgutil --forget "$receipt" >/dev/null 2>&1; fi
exit $failed
