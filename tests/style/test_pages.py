#!/usr/bin/env python3
"""Holds the pages and the program together.

Every message of the program stands in the user's guide, and every message of the guide is one of the program's. What
the README shows of the demo, and what docs/image-format.md shows of an image, is what the demo prints and what the
bytes are. Closes with the line that ./check adds up.
"""

import os
import re
import subprocess
import sys
import tempfile
import unittest

import console
import image
import suite

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(os.path.dirname(HERE))

LITERAL = r'"(?:[^"\\\n]|\\.)*"'
DIRECTIVE = re.compile(r"%[-+ 0#]*\d*(?:\.\d+)?(?:hh|h|ll|l|z)?[dufsxXc]")
# What stands between quotation marks in the program and is no message: names of options, commands and steps, values,
# parts of paths.
NO_MESSAGE = re.compile(
    r"^(GatherWriterMetadata|PrepareForBackup|DoSnapshotSet|GatherWriterStatus|BackupComplete|"
    r"--[a-z-]+|[a-z-]+|-1|YES|\.partial|[\\/:]+||rb|\?|invalid stoi argument|stoi argument out of range)$")


def read(*parts):
    with open(os.path.join(ROOT, *parts), encoding="utf-8") as file:
        return file.read()


def without_comments(source):
    """The source with its comments blanked out; a literal with two slashes in it is left alone."""
    return re.sub(rf"({LITERAL})|//[^\n]*", lambda match: match.group(1) or "", source)


def normalized_lines(text):
    """The lines of a printf format as the guide writes them: … for each directive, no blanks at the ends."""
    text = re.sub(r"\\(.)", lambda match: {"n": "\n", "r": "\n"}.get(match.group(1), match.group(1)), text)
    text = DIRECTIVE.sub("…", text).replace("%%", "%")
    return [line.strip() for line in text.split("\n") if line.strip()]


def texts_of(*path):
    """The texts between quotation marks in a source, those that the compiler joins being one."""
    source = re.sub(r"#include[^\n]*", "", without_comments(read(*path)))
    for match in re.finditer(rf"(?<![LuU8\w])({LITERAL}(?:\s*{LITERAL})*)", source):
        yield "".join(part[1:-1] for part in re.findall(LITERAL, match.group(1)))


def messages_of_platform():
    """What the Linux platform says of the end of a run: its fatal reports, without what stands in front of each fatal
    report, and the lines about interruptions and lost output."""
    lines = set()
    folder = os.path.join(ROOT, "platform", "linux")
    for name in os.listdir(folder):
        if name.endswith(".cpp"):
            for text in texts_of("platform", "linux", name):
                # A refusal of what no command of the program asks for names the call first, and nobody gets to see it.
                match = re.match(r"FATAL: (.*?) \(GetLastError=%\w+\)\\n|((?:INTERRUPTED|vornix): (?!%s:).*?)\\n", text)
                if match:
                    lines.update(normalized_lines(match[1] or match[2]))
    return lines


def messages_of_disks_tool():
    """What vornix-disks says beside its table."""
    lines = set()
    for text in texts_of("platform", "linux", "disks_tool", "main.cpp"):
        if text.startswith("vornix-disks: "):
            lines.update(normalized_lines(text))
    source = without_comments(read("platform", "linux", "disks_tool", "print_report.cpp"))
    for statement in re.findall(r"notes \+= (.*?);\n", source, re.S):
        parts = re.split(f"({LITERAL})", statement)
        text = "".join(part[1:-1] if part.startswith('"') else "…" if part.strip() else "" for part in parts)
        lines.update(normalized_lines(text))
    return lines


def messages_of_program():
    """Every line that the program can print, but for the usage text."""
    lines = messages_of_platform() | messages_of_disks_tool()
    for folder, _, names in os.walk(os.path.join(ROOT, "src")):
        for name in names:
            if not name.endswith(".cpp"):
                continue
            for text in texts_of(os.path.relpath(os.path.join(folder, name), ROOT)):
                if "Vornix - whole-physical-disk" in text:
                    continue
                lines.update(line for line in normalized_lines(text) if not NO_MESSAGE.match(line))
    return lines


