"""Stands in for the Mac's PlistBuddy, as far as the uninstaller uses it.

    plist_buddy.py -c COMMAND FILE      Print, or Delete ":KEY" with colons in KEY escaped"""

import plistlib
import re
import sys


def shown(value, depth=0):
    if not isinstance(value, dict):
        return str(value).lower()
    inner = "".join(f"{'    ' * (depth + 1)}{key} = {shown(item, depth + 1)}\n"
                    for key, item in value.items())
    return "Dict {\n" + inner + "    " * depth + "}"


def main(words):
    command, path = words[1], words[2]
    with open(path, "rb") as file:
        values = plistlib.load(file)
    if command == "Print":
        print(shown(values))
        return 0
    key = re.fullmatch(r'Delete ":((?:[^":\\]|\\.)+)"', command)
    name = re.sub(r"\\(.)", r"\1", key[1]) if key else None
    if name not in values:
        print(f"Delete: Entry, {command!r}, Does Not Exist", file=sys.stderr)
        return 1
    del values[name]
    with open(path, "wb") as file:
        plistlib.dump(values, file)
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
