#!/usr/bin/env python3
"""The install layout, and the package recipe against stand-ins for the Mac's tools that write down
how they were called and what they were given."""

import os
import pathlib
import subprocess
import tempfile
import unittest
import xml.etree.ElementTree

ROOT = pathlib.Path(__file__).resolve().parents[2]
BUILD = pathlib.Path(os.environ.get("KORVEL_BUILD_DIR", ROOT / "build/debug"))
TOOLS = "Library/PrivilegedHelperTools"
MANUAL = "usr/local/share/man"
LAYOUT = [f"{TOOLS}/korvel_helper", f"{TOOLS}/korvel_uninstall",
          f"{MANUAL}/man5/korvel_helper.5", f"{MANUAL}/man8/korvel_helper.8"]

STAND_IN = """#!/bin/bash
printf '%s' "${0##*/}" >>"$CALLS"
printf ' %s' "$@" | sed "s|/[^ ]*/tmp\\.[^/ ]*|WORK|g" >>"$CALLS"
echo >>"$CALLS"
for word; do last=$word; done
case ${0##*/} in
  pkgbuild) (cd "$2" && find . -type f | sort) >"$CALLS.files"; touch "$last" ;;
  productbuild) cp "$2" "$CALLS.distribution"; [ -f "$4/helper.pkg" ] && touch "$last" ;;
esac
"""


def install(component, prefix):
    subprocess.run(["cmake", "--install", BUILD, "--component", component, "--prefix", prefix],
                   check=True, capture_output=True)
    return sorted(str(p.relative_to(prefix)) for p in prefix.rglob("*") if p.is_file())


class Packaging(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)

    def make_package(self, **environment):
        """Runs the recipe; gives its calls and the files that were packed."""
        tools = self.folder / "bin"
        tools.mkdir()
        for name in ("pkgbuild", "productbuild", "codesign", "xcrun"):
            (tools / name).write_text(STAND_IN, encoding="utf-8")
            (tools / name).chmod(0o755)
        calls, output = self.folder / "calls", self.folder / "out.pkg"
        subprocess.run([ROOT / "packaging/make-package.sh", BUILD, output], check=True,
                       capture_output=True,
                       env={**os.environ, "PATH": f"{tools}:{os.environ['PATH']}",
                            "CALLS": str(calls), "TMPDIR": str(self.folder), **environment})
        self.assertTrue(output.exists())
        self.distribution = pathlib.Path(f"{calls}.distribution").read_bytes()
        return (calls.read_text(encoding="utf-8").splitlines(),
                pathlib.Path(f"{calls}.files").read_text(encoding="utf-8").split())

    def test_the_client_library_is_a_component_of_its_own(self):
        root = self.folder / "root"
        self.assertEqual(install("client", root), ["usr/local/include/client/korvel_rnr.h",
                                                   "usr/local/lib/libkorvel_rnr.a"])
        self.assertNotIn("#include \"", (root / "usr/local/include/client/korvel_rnr.h").read_text())

    def test_the_client_library_needs_the_c_library_alone(self):
        symbols = subprocess.run(["nm", "-u", BUILD / "client/libkorvel_rnr.a"], check=True,
                                 capture_output=True, text=True).stdout
        self.assertNotRegex(symbols, r" U (_Z|__cxa|__gxx)")

    def test_layout(self):
        root = self.folder / "root"
        self.assertEqual(install("helper", root), LAYOUT)
        for name in ("korvel_helper", "korvel_uninstall"):
            self.assertEqual((root / TOOLS / name).stat().st_mode & 0o7777, 0o755)

    def test_layout_of_the_tools(self):
        share = "usr/local/share"
        self.assertEqual(install("tools", self.folder / "root"),
                         ["usr/local/bin/rnrctl", f"{share}/bash-completion/completions/rnrctl",
                          f"{share}/fish/vendor_completions.d/rnrctl.fish",
                          f"{share}/man/man8/rnrctl.8", f"{share}/zsh/site-functions/_rnrctl"])

    def test_unsigned_package(self):
        calls, files = self.make_package()
        self.assertEqual([call.split()[0] for call in calls], ["pkgbuild", "productbuild"])
        self.assertIn(" --ownership recommended ", calls[0])
        self.assertIn(f" --scripts {ROOT}/packaging/scripts ", calls[0])
        self.assertIn(" --install-location / ", calls[0])
        self.assertNotIn("--sign", " ".join(calls))
        self.assertEqual(files, [f"./{name}" for name in LAYOUT])

    def test_the_uninstaller_knows_all_that_is_installed(self):
        script = (ROOT / "packaging/uninstall.sh").read_text(encoding="utf-8")
        root = self.folder / "root"
        for name in install("helper", root) + install("tools", root) + install("client", root):
            self.assertIn(pathlib.Path(name).name, script)

    def test_signed_and_notarised_in_this_order(self):
        calls, _ = self.make_package(KORVEL_SIGN_APPLICATION="App", KORVEL_SIGN_INSTALLER="Inst",
                                     KORVEL_NOTARY_PROFILE="profile")
        self.assertEqual([" ".join(call.split()[:2 if "xcrun" in call else 1]) for call in calls],
                         ["codesign", "pkgbuild", "productbuild", "xcrun notarytool",
                          "xcrun stapler"])
        self.assertIn(" --options runtime --timestamp ", calls[0])
        self.assertIn(" --sign App ", calls[0])
        self.assertIn(" --sign Inst --timestamp ", calls[2])
        self.assertTrue(calls[3].endswith(" --keychain-profile profile --wait"))

    def test_distribution_names_the_package_that_was_built(self):
        calls, _ = self.make_package()
        tree = xml.etree.ElementTree.fromstring(self.distribution)
        packed = [ref for ref in tree.iter("pkg-ref") if ref.text]
        self.assertEqual([ref.text for ref in packed], ["helper.pkg"])
        self.assertIn(f"--identifier {packed[0].get('id')} --version {packed[0].get('version')} ",
                      calls[0])
        self.assertEqual(tree.find(".//os-version").get("min"), "10.9")
        self.assertEqual(tree.find("options").get("rootVolumeOnly"), "true")

    def test_uninstaller_forgets_this_package(self):
        uninstaller = (ROOT / "packaging/uninstall.sh").read_text(encoding="utf-8")
        recipe = (ROOT / "packaging/make-package.sh").read_text(encoding="utf-8")
        identifier = "com.norvane.korvel.helper.pkg"
        self.assertIn(f"receipt={identifier}\n", uninstaller)
        self.assertIn(f"identifier={identifier}\n", recipe)


if __name__ == "__main__":
    unittest.main()