def messages_of_guide():
    """What the first column of the guide's tables of messages holds between backticks."""
    guide = read("docs", "users-guide.md").split("## Every message", 1)[1]
    lines = set()
    for row in re.findall(r"^\| (.*?) \|", guide, flags=re.M):
        lines.update(text.strip() for text in re.findall(r"`([^`]+)`", row))
    return lines


# Additions to a message that the guide tells beside the message itself.
TOLD_BESIDE = {"<- currently booted system disk", "(GAP - untracked write seen)"}


def dump_like_hexdump(data):
    """Sixteen bytes a line with offset and text; repeated lines as one asterisk."""
    lines, previous, starred = [], None, False
    for offset in range(0, len(data), 16):
        row = data[offset:offset + 16]
        if row == previous:
            if not starred:
                lines.append("*")
            starred = True
            continue
        previous, starred = row, False
        left, right = (" ".join(f"{byte:02x}" for byte in half) for half in (row[:8], row[8:]))
        text = "".join(chr(byte) if 32 <= byte < 127 else "." for byte in row)
        lines.append(f"{offset:08x}  {left:<23}  {right:<23}  |{text}|")
    lines.append(f"{len(data):08x}")
    return "\n".join(lines)


def worked_example():
    with tempfile.TemporaryDirectory() as folder:
        base = os.path.join(folder, "base.vrnx")
        full = image.build_image(base, b"A" * 512 + b"B" * 512 + b"C" * 512, chunk_size=512)
        thin = image.ImageBuilder(b"A" * 512 + b"b" * 512 + b"C" * 512, chunk_size=512, base=base)
        return (f"`base.vrnx`:\n\n```\n{dump_like_hexdump(full.to_bytes())}\n```\n\n"
                f"`thin.vrnx`:\n\n```\n{dump_like_hexdump(thin.to_bytes())}\n```\n")


def sealed_example():
    folder = os.path.join(ROOT, "tests", "vectors")
    with open(os.path.join(folder, "password.txt"), "rb") as file:
        content = file.read()
    password = image.trim_password(content)
    opened = image.Image(os.path.join(folder, "sealed.vrnx"), password)
    header, record = opened.header, opened.records[0]
    rows = [("password file", f"`{content.hex()}`"), ("password", f"`{password.hex()}` (`{password.decode()}`)"),
            ("`Salt`", f"`{header.salt.hex()}`"), ("`KdfIterations`", f"{header.kdf_iterations:,}"),
            ("key", f"`{opened.key.hex()}`"), ("`Nonce`", f"`{record.nonce.hex()}`"),
            ("`Tag`", f"`{record.tag.hex()}`"),
            (f"stored bytes, {record.stored_length} at {opened.offsets[0]}",
             f"`{opened.stored_bytes(0)[:16].hex()}...`"),
            ("plain bytes", f"`{opened.chunk(0)[:16].hex()}...`"), ("`Hash`", f"`{record.hash.hex()}`")]
    return "| | |\n|---|---|\n" + "".join(f"| {name} | {value} |\n" for name, value in rows)


def section(page, name):
    """What stands between the two marks of a generated section."""
    return re.search(rf"<!-- {name} -->\n(.*?)<!-- end of {name} -->", page, flags=re.S).group(1)


def replace_section(path, name, content):
    page = read(path)
    old = section(page, name)
    with open(os.path.join(ROOT, path), "w", encoding="utf-8") as file:
        file.write(page.replace(f"<!-- {name} -->\n{old}", f"<!-- {name} -->\n{content}"))


def demo_output():
    return subprocess.run([os.path.join(ROOT, "demo")], capture_output=True, text=True, check=True).stdout


def steady(text):
    """The demo's output without what differs from run to run: rates, and what the file system counts."""
    text = re.sub(r"[\d.]+ MiB/s", "0.0 MiB/s", text)
    text = re.sub(r"^    (?:/dev/|partition\.img|e2fsck|Pass).*$", "    ...", text, flags=re.M)
    return text


