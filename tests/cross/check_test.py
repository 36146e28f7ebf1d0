#!/usr/bin/env python3
"""Each check of cross/check.py fails on what it is there to find.

doctored_answers: the object tools are replaced by texts; runs everywhere.
spoiled_executable: the real executable, named by KORVEL_MACOS_EXECUTABLE, with one thing changed.
"""

import contextlib
import io
import os
import pathlib
import struct
import sys
import tempfile
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT / "cross"))

import check  # noqa: E402

KIND = "Mach-O executable, x86-64, position independent"
RELEASE = "lowest macOS"
COMMANDS = "no load command that 10.9 does not know"
LIBRARIES = "no library but the system's own"
STUBS = "every undefined symbol is in a stub"
AGES = "none of them came after 10.9"
EXPORTS = "nothing exported but the start"
OBJECTIVE_C = "Objective-C data in __DATA"
PATHS = "no build path inside"
SIZE = "stripped, under 700,000 bytes"
PLIST = "embedded Info.plist"
TWINS = "two builds in two folders are alike"

HEADER = """x:
Mach header
      magic cputype cpusubtype  caps    filetype ncmds sizeofcmds      flags
MH_MAGIC_64  X86_64        ALL  0x00     EXECUTE    20       2000   NOUNDEFS DYLDLINK TWOLEVEL PIE
"""
LOADS = """Section
  sectname __objc_imageinfo
   segname __DATA
Section
  sectname __objc_methname
   segname __TEXT
Section
  sectname __objc_selrefs
   segname __DATA
Load command 5
            cmd LC_DYSYMTAB
        cmdsize 80
      ilocalsym 0
      nlocalsym 0
Load command 8
      cmd LC_VERSION_MIN_MACOSX
  cmdsize 16
  version 10.9
      sdk 10.13
"""
DYLIBS = """x:
\t/System/Library/Frameworks/Foundation.framework/Versions/C/Foundation (compatibility version 300)
\t/usr/lib/libSystem.B.dylib (compatibility version 1.0.0, current version 1.0.0)
"""
NM = "                 U _objc_msgSend\n                 U _OBJC_CLASS_$_NSString\n"
TRIE = "Exports trie:\n0x100002340  _main\n0x100000000  __mh_execute_header\n"
INFO = b"""<?xml version="1.0" encoding="UTF-8"?>
<plist version="1.0"><dict><key>CFBundleIdentifier</key>
<string>com.norvane.korvel.helper</string></dict></plist>"""


class Case(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)
        self.path = self.folder / "executable"

    def failures(self, twin=None, **replaced):
        with contextlib.redirect_stdout(io.StringIO()):
            return check.Checks(self.path, **replaced).run(twin)


