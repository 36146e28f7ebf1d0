"""The database in which `load -w` and `unload -w` outlive restarts of the simulated Mac."""

import os
import plistlib


class Overrides:
    """Per domain, labels that were switched on or off against what their job files say."""

    def __init__(self, release):
        self._release = release

    def read(self, domain):
        """Label to whether it is disabled, for the domain's owner."""
        try:
            with open(self._release.override_file(domain), "rb") as file:
                values = plistlib.load(file)
        except FileNotFoundError:
            return {}
        if self._release.legacy:
            return {label: entry["Disabled"] for label, entry in values.items()}
        return values

    def is_disabled(self, domain, spec):
        return self.read(domain).get(spec.label, spec.disabled)

    def set(self, domain, label, disabled):
        values = {**self.read(domain), label: disabled}
        if self._release.legacy:
            values = {name: {"Disabled": value} for name, value in values.items()}
        path = self._release.override_file(domain)
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with open(path + ".new", "wb") as file:
            plistlib.dump(values, file)
        os.replace(path + ".new", path)