class Pages(unittest.TestCase):
    def test_every_message_of_the_program_is_in_the_guide(self):
        missing = messages_of_program() - messages_of_guide() - TOLD_BESIDE
        self.assertEqual(sorted(missing), [])

    def test_the_platform_has_messages_of_its_own(self):
        self.assertGreaterEqual(len(messages_of_platform()), 6)
        self.assertGreaterEqual(len(messages_of_disks_tool()), 8)

    def test_every_message_of_the_guide_is_one_of_the_program(self):
        unknown = messages_of_guide() - messages_of_program()
        self.assertEqual(sorted(unknown), [])

    def test_the_guide_says_of_every_message_what_it_means_and_what_to_do(self):
        rows = re.findall(r"^\|.*\|$", read("docs", "users-guide.md").split("## Every message", 1)[1], flags=re.M)
        self.assertGreater(len(rows), 100)
        self.assertEqual([row for row in rows if re.search(r"\|\s*\|", row)], [])

    def test_each_page_has_the_commands_of_the_usage_text(self):
        usage = [re.sub(r" {3,}\(.*|  \(.*", "", line).strip() for line in console.USAGE.splitlines()
                 if line.startswith("  vornix ")]
        self.assertEqual(len(usage), 6)
        self.assertEqual(re.findall(r"(?m)^    (vornix [a-z].*)$", read("README.md")), usage)
        synopsis = read("man", "vornix.8").split(".SH SYNOPSIS")[1].split(".SH DESCRIPTION")[0]
        synopsis = re.sub(r"\\f[BIR]", "", synopsis).replace("\\-", "-")
        self.assertEqual(re.findall(r"(?m)^(vornix .*)$", synopsis), [" ".join(line.split()) for line in usage])

    def test_readme_names_each_package_that_check_installs(self):
        table = read("README.md").split("| Package | What for |")[1].split("\n\n")[0]
        named = {name.strip() for row in re.findall(r"^\| ([^|]+) \|", table, flags=re.M) for name in row.split(",")}
        packages = "".join(re.findall(r"(?ms)^(?:long_)?packages=\(\n(.*?)^\)", read("check")))
        self.assertEqual(sorted(named), sorted(re.sub(r"#.*", "", packages).split()))

    def test_manual_pages_have_no_warnings(self):
        for name in sorted(os.listdir(os.path.join(ROOT, "man"))):
            with self.subTest(name):
                done = subprocess.run(["groff", "-t", "-man", "-Tutf8", "-ww", os.path.join(ROOT, "man", name)],
                                      stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True, check=False)
                self.assertEqual((done.returncode, done.stderr), (0, ""))

    def test_worked_example_of_the_format_is_what_the_bytes_are(self):
        self.assertEqual(section(read("docs", "image-format.md"), "example"), worked_example())

    def test_worked_example_of_the_seal_is_what_the_bytes_are(self):
        self.assertEqual(section(read("docs", "image-format.md"), "sealed example"), sealed_example())

    def test_readme_shows_what_the_demo_prints(self):
        shown = section(read("README.md"), "demo output")
        self.assertEqual(steady(shown), steady("```\n" + demo_output().lstrip("\n") + "```\n"))

    def test_what_no_test_reaches_is_still_there(self):
        rows = re.findall(r"^\| `(src/\S+)`: `(.*?)(?: \(\d\))?` \| (?:never run|one direction) \| (.*) \|$",
                          section(read("docs", "reliability.md"), "coverage"), flags=re.M)
        self.assertGreater(len(rows), 0)
        for path, line, reason in rows:
            lines = [source.strip().replace("|", "\\|") for source in read(*path.split("/")).splitlines()]
            self.assertTrue(line in lines, f"{path}: {line}")
            self.assertGreater(len(reason), 0, line)

    def test_pages_that_are_referred_to_exist(self):
        for page in ("README.md", "CONTRIBUTING.md", "docs/design.md", "docs/users-guide.md", "docs/image-format.md",
                     "docs/reliability.md"):
            for name in re.findall(r"`((?:docs|platform|bench|tests|benchmarks|packaging)/[\w./-]*)`", read(page)):
                self.assertTrue(os.path.exists(os.path.join(ROOT, name)), f"{page} names {name}")


def main():
    if sys.argv[1:] == ["--update"]:
        replace_section("docs/image-format.md", "example", worked_example())
        replace_section("docs/image-format.md", "sealed example", sealed_example())
        replace_section("README.md", "demo output", "```\n" + demo_output().lstrip("\n") + "```\n")
        return 0
    return suite.main()


if __name__ == "__main__":
    sys.exit(main())
