"""The simulated Mac's process 1: launchd, login window, log-ins, restarts and a timeline."""