class doctored_answers(Case):
    """One answer differs from that of a good executable; the check of that name fails alone."""

    def setUp(self):
        super().setUp()
        self.path.write_bytes(b"content")
        self.answers = {"--private-header": HEADER, "--private-headers": LOADS,
                        "--dylibs-used": DYLIBS, "-u": NM, "--exports-trie": TRIE}
        self.info = INFO
        self.complaints = ""
        self.with_library_symbols()  # the real list comes with the compiler

    def tools(self, name, *words):
        if name == "llvm-objcopy":
            if self.info is not None:
                pathlib.Path(words[0].split("=")[-1]).write_bytes(self.info)
            return ""
        return next(text for word, text in self.answers.items() if word in words)

    def expect(self, *failed, twin=None):
        self.assertEqual(self.failures(twin, tools=self.tools,
                                       compiler=lambda source: self.complaints), list(failed))

    def doctor(self, question, old, new):
        self.assertIn(old, self.answers[question])
        self.answers[question] = self.answers[question].replace(old, new)

    def test_good_executable_passes(self):
        self.expect()

    def test_other_processor(self):
        self.doctor("--private-header", "X86_64", "ARM64")
        self.expect(KIND)

    def test_library_instead_of_executable(self):
        self.doctor("--private-header", "EXECUTE", "DYLIB")
        self.expect(KIND)

    def test_fixed_position(self):
        self.doctor("--private-header", " PIE", "")
        self.expect(KIND)

    def test_later_lowest_release(self):
        self.doctor("--private-headers", "version 10.9\n", "version 10.13\n")
        self.expect(RELEASE)

    def test_no_lowest_release(self):
        self.doctor("--private-headers", "LC_VERSION_MIN_MACOSX", "LC_BUILD_VERSION")
        self.expect(RELEASE, COMMANDS)

    def test_run_path(self):
        self.answers["--private-headers"] += "      cmd LC_RPATH\n"
        self.expect(COMMANDS)

    def test_chained_fixups(self):
        self.answers["--private-headers"] += "      cmd LC_DYLD_CHAINED_FIXUPS\n"
        self.expect(COMMANDS)

    def test_strange_library(self):
        self.answers["--dylibs-used"] += "\t/usr/local/lib/libother.dylib (x)\n"
        self.expect(LIBRARIES)

    def test_library_of_a_system_name_elsewhere(self):
        self.doctor("--dylibs-used", "/usr/lib/libSystem", "@rpath/libSystem")
        self.expect(LIBRARIES)

    def test_symbol_that_no_stub_has(self):
        self.answers["-u"] += "                 U _korvel_nowhere\n"
        self.with_library_symbols("_other")
        self.expect(STUBS)

    def test_no_symbol_at_all(self):
        self.answers["-u"] = ""
        self.expect(STUBS)

    def test_symbol_of_a_later_release_by_name(self):
        self.with_library_symbols("_openat$INODE64")
        self.answers["-u"] += "                 U _openat$INODE64\n"
        self.expect(AGES)

    def test_symbol_of_a_later_release_by_the_headers(self):
        self.with_library_symbols("_later")
        self.answers["-u"] += "                 U _later\n"
        self.complaints = self.complaint_about("later", "'later' is only available on macOS 10.12")
        self.expect(AGES)

    def test_symbol_that_no_header_has(self):
        self.with_library_symbols("_unheard_of")
        self.answers["-u"] += "                 U _unheard_of\n"
        self.complaints = self.complaint_about("unheard_of", "use of undeclared identifier")
        self.expect(AGES)

    def test_compiler_that_cannot_answer(self):
        self.complaints = "symbols.c:1:10: fatal error: 'ctype.h' file not found\n"
        self.expect(AGES)
        self.complaints = "error: FileNotFound\n"
        self.expect(AGES)

    def with_library_symbols(self, *names):
        kept = check.library_symbols
        check.library_symbols = lambda: set(names)
        self.addCleanup(setattr, check, "library_symbols", kept)

    @staticmethod
    def complaint_about(name, text):
        seen = []
        check.newer_symbols({name}, lambda source: seen.append(source) or "")
        # The compiler counts from the line that the source itself states.
        stated, rest = seen[0].split("#line ")[1].split("\n", 1)
        line = int(stated) + rest.split("\n").index(f"(void)&{name};")
        return f"symbols.c:{line}:8: error: {text}\n"

    def test_exported_function(self):
        self.answers["--exports-trie"] += "0x10006A020  __Znam [weak_def]\n"
        self.expect(EXPORTS)

    def test_image_information_where_old_runtimes_do_not_look(self):
        self.doctor("--private-headers", "__objc_imageinfo\n   segname __DATA",
                    "__objc_imageinfo\n   segname __DATA_CONST")
        self.expect(OBJECTIVE_C)

    def test_no_image_information(self):
        self.doctor("--private-headers", "__objc_imageinfo", "__other")
        self.expect(OBJECTIVE_C)

    def test_path_of_the_tree(self):
        self.path.write_bytes(b"..." + str(ROOT).encode() + b"/muro/x.cpp\0")
        # The tree may lie below /tmp itself, where its path is found twice; that is one check.
        self.expect(PATHS)

    def test_path_of_the_tool_chain_or_a_temporary_folder(self):
        for path in (b"/x/node_modules/y", b"/tmp/build.17/z"):
            self.path.write_bytes(path)
            self.expect(PATHS)

    def test_paths_of_the_product_itself(self):
        self.path.write_bytes(b"/tmp/launchd-\0/tmp/test1245\0/tmp/\0")
        self.expect()

    def test_too_large(self):
        self.path.write_bytes(b"x" * 700_000)
        self.expect(SIZE)
        self.path.write_bytes(b"x" * 699_999)
        self.expect()

    def test_not_stripped(self):
        self.doctor("--private-headers", "nlocalsym 0", "nlocalsym 812")
        self.expect(SIZE)

    def test_other_bundle_id(self):
        self.info = INFO.replace(b"korvel.helper", b"korvel.other")
        self.expect(PLIST)

    def test_no_or_broken_information(self):
        for self.info in (None, b"", b"<plist>", b"<plist><array/></plist>", b"<plist><dict/></plist>"):
            self.expect(PLIST)

    def test_twin_that_differs(self):
        twin = self.folder / "twin"
        twin.write_bytes(b"contenT")
        self.expect(TWINS, twin=twin)
        twin.write_bytes(b"content")
        self.expect(twin=twin)


