"""vrnx and its host, a POSIX system: streams that nobody reads, files that are none, links, names of any bytes."""

import json
import os
import pty
import random
import resource
import shutil
import signal
import stat
import subprocess
import tempfile

import image
import suite
from image import ImageBuilder, build_image
from machine import CHECKOUT, SETTINGS, pattern
from sealing import PASSWORD
from vrnx_runs import DAMAGED, FAILED, GOOD, USAGE, VrnxScenario, parse_document

CHUNK = 4096
PLAIN = pattern(5 * CHUNK + 77, "plain")
NEWER = PLAIN[:CHUNK] + pattern(CHUNK, "newer") + PLAIN[2 * CHUNK:]


class Host(VrnxScenario):
    def chain(self):
        vrnx = self.vrnx()
        vrnx.write("password", PASSWORD)
        build_image(vrnx.path("full.vrnx"), PLAIN)
        build_image(vrnx.path("thin.vrnx"), NEWER, base=vrnx.path("full.vrnx"))
        return vrnx

    COMMANDS = (("info", "thin.vrnx", "--json"), ("info", "thin.vrnx"), ("list", ".", "--json"), ("list", "."),
                ("check", "thin.vrnx", "--json"), ("check", "thin.vrnx"), ("diff", "full.vrnx", "thin.vrnx", "--json"),
                ("diff", "full.vrnx", "thin.vrnx"), ("map", "thin.vrnx"), ("export", "thin.vrnx", "-"), ("--help",),
                ("--version",), ("check", "--help"))


