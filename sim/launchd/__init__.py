"""The simulated Mac's process 1: launchd, the login window, log-ins, restarts and their timeline."""