@unittest.skipUnless(os.environ.get("KORVEL_MACOS_EXECUTABLE"), "run by ./dev cross")
class spoiled_executable(Case):
    """The real executable with one thing changed in its bytes, read by the real tools."""

    def setUp(self):
        super().setUp()
        self.good = pathlib.Path(os.environ["KORVEL_MACOS_EXECUTABLE"]).read_bytes()

    def expect(self, data, *failed):
        self.path.write_bytes(data)
        self.assertEqual(self.failures(), list(failed))

    def replaced(self, old, new):
        self.assertEqual(len(old), len(new))
        self.assertIn(old, self.good)
        return self.good.replace(old, new)

    def load_command(self, wanted):
        at = 32
        for _ in range(struct.unpack_from("<I", self.good, 16)[0]):
            command, size = struct.unpack_from("<II", self.good, at)
            if command == wanted:
                return at
            at += size
        self.fail(f"no load command {wanted:#x}")

    def patched(self, at, form, value):
        data = bytearray(self.good)
        struct.pack_into(form, data, at, value)
        return bytes(data)

    def test_unchanged(self):
        self.expect(self.good)

    def test_fixed_position(self):
        flags = struct.unpack_from("<I", self.good, 24)[0]
        self.expect(self.patched(24, "<I", flags & ~0x200000), KIND)

    def test_later_lowest_release(self):
        self.expect(self.patched(self.load_command(0x24) + 8, "<I", 0x000A0D00), RELEASE)

    def test_strange_library(self):
        self.expect(self.replaced(b"/usr/lib/libobjc.A.dylib", b"/usr/lib/libevil.A.dylib"),
                    LIBRARIES)

    def test_symbol_of_a_later_release(self):
        self.expect(self.replaced(b"_getdtablesize\0", b"_clock_gettime\0"), AGES)

    def test_symbol_that_no_stub_has(self):
        self.expect(self.replaced(b"_getdtablesize\0", b"_getdtablesizz\0"), STUBS, AGES)

    def test_objective_c_data_elsewhere(self):
        section = b"__objc_imageinfo"
        self.expect(self.replaced(section + b"__DATA\0\0\0\0\0\0", section + b"__DATA_CONST"),
                    OBJECTIVE_C)

    def test_build_path(self):
        self.expect(self.replaced(b"/tmp/test1245", b"/tmp/build.17"), PATHS)

    def test_other_bundle_id(self):
        self.expect(self.replaced(b"com.norvane.korvel.helper</string>",
                                  b"com.norvane.korvel.hepler</string>"), PLIST)

    def test_too_large(self):
        self.expect(self.good + bytes(700_000 - len(self.good)), SIZE)

    def test_elf_file(self):
        self.path.write_bytes(pathlib.Path(sys.executable).resolve().read_bytes())
        self.assertIn(KIND, self.failures())


if __name__ == "__main__":
    unittest.main()
