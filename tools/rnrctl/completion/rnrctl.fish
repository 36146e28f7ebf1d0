# Completion of rnrctl for fish; made by rnrctl completion.
complete -c rnrctl -n '__fish_use_subcommand' -a register -d 'have the session of FILE resumed after a restart; the helper takes FILE away'
complete -c rnrctl -n '__fish_use_subcommand' -a resign -d 'withdraw the session of FILE'
complete -c rnrctl -n '__fish_use_subcommand' -a ping -d 'see whether the helper answers'
complete -c rnrctl -n '__fish_use_subcommand' -a status -d 'every session: its files, its jobs, and whether it is served'
complete -c rnrctl -n '__fish_use_subcommand' -a doctor -d 'why a session does not come back, and what to do about it'
complete -c rnrctl -n '__fish_use_subcommand' -a sessions -d 'remove what is left of sessions that are over'
complete -c rnrctl -n '__fish_use_subcommand' -a plan -d 'print what the helper would do for a request, and touch nothing'
complete -c rnrctl -n '__fish_use_subcommand' -a wait -d 'wait until a session is loaded, or all of it gone'
complete -c rnrctl -n '__fish_use_subcommand' -a log -d 'show the helper\'s logs, older generations included, by time'
complete -c rnrctl -n '__fish_use_subcommand' -a explain -d 'say in plain words what a line of the log or a number means'
complete -c rnrctl -n '__fish_use_subcommand' -a bundle -d 'pack logs, job files, status and listings for a support ticket'
complete -c rnrctl -n '__fish_use_subcommand' -a completion -d 'print what a shell needs to complete this tool\'s words'
complete -c rnrctl -n '__fish_use_subcommand' -l help
complete -c rnrctl -n '__fish_use_subcommand' -l version
complete -c rnrctl -n '__fish_use_subcommand' -l endpoint
complete -c rnrctl -n '__fish_use_subcommand' -l timeout
complete -c rnrctl -n '__fish_seen_subcommand_from register' -l help
complete -c rnrctl -n '__fish_seen_subcommand_from register' -l no-verify
complete -c rnrctl -n '__fish_seen_subcommand_from resign' -l help
complete -c rnrctl -n '__fish_seen_subcommand_from resign' -l no-verify
complete -c rnrctl -n '__fish_seen_subcommand_from ping' -l help
complete -c rnrctl -n '__fish_seen_subcommand_from status' -l help
complete -c rnrctl -n '__fish_seen_subcommand_from status' -l json
complete -c rnrctl -n '__fish_seen_subcommand_from doctor' -l help
complete -c rnrctl -n '__fish_seen_subcommand_from doctor' -l security
complete -c rnrctl -n '__fish_seen_subcommand_from doctor' -l json
complete -c rnrctl -n '__fish_seen_subcommand_from sessions' -a prune -d 'all sessions that have no restore file any more'
complete -c rnrctl -n '__fish_seen_subcommand_from sessions' -a reset -d 'one session, unless it is live'
complete -c rnrctl -n '__fish_seen_subcommand_from sessions' -l help
complete -c rnrctl -n '__fish_seen_subcommand_from prune' -l help
complete -c rnrctl -n '__fish_seen_subcommand_from prune' -l yes
complete -c rnrctl -n '__fish_seen_subcommand_from reset' -l help
complete -c rnrctl -n '__fish_seen_subcommand_from reset' -l yes
complete -c rnrctl -n '__fish_seen_subcommand_from plan' -l help
complete -c rnrctl -n '__fish_seen_subcommand_from plan' -l bundle
complete -c rnrctl -n '__fish_seen_subcommand_from plan' -l as-if
complete -c rnrctl -n '__fish_seen_subcommand_from plan' -l users
complete -c rnrctl -n '__fish_seen_subcommand_from plan' -l console
complete -c rnrctl -n '__fish_seen_subcommand_from wait' -l help
complete -c rnrctl -n '__fish_seen_subcommand_from wait' -l loaded
complete -c rnrctl -n '__fish_seen_subcommand_from wait' -l gone
complete -c rnrctl -n '__fish_seen_subcommand_from log' -l help
complete -c rnrctl -n '__fish_seen_subcommand_from log' -l follow
complete -c rnrctl -n '__fish_seen_subcommand_from log' -l id
complete -c rnrctl -n '__fish_seen_subcommand_from log' -l component
complete -c rnrctl -n '__fish_seen_subcommand_from log' -l file
complete -c rnrctl -n '__fish_seen_subcommand_from log' -l json
complete -c rnrctl -n '__fish_seen_subcommand_from explain' -l help
complete -c rnrctl -n '__fish_seen_subcommand_from bundle' -l help
complete -c rnrctl -n '__fish_seen_subcommand_from completion' -l help