class Streams(Host):
    def test_a_full_medium_behind_standard_output(self):
        vrnx = self.chain()
        for arguments in self.COMMANDS:
            with self.subTest(arguments=arguments), open("/dev/full", "wb") as full:
                done = vrnx.start(*arguments, stdout=full, stderr=subprocess.PIPE)
                self.assertEqual(done.returncode, FAILED)
                self.assertEqual(done.stderr.count(b"\n"), 1)
                self.assertIn(b"standard output", done.stderr)

    def test_a_closed_standard_output(self):
        vrnx = self.chain()
        for arguments in self.COMMANDS:
            with self.subTest(arguments=arguments):
                done = vrnx.start(*arguments, stderr=subprocess.PIPE, preexec_fn=lambda: os.close(1))
                self.assertEqual(done.returncode, FAILED)
                self.assertIn(b"standard output", done.stderr)
        # The number of a closed stream must not become that of a file.
        done = vrnx.start("export", "thin.vrnx", "out.img", stderr=subprocess.PIPE, preexec_fn=lambda: os.close(1))
        self.assertEqual(done.returncode, FAILED)
        self.expect_file(vrnx, "out.img", NEWER)

    def test_a_closed_standard_error(self):
        vrnx = self.chain()
        done = vrnx.start("export", "absent", "out.img", stdout=subprocess.PIPE, preexec_fn=lambda: os.close(2))
        self.assertEqual((done.returncode, done.stdout), (FAILED, b""))
        done = vrnx.start("export", "thin.vrnx", "out.img", stdout=subprocess.DEVNULL, preexec_fn=lambda: os.close(2))
        self.assertEqual(done.returncode, GOOD)
        self.expect_file(vrnx, "out.img", NEWER)

    def test_nobody_reads_the_output(self):
        vrnx = self.chain()
        for arguments in self.COMMANDS:
            for handler in (signal.SIG_DFL, signal.SIG_IGN):
                with self.subTest(arguments=arguments, handler=handler):
                    reading, writing = os.pipe()
                    os.close(reading)
                    done = vrnx.start(*arguments, stdout=writing, stderr=subprocess.PIPE,
                                      preexec_fn=lambda: signal.signal(signal.SIGPIPE, handler))
                    os.close(writing)
                    self.assertEqual(done.returncode, FAILED, done.stderr)
                    self.assertIn(b"standard output", done.stderr)

    def test_a_reader_that_leaves_early(self):
        vrnx = self.vrnx()
        image.write_sparse_image(vrnx.path("x.vrnx"), 300, chunk_size=1 << 20)
        process = subprocess.Popen([SETTINGS.vrnx, "export", "x.vrnx", "-"], cwd=vrnx.work, stdout=subprocess.PIPE,
                                   stderr=subprocess.PIPE, env=SETTINGS.environment())
        self.assertEqual(process.stdout.read(1000), bytes(1000))
        process.stdout.close()
        self.assertIn(b"standard output", process.stderr.read())
        process.stderr.close()
        self.assertEqual(process.wait(), FAILED)

    def test_check_stops_where_nobody_reads_its_lines(self):
        vrnx = self.chain()
        names = ["full.vrnx"] * 200 + ["absent"] * 200
        with open("/dev/full", "wb") as full:
            done = vrnx.start("check", *names, stdout=full, stderr=subprocess.PIPE)
        self.assertEqual((done.returncode, done.stderr.count(b"\n")), (FAILED, 1))

    def on_terminal(self, vrnx, *arguments, environment=None, streams=("stdout", "stderr"), columns=100):
        """What a run prints on a terminal."""
        master, slave = pty.openpty()
        os.system(f"stty cols {columns} -onlcr < {os.ttyname(slave)}")
        settled = {**SETTINGS.environment(), "TERM": "xterm-256color", **(environment or {})}
        process = subprocess.Popen([SETTINGS.vrnx, *arguments], cwd=vrnx.work, env=settled, stdin=subprocess.DEVNULL,
                                   **{name: slave if name in streams else subprocess.DEVNULL
                                      for name in ("stdout", "stderr")})
        os.close(slave)
        shown = b""
        while True:
            try:
                part = os.read(master, 65536)
            except OSError:
                break
            if not part:
                break
            shown += part
        process.wait()
        os.close(master)
        return process.returncode, shown

    def test_progress_is_shown_on_a_terminal_alone(self):
        vrnx = self.vrnx()
        image.write_sparse_image(vrnx.path("x.vrnx"), 64, chunk_size=1 << 20)
        status, shown = self.on_terminal(vrnx, "check", "x.vrnx", streams=("stderr",))
        self.assertEqual(status, GOOD)
        self.assertRegex(shown, rb"\r +[0-9.]+%  checking x\.vrnx")
        self.assertTrue(shown.endswith(b" \r"), shown[-20:])  # and taken away at the end
        status, shown = self.on_terminal(vrnx, "export", "x.vrnx", "-", streams=("stderr",))
        self.assertRegex(shown, rb"\r +[0-9.]+%  exporting x\.vrnx")
        self.expect(vrnx.run("check", "x.vrnx"), GOOD, "x.vrnx: good, 64 chunks\n", "")

    def test_colours_are_for_terminals_that_want_them(self):
        vrnx = self.chain()
        self.assertIn(b"\x1b[38;5;", self.on_terminal(vrnx, "map", "thin.vrnx")[1])
        self.assertNotIn(b"\x1b", self.on_terminal(vrnx, "map", "thin.vrnx", environment={"NO_COLOR": "1"})[1])
        self.assertNotIn(b"\x1b", self.on_terminal(vrnx, "map", "thin.vrnx", environment={"TERM": "dumb"})[1])
        self.assertNotIn(b"\x1b", vrnx.run("map", "thin.vrnx").stdout)

    def test_the_map_is_as_wide_as_the_terminal_allows(self):
        vrnx = self.vrnx()
        build_image(vrnx.path("x.vrnx"), pattern(300 * 512, "wide"), chunk_size=512)
        for columns, width in ((10, 8), (80, 64), (139, 64), (141, 128), (400, 128)):
            shown = self.on_terminal(vrnx, "map", "x.vrnx", environment={"NO_COLOR": "1"}, columns=columns)[1]
            rows = [line for line in shown.decode().split("\n\n")[1].splitlines()]
            self.assertEqual(max(len(row) - 12 for row in rows), width, columns)


