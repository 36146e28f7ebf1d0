#!/usr/bin/env python3
"""One source of words: completion, help and the manual page know the same commands and options."""

import os
import pathlib
import re
import subprocess
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]
BUILD = pathlib.Path(os.environ.get("KORVEL_BUILD_DIR", ROOT / "build/debug"))
TOOL = BUILD / "tools/rnrctl/rnrctl"


def tool(*words):
    return subprocess.run([TOOL, *words], capture_output=True, text=True, check=True).stdout


def places():
    """Words so far to what may follow, as the completion for bash has them."""
    found = re.findall(r'"([^"]*)"\) COMPREPLY=\(\$\(compgen -W "([^"]*)"', tool("completion", "bash"))
    return {words.strip(): follow.split() for words, follow in found}


def complete(*words):
    script = tool("completion", "bash") + f"""
COMP_WORDS=({" ".join(words)}); COMP_CWORD={len(words) - 1}
_rnrctl; printf '%s\\n' "${{COMPREPLY[@]}}"
"""
    return subprocess.run(["bash", "-c", script], capture_output=True, text=True,
                          check=True).stdout.split()


class Words(unittest.TestCase):
    def test_every_command_has_help_of_its_own(self):
        self.assertGreater(len(places()), 12)
        for words, follow in places().items():
            text = tool(*words.split(), "--help")
            for word in follow:
                self.assertIn(word, text, words)

    def test_the_manual_has_every_command_and_option(self):
        page = subprocess.run(["mandoc", "-T", "ascii", ROOT / "docs/man/rnrctl.8"],
                              capture_output=True, check=True).stdout.decode()
        page = re.sub(r".\x08", "", page)
        for words, follow in places().items():
            self.assertIn(words, page)
            for word in follow:
                self.assertIn(word, page, words)

    def test_completes_commands_options_and_what_stands_below_a_command(self):
        self.assertEqual(complete("rnrctl", "reg"), ["register"])
        self.assertEqual(complete("rnrctl", "sessions", "re"), ["reset"])
        self.assertEqual(complete("rnrctl", "--timeout", "5", "doctor", "--s"), ["--security"])

    def test_completes_files_where_no_word_fits(self):
        self.assertIn(str(TOOL), complete("rnrctl", "register", str(TOOL)[:-2]))

    def test_fish_knows_the_same_words(self):
        text = tool("completion", "fish")
        for words, follow in places().items():
            for word in follow:
                self.assertIn(f" -l {word[2:]}" if word.startswith("--") else f" -a {word} ", text)

    def test_what_is_installed_is_what_the_tool_prints(self):
        for shell in ("bash", "zsh", "fish"):
            kept = ROOT / f"tools/rnrctl/completion/rnrctl.{shell}"
            self.assertEqual(kept.read_text(encoding="utf-8"), tool("completion", shell),
                             f"make it anew: rnrctl completion {shell} >{kept.relative_to(ROOT)}")

    def test_another_shell_is_wrong_use(self):
        done = subprocess.run([TOOL, "completion", "tcsh"], capture_output=True, text=True)
        self.assertEqual((done.returncode, done.stderr.count("\n")), (2, 1))


if __name__ == "__main__":
    unittest.main()
