#!/usr/bin/python3 -B
"""Downloads files with real clients into folders that Harbex watches. Prints a table: what each client did in the
folder, and what arrived where. Exits with 1 if a result is unexpected. Started by scripts/clients."""

import itertools
import os
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import textwrap
import zipfile
from pathlib import Path

from browsers import Chromium, Firefox
from downloads import SIZE, DownloadServer, content_of, wait_for
from watched import Folder, Harbex

TIME_LIMIT = 900  # seconds for the whole run
WIDTHS = (8, 39, 60, 44, 10)

# Case, names of the downloads, and what must arrive.
BROWSER_CASES = [
    ("Name rule, no dot", ["film"], "Films/film"),
    ("Name rule, one dot", ["film.mp4"], "Films/film.mp4"),
    ("Name rule, two dots", ["film.old.mp4"], "Films/film.old.mp4"),
    ("Extension rule, one dot", ["archive.gz"], "Archives/archive.gz"),
    ("Extension rule, two dots", ["archive.tar.gz"], "Archives/archive.tar.gz"),
    ("Kind rule, one dot", ["photo.jpg"], "Pictures/photo.jpg"),
    ("Kind rule, two dots", ["photo.old.jpg"], "Pictures/photo.old.jpg"),
    ("rule for all, no dot", ["notes"], "Rest/notes"),
    ("two at once", ["film.mp4", "photo.jpg"], "Films/film.mp4; Pictures/photo.jpg"),
]

# What may arrive if a download is moved too early, as README says in "What it does not do". On the same volume the
# file is complete at the end, because its writer continues to write to it.
INCOMPLETE = {"same volume": "", "other volume": rf"|empty|\d+ bytes of {SIZE}"}
BY_ANY_RULE = "(Films|Rest)/"


class Table:
    """The result rows, and the output of Harbex for each unexpected row."""

    def __init__(self, harbex):
        self._harbex = harbex
        self._rows = [("client", "case", "what it does in the folder", "what arrived where", "")]
        self._evidence = []

    def judge(self, client, case, folder, names, expected, accepted=(), status=0):
        """Adds a row for the current content of the folders, and empties them. `names` are the names of the
        downloads. `expected` is the expected text of outcome(). `accepted` are patterns for other valid texts."""
        folder.settle()
        found = outcome(folder, names) + (f"; exit status {status}" if status else "")
        is_accepted = any(re.fullmatch(pattern, found) for pattern in accepted)
        verdict = "expected" if found == expected else "accepted" if is_accepted else "UNEXPECTED"
        self._rows.append((client, case, folder.events(), found, verdict))
        printed = self._harbex.diagnostics()
        if verdict == "UNEXPECTED":
            self._evidence.append(f"{client}, {case}: expected was {expected}; Harbex printed:\n"
                                  + textwrap.indent(printed, "    "))
        folder.clear()
        print(f"{client}, {case}", file=sys.stderr)

    def fail(self, client, error):
        """Adds a row for a client that failed before the end of its cases."""
        self._rows.append((client, "the other cases", "", str(error), "UNEXPECTED"))
        self._evidence.append(f"{client}: {error}\n")

    def show(self):
        """Prints the table and returns the number of unexpected rows."""
        for row in self._rows:
            cells = [textwrap.wrap(text, width) for text, width in zip(row, WIDTHS)]
            for line in itertools.zip_longest(*cells, fillvalue=""):
                print("  ".join(part.ljust(width) for part, width in zip(line, WIDTHS)).rstrip())
        print(f"\n{len(self._rows) - 1} cases, {len(self._evidence)} unexpected")
        print("".join("\n" + text for text in self._evidence), end="")
        return len(self._evidence)


def outcome(folder, names):
    """Returns the result as text, for example "Films/film-1.mp4 is film.mp4; left: notes is empty". A complete file
    with its own name appears as its path only."""
    known = {content_of(name): name for name in names} | {None: "an empty folder", b"": "empty"}

    def describe(path, data):
        what = known.get(data) or f"{len(data)} bytes of {SIZE}"
        return str(path) if what == path.name else f"{path} is {what}"

    moved, left = folder.contents()
    texts = [describe(path, moved[path]) for path in sorted(moved)]
    texts += ["left: " + describe(path, left[path]) for path in sorted(left)]
    return "; ".join(texts) or "nothing"