class Files(Host):
    def test_what_is_no_regular_file_is_no_image(self):
        vrnx = self.chain()
        os.mkfifo(vrnx.path("fifo"))
        os.mkdir(vrnx.path("folder"))
        os.symlink("nowhere", vrnx.path("dangling"))
        os.symlink("circle", vrnx.path("circle"))
        for name in ("fifo", "folder", "dangling", "circle", "/dev/null", "/dev/zero", "full.vrnx/x"):
            for command in (("info", name, "--json"), ("diff", name, "full.vrnx"), ("diff", "full.vrnx", name),
                            ("map", name), ("export", name, "out.img"), ("list", name),
                            ("export", "full.vrnx", "out.img", "--from", name)):
                with self.subTest(command=command):
                    if command[0] == "list" and name == "folder":
                        continue
                    self.expect_failure(vrnx.run(*command, timeout=60), FAILED)
                    self.assertFalse(vrnx.exists("out.img"))
            found, = vrnx.document("check", name, status=FAILED)["images"]
            self.assertEqual(found["result"], "unreadable")

    def test_list_takes_files_alone_and_follows_links(self):
        vrnx = self.chain()
        os.mkdir(vrnx.path("elsewhere"))
        build_image(vrnx.path("elsewhere/far"), PLAIN)
        os.symlink("elsewhere/far", vrnx.path("link.vrnx"))
        os.mkdir(vrnx.path("folder.vrnx"))
        os.mkfifo(vrnx.path("fifo.vrnx"))
        os.symlink("nowhere", vrnx.path("dangling.vrnx"))
        os.symlink("circle.partial", vrnx.path("circle.partial"))
        os.symlink("folder.vrnx", vrnx.path("tofolder.vrnx"))
        names = [entry["path"] for entry in vrnx.document("list", ".")["images"]]
        self.assertEqual(names, ["full.vrnx", "link.vrnx", "thin.vrnx"])

    def test_a_base_is_looked_for_beside_the_path_as_given(self):
        vrnx = self.chain()
        os.mkdir(vrnx.path("links"))
        os.symlink("../thin.vrnx", vrnx.path("links/thin.vrnx"))
        document = vrnx.document("info", "links/thin.vrnx", status=DAMAGED)
        self.assertEqual((document["base"]["path"], document["base"]["state"]), ("links/full.vrnx", "missing"))
        os.symlink("../full.vrnx", vrnx.path("links/full.vrnx"))
        self.assertEqual(vrnx.document("info", "links/thin.vrnx")["base"]["state"], "good")

    def test_a_file_that_cannot_be_read(self):
        vrnx = self.chain()
        # A regular file of a length, whose first bytes cannot be read, for root neither.
        os.symlink("/proc/self/mem", vrnx.path("mem.vrnx"))
        self.expect_failure(vrnx.run("info", "mem.vrnx", "--json"), FAILED, "mem.vrnx")
        result = vrnx.run("list", ".", "--json")
        self.assertEqual(result.status, FAILED)
        self.assertIn(b"mem.vrnx", result.stderr)
        images = {entry["path"]: entry for entry in parse_document("list", result.stdout)["images"]}
        entry = images["mem.vrnx"]
        self.assertEqual([name for name, value in entry.items() if value is not None], ["path", "reason"])
        # What it needs nobody knows.
        self.assertEqual((images["thin.vrnx"]["deletable"], images["thin.vrnx"]["needed_by"]), (False, []))

    def test_a_medium_that_goes_bad(self):
        compiler = shutil.which("gcc") or shutil.which("cc")
        if compiler is None or SETTINGS.sampled:
            self.skipTest("needs a C compiler, and a build without the sanitizers' own calls")
        vrnx = self.chain()
        library = os.path.join(self.folder, "failing_read.so")
        subprocess.run([compiler, "-shared", "-fPIC", "-o", library,
                        os.path.join(CHECKOUT, "tests", "reader", "failing_read.c")], check=True)
        opened = image.Image(vrnx.path("full.vrnx"))
        environment = {"LD_PRELOAD": library, "FAILING_READ": str(opened.offsets[3] + 1000)}
        result = vrnx.run("check", "thin.vrnx", "--json", environment=environment)
        found, = parse_document("check", result.stdout)["images"]
        self.assertEqual((result.status, found["result"], found["checked"]), (DAMAGED, "damaged", 6))
        self.assertEqual(found["bad"], [{"chunk": 3, "disk_offset": 3 * CHUNK, "length": CHUNK, "image": "full.vrnx",
                                         "cause": "read"}])
        # In another image that place of the file is another one of the disk.
        build_image(vrnx.path("donor.vrnx"), PLAIN, chunk_size=512)
        result = vrnx.run("export", "thin.vrnx", "out.img", "--from", "donor.vrnx", environment=environment)
        self.assertEqual(result.status, GOOD)
        self.expect_file(vrnx, "out.img", NEWER)
        # In a header or a table it is no verdict on the image.
        environment["FAILING_READ"] = "100"
        result = vrnx.run("check", "full.vrnx", "--json", environment=environment)
        self.assertEqual((result.status, parse_document("check", result.stdout)["images"][0]["result"]),
                         (FAILED, "unreadable"))
        # So nobody can tell what it is, whether it is the header that fails, the table or the trailer.
        size = os.path.getsize(vrnx.path("thin.vrnx"))
        for name, place in (("full.vrnx", 10), ("full.vrnx", 100), ("thin.vrnx", 100), ("thin.vrnx", size - 40),
                            ("thin.vrnx", size - 1)):
            environment["FAILING_READ"] = str(place)
            for options in ((), ("--json",)):
                result = vrnx.run("info", name, *options, environment=environment)
                self.assertEqual((result.status, result.stdout), (FAILED, b""), (name, place))
                self.assertIn(b"Input/output error", result.stderr)
        # In a folder it is one that cannot be read, and what it needs is not known.
        os.mkdir(vrnx.path("folder"))
        for name in ("full.vrnx", "thin.vrnx"):
            os.link(vrnx.path(name), vrnx.path(f"folder/{name}"))
        result = vrnx.run("list", "folder", "--json", environment=environment)
        self.assertEqual(result.status, FAILED)
        full, thin = parse_document("list", result.stdout)["images"]
        self.assertEqual((full["kind"], full["deletable"], thin["kind"], thin["state"]), ("full", False, None, None))
        self.assertIn("Input/output error", thin["reason"])

    def test_disks_are_no_target(self):
        vrnx = self.chain()
        try:
            os.mknod(vrnx.path("disk"), 0o600 | stat.S_IFBLK, os.makedev(7, 250))
        except PermissionError:
            self.skipTest("device files cannot be made here")
        os.symlink("disk", vrnx.path("link"))
        for name in ("disk", "link"):
            self.expect_failure(vrnx.run("export", "full.vrnx", name), FAILED, "vornix restore")

    def test_a_target_that_is_no_file(self):
        vrnx = self.chain()
        os.mkfifo(vrnx.path("fifo"))
        os.symlink("nowhere", vrnx.path("dangling"))
        for name in ("fifo", "dangling", "/dev/null", "/dev/full", "/dev/stdout"):
            self.expect_failure(vrnx.run("export", "full.vrnx", name, timeout=60), FAILED)
            self.expect_failure(vrnx.run("map", "full.vrnx", "--svg", name, timeout=60), FAILED)
        self.assertFalse(vrnx.exists("nowhere"))

    def test_a_medium_without_room(self):
        vrnx = self.chain()

        def limit():
            signal.signal(signal.SIGXFSZ, signal.SIG_IGN)
            resource.setrlimit(resource.RLIMIT_FSIZE, (3 * CHUNK, 3 * CHUNK))
        with tempfile.TemporaryFile() as errors:
            done = vrnx.start("export", "full.vrnx", "out.img", "--salvage", "out.map", stdout=subprocess.PIPE,
                              stderr=errors, preexec_fn=limit)
            errors.seek(0)
            self.assertIn(b"out.img", errors.read())
        self.assertEqual((done.returncode, done.stdout), (FAILED, b""))
        self.expect_file(vrnx, "out.img", PLAIN[:3 * CHUNK])
        lines = [line for line in vrnx.read("out.map").decode().splitlines() if not line.startswith("#")]
        self.assertEqual([line.split()[-1] for line in lines[1:]], ["+", "?"])

    def test_the_password_may_come_through_a_pipe(self):
        vrnx = self.vrnx()
        for name in ("a.vrnx", "b.vrnx"):
            build_image(vrnx.path(name), PLAIN, password=PASSWORD, seed=name)
        for arguments in (("check", "a.vrnx", "b.vrnx"), ("export", "a.vrnx", "out.img", "--from", "b.vrnx")):
            done = vrnx.start(*arguments, "--password-file", "/dev/stdin", stdin=None, input=PASSWORD + b"\n",
                              stdout=subprocess.DEVNULL)
            self.assertEqual(done.returncode, GOOD)


class Names(Host):
    HOSTILE = (b"\xff\xfe", b"new\nline", b"tab\tand\x1b[31m", b"quote\"back\\slash", b"-dash", b"--json", b" ", b"'",
               b"\xed\xa0\x80", b"\xc3\x28", b"\xf0\x9f\x92\xbe", b"%s%n", b"a" * 240, b"\xc3\xa9", b"e\xcc\x81")

    def test_names_of_any_bytes_come_back_as_they_were(self):
        vrnx = self.vrnx()
        work = os.fsencode(vrnx.work)
        build_image(vrnx.path("base.vrnx"), PLAIN)
        for name in self.HOSTILE:
            build_image(os.path.join(work, name + b".vrnx"), NEWER, base=vrnx.path("base.vrnx"))
        result = vrnx.run("list", ".", "--json")
        document = parse_document("list", result.stdout)
        names = [os.fsencode(entry["path"]) for entry in document["images"]]
        self.assertEqual(names, sorted([name + b".vrnx" for name in self.HOSTILE] + [b"base.vrnx"]))
        self.assertEqual([os.fsencode(name) for name in document["images"][names.index(b"base.vrnx")]["needed_by"]],
                         sorted(name + b".vrnx" for name in self.HOSTILE))
        self.assertIn(b"\\udcff\\udcfe.vrnx", result.stdout)
        for name in self.HOSTILE:
            with self.subTest(name=name):
                path = b"./" + name + b".vrnx"
                for command in ("info", "check"):
                    result = vrnx.run(command, path, "--json")
                    self.assertEqual(result.status, GOOD)
                    result.stdout.decode("utf-8")  # which every document is
                    found = parse_document(command, result.stdout)
                    found = found if command == "info" else found["images"][0]
                    self.assertEqual(os.fsencode(found["path"]), path)
        shown = vrnx.run("list", ".").stdout
        self.assertEqual(len(shown.splitlines()), len(self.HOSTILE) + 1)
        self.assertNotIn(b"\x1b", shown)

    def test_options_end_at_two_dashes(self):
        vrnx = self.vrnx()
        build_image(vrnx.path("--json"), PLAIN)
        self.assertEqual(parse_document("info", vrnx.run("info", "--json", "--", "--json").stdout)["path"], "--json")
        self.expect_failure(vrnx.run("info", "--json"), USAGE)

    def test_the_map_finds_an_image_of_any_name_in_the_document(self):
        vrnx = self.vrnx()
        for name in self.HOSTILE:
            with self.subTest(name=name):
                path = b"./" + name + b".vrnx"
                builder = build_image(os.path.join(os.fsencode(vrnx.work), path), PLAIN)
                with open(os.path.join(os.fsencode(vrnx.work), path), "r+b") as file:
                    file.seek(builder.data_offset(2))
                    file.write(b"bad")
                vrnx.write("check.json", vrnx.run("check", path, "--json").stdout)
                result = vrnx.run("map", path, "--check", "check.json")
                self.assertEqual(result.status, DAMAGED)
                self.assertIn(b"AA!AAA\n", result.stdout)
                # Another writer of the same document escapes all that is not ASCII.
                vrnx.write("check.json", json.dumps(json.loads(vrnx.read("check.json"))).encode())
                self.assertEqual(vrnx.run("map", path, "--check", "check.json").stdout, result.stdout)
                svg = vrnx.run("map", path, "--svg", "map.svg")
                self.assertEqual(svg.status, GOOD)
                vrnx.read("map.svg").decode("utf-8")
                os.remove(vrnx.path("map.svg"))
                os.remove(os.path.join(os.fsencode(vrnx.work), path))

    def test_a_folder_with_a_million_bytes_of_names(self):
        vrnx = self.vrnx()
        build_image(vrnx.path("base.vrnx"), PLAIN[:100], chunk_size=512)
        content = ImageBuilder(PLAIN[:99] + b"x", chunk_size=512, base=vrnx.path("base.vrnx")).to_bytes()
        count = 4200
        for number in range(count):
            vrnx.write(f"{number:06}{'x' * 235}.vrnx", content)
        document = vrnx.document("list", ".")
        self.assertEqual(len(document["images"]), count + 1)
        self.assertEqual(len(document["images"][-1]["needed_by"]), count)
        self.assertEqual(len(vrnx.run("list", ".").stdout.splitlines()), count + 1)