def browser_cases(table, browser, folder, where, server):
    count = itertools.count()

    def start(name):
        under_way = folder.downloads()
        path = f"/steady/{next(count)}/{name}"
        browser.click(server.url(path))
        wait_for(lambda: folder.downloads() > under_way, f"{browser.name} to begin {name}")
        return path

    def judge(case, names, expected):
        wait_for(lambda: folder.downloads() == 0, f"{browser.name} to end {case}")
        table.judge(browser.name, f"{case}, {where}", folder, names, expected)

    folder.clear()
    for case, names, expected in BROWSER_CASES:
        for name in names:
            start(name)
        judge(case, names, expected)

    (folder.destination / "Films" / "film.mp4").write_bytes(content_of("earlier"))
    start("film.mp4")
    judge("the name is taken", ["film.mp4", "earlier"], "Films/film-1.mp4 is film.mp4; Films/film.mp4 is earlier")

    path = start("film.mp4")
    wait_for(lambda: server.sent.get(path, 0) > SIZE / 2, "half a download")
    browser.cancel(server.url(path))
    judge("cancelled", ["film.mp4"], "nothing")


def tool_cases(table, folder, where, server, sources):
    def run(case, *command, names=("film.mp4",), expected="Films/film.mp4", accepted=()):
        result = subprocess.run(command, cwd=folder.path, capture_output=True, timeout=60)
        table.judge(command[0], f"{case}, {where}", folder, names, expected, accepted, result.returncode)

    still_growing = r"left: film\.mp4"
    whole = rf"{BY_ANY_RULE}film\.mp4"
    too_early = rf"{whole}( is (film\.mp4{INCOMPLETE[where]}))?"
    with_control_file = rf"{too_early}; {BY_ANY_RULE}film\.mp4\.aria2 is \d+ bytes of {SIZE}"
    for pace, accepted in ("fast", whole), ("steady", still_growing), ("pausing", too_early):
        url = server.url(f"/{pace}/film.mp4")
        run(pace, "wget", "-q", url, accepted=(accepted,))
        run(pace, "curl", "-sO", url, accepted=(accepted,))
    run("fast", "aria2c", "-q", server.url("/fast/film.mp4"), accepted=(whole,))
    run("steady", "aria2c", "-q", server.url("/steady/film.mp4"), accepted=(too_early, with_control_file))

    film, album = str(sources / "film.mp4"), sources / "album"
    hidden = rf"{BY_ANY_RULE}\.film\.mp4\.\w+ is (film\.mp4{INCOMPLETE[where]}); exit status 23"
    run("steady", "rsync", "--bwlimit=4000", film, ".")
    run("pausing", "rsync", "--bwlimit=1000", film, ".", accepted=(hidden,))
    run("a file", "unzip", "-q", str(sources / "film.zip"))
    run("a file", "cp", "-r", film, ".")
    run("a file", "gio", "copy", film, ".")

    names = sorted(path.name for path in album.iterdir())
    some_files = r"Rest/album.*; exit status 1"
    left = "; ".join(rf"left: album/{re.escape(name)}" for name in names)
    run("a folder", "cp", "-r", str(album), ".", names=names,
        expected="; ".join(f"Rest/album/{name}" for name in names), accepted=(some_files, left))


def make_sources(folder):
    """Creates the files for the programs that copy instead of downloading."""
    (folder / "album").mkdir(parents=True)
    for number in range(10):
        name = f"{number}.jpg"
        (folder / "album" / name).write_bytes(content_of(name))
    (folder / "film.mp4").write_bytes(content_of("film.mp4"))
    with zipfile.ZipFile(folder / "film.zip", "w") as archive:
        archive.write(folder / "film.mp4", "film.mp4")


def use_all_clients(table, folders, server, home):
    make_sources(home / "sources")
    for where, folder in folders.items():
        for kind in (Firefox, Chromium):
            try:
                browser = kind(home / f"{kind.name}, {where}", folder.path, server.url())
                try:
                    browser_cases(table, browser, folder, where, server)
                finally:
                    browser.close()
            except (OSError, RuntimeError) as error:
                table.fail(kind.name, error)
        tool_cases(table, folder, where, server, home / "sources")


def main(program, log):
    def stop(number, _):
        raise SystemExit(f"clients: ended by {signal.Signals(number).name}")

    signal.signal(signal.SIGTERM, stop)
    signal.signal(signal.SIGALRM, stop)
    signal.alarm(TIME_LIMIT)
    home = Path(os.environ["HOME"])
    other_volume = Path(tempfile.mkdtemp(prefix="harbex.", dir="/dev/shm"))
    try:
        if other_volume.stat().st_dev == home.stat().st_dev:
            raise SystemExit("clients: /dev/shm is on the volume of the home folder")
        folders = {"same volume": Folder(home / "near", home / "sorted"),
                   "other volume": Folder(home / "far", other_volume)}
        harbex = Harbex(program, log, folders.values())
        table = Table(harbex)
        try:
            use_all_clients(table, folders, DownloadServer(), home)
        finally:
            failures = table.show()
            status = harbex.close()
    finally:
        shutil.rmtree(other_volume)
    if status != 0:
        print(f"Harbex ended with status {status}")
    return int(failures > 0 or status != 0)


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