class Memory(Host):
    def test_nothing_is_lost_or_read_before_it_is_written(self):
        if shutil.which("valgrind") is None or SETTINGS.sampled:
            self.skipTest("needs valgrind, and a build without the sanitizers")
        vrnx = self.chain()
        builder = build_image(vrnx.path("sealed.vrnx"), NEWER, base=vrnx.path("thin.vrnx"), password=PASSWORD)
        shutil.copy(vrnx.path("full.vrnx"), vrnx.path("copy.vrnx"))
        vrnx.flip("copy.vrnx", 64 + 72 * 6 + 10)
        vrnx.flip("copy.vrnx", 64 + 72 * 2)
        self.assertIsNotNone(builder)
        vrnx.write("raw", PLAIN)
        vrnx.write("check.json", vrnx.run("check", "full.vrnx", "--json").stdout)
        for status, *arguments in (
                (GOOD, "info", "sealed.vrnx", "--json"), (DAMAGED, "info", "copy.vrnx"),
                (DAMAGED, "list", ".", "--json"), (DAMAGED, "list", "."),
                (GOOD, "check", "thin.vrnx", "full.vrnx", "--jobs", "2"),
                (DAMAGED, "check", "copy.vrnx", "--json"),
                (GOOD, "check", "sealed.vrnx", "--password-file", "password"),
                (GOOD, "diff", "full.vrnx", "thin.vrnx"), (GOOD, "map", "full.vrnx", "--check", "check.json"),
                (GOOD, "map", "thin.vrnx", "--svg", "x.svg"),
                (DAMAGED, "export", "copy.vrnx", "a.img", "--salvage", "a.map", "--from", "raw"),
                (GOOD, "export", "thin.vrnx", "-"), (USAGE, "check"), (FAILED, "info", "absent")):
            with self.subTest(arguments=arguments):
                done = vrnx.start(*arguments, capture_output=True, prefix=(
                    "valgrind", "--quiet", "--error-exitcode=99", "--leak-check=full", "--show-leak-kinds=all",
                    "--errors-for-leak-kinds=definite,possible"))
                self.assertEqual(done.returncode, status, done.stderr[-3000:])

    def test_random_arguments_end_with_one_of_the_four_statuses(self):
        vrnx = self.chain()
        rng = random.Random(11)
        words = ["info", "list", "check", "diff", "map", "export", "full.vrnx", "thin.vrnx", "absent", ".", "-", "--",
                 "--json", "--jobs", "--jobs=2", "--part", "1/2", "0/0", "--password-file", "password", "--salvage",
                 "--from", "--svg", "--check", "--help", "-h", "--version", "", "x" * 5000, "\xff", "--jobs=",
                 "--from=full.vrnx"]
        for _ in range(100 if SETTINGS.sampled else 400):
            arguments = [rng.choice(words) for _ in range(rng.randrange(7))]
            result = vrnx.run(*arguments)
            self.assertIn(result.status, (GOOD, DAMAGED, USAGE, FAILED), arguments)
            if result.status in (USAGE, FAILED):
                self.assertTrue(result.stderr or b"unreadable" in result.stdout, arguments)
            for name in set(vrnx.files()) - {"full.vrnx", "thin.vrnx", "password"}:
                os.remove(vrnx.path(name))
        self.assertEqual(vrnx.read("full.vrnx"), ImageBuilder(PLAIN).to_bytes())


if __name__ == "__main__":
    suite.main()
