"""A running Harbex and its watched folders."""

import ctypes
import json
import os
import re
import shutil
import struct
import subprocess
import uuid

from downloads import wait_for

MODIFY, MOVED_FROM, MOVED_TO, CREATE, DELETE = 0x2, 0x40, 0x80, 0x100, 0x200
VERBS = {MODIFY: "write", MOVED_FROM: "move away", MOVED_TO: "move in", CREATE: "create", DELETE: "remove"}
SENTINEL_LINES = r'\["sentinel-\d"\]\n|Processing: sentinel-\d\next \nName\n|Moving sentinel-\d .*\n'

# Field, operator, value, kind and destination of each rule. Sentinels use the first rule.
RULES = [("Name", "contains", "sentinel", "Image", "Passed"),
         ("Name", "contains", "film", "Image", "Films"),
         ("Extension", "is", "gz", "Image", "Archives"),
         ("Kind", "contains", "", "Image", "Pictures"),
         ("Name", "contains", "", "Image", "Rest")]


class Folder:
    """A watched folder with its events. Its rules move entries to folders below `destination`."""

    def __init__(self, path, destination):
        self.path, self.destination = path, destination
        self._staging = path.with_suffix(".staging")  # on the same volume, so that a sentinel appears at once
        for each in (path, self._staging, *(destination / rule[-1] for rule in RULES)):
            each.mkdir(parents=True)
        self._libc = ctypes.CDLL(None, use_errno=True)
        self._inotify = self._libc.inotify_init1(os.O_NONBLOCK | os.O_CLOEXEC)
        mask = MODIFY | MOVED_FROM | MOVED_TO | CREATE | DELETE
        if self._libc.inotify_add_watch(self._inotify, os.fsencode(path), mask) < 0:
            raise OSError(ctypes.get_errno(), "inotify_add_watch")

    def record(self):
        """Returns the folder as a record for Harbex's configuration."""
        rules = [{"id": str(uuid.uuid4()).upper(), "field": field, "operatorType": operator, "value": value,
                  "kind": kind, "destination": (self.destination / place).as_uri()}
                 for field, operator, value, kind, place in RULES]
        return {"id": str(uuid.uuid4()).upper(), "url": self.path.as_uri(), "rules": rules}

    def downloads(self):
        """Returns the number of running browser downloads."""
        return sum(path.suffix in (".part", ".crdownload") for path in self.path.iterdir())

    def settle(self):
        """Waits until Harbex has finished with all entries in the folder. Each of the 6 sentinels is sampled for
        0.30 s, 1.80 s in total. An entry that is busy at first is decided at most 1.30 s after it appeared."""
        for number in range(6):
            name = f"sentinel-{number}"
            (self._staging / name).write_text(name)
            (self._staging / name).rename(self.path / name)
            wait_for((self.destination / "Passed" / name).exists, "Harbex to move a sentinel")
        wait_for(lambda: not any(self.path.glob("sentinel-*")), "the last sentinel's source to go")

    def contents(self):
        """Returns what was moved and what is still in the folder: the bytes of each file, None for an empty folder."""
        moved, left = self._read(self.destination), self._read(self.path)
        return {path: data for path, data in moved.items() if path.parts[0] != "Passed" and len(path.parts) > 1}, left

    def clear(self):
        """Removes all entries and discards the events."""
        for place in (self.path, *self.destination.iterdir()):
            for entry in place.iterdir():
                if entry.is_dir():
                    shutil.rmtree(entry)
                else:
                    entry.unlink()
        self.events()

    def events(self):
        """Returns a short description of the events since the last call."""
        events = list(self._read_events())
        taken = {cookie: name for mask, cookie, name in events if mask & MOVED_FROM}
        put = {cookie for mask, cookie, _ in events if mask & MOVED_TO}
        texts, last, written = [], None, set()
        for mask, cookie, name in events:
            if mask & MOVED_FROM and cookie in put or mask & MODIFY and name in written:
                continue
            written = written | {name} if mask & MODIFY else set()
            if mask & MOVED_TO and cookie in taken:
                source = taken[cookie]
                texts.append("rename " + (f"-> {name}" if source == last else f"{source} -> {name}"))
            else:
                verb = VERBS[mask & sum(VERBS)]
                texts.append(verb if name == last else f"{verb} {name}")
            last = name
        return ", ".join(texts)

    @staticmethod
    def _read(top):
        found = {}
        for path in top.rglob("*"):
            if path.is_file():
                found[path.relative_to(top)] = path.read_bytes()
            elif not any(path.iterdir()):
                found[path.relative_to(top)] = None
        return found

    def _read_events(self):
        """Yields mask, cookie and name of each event, except those of sentinels."""
        try:
            data = os.read(self._inotify, 1 << 22)
        except BlockingIOError:
            return
        while data:
            _, mask, cookie, length = struct.unpack_from("iIII", data)
            name = os.fsdecode(data[16:16 + length].rstrip(b"\0"))
            data = data[16 + length:]
            if not name.startswith("sentinel-"):
                yield mask, cookie, name


class Harbex:
    """The program with these folders in its configuration, on the desktop that the environment names."""

    def __init__(self, program, log, folders):
        configuration = os.path.join(os.environ["XDG_CONFIG_HOME"], "harbex")
        os.makedirs(configuration)
        with open(os.path.join(configuration, "harbex.json"), "w", encoding="utf-8") as file:
            json.dump({"savedWatchedFolders": [folder.record() for folder in folders]}, file)
        self._log_path = log
        self._log = open(log, "wb")
        self._process = subprocess.Popen([program], stdin=subprocess.DEVNULL, stdout=self._log, stderr=self._log)
        self._shown = 0
        for folder in folders:
            wait_for(lambda: self._watches(folder.path), f"Harbex to watch {folder.path}")

    def diagnostics(self):
        """Returns the output since the last call, without the lines about sentinels."""
        with open(self._log_path, "rb") as log:
            log.seek(self._shown)
            data = log.read()
        self._shown += len(data)
        return re.sub(SENTINEL_LINES, "", data.decode(errors="replace"))

    def close(self):
        """Ends the program and returns its exit status."""
        self._process.terminate()
        status = self._process.wait(30)
        self._log.close()
        return status

    def _watches(self, path):
        if self._process.poll() is not None:
            raise RuntimeError("Harbex has ended:\n" + self.diagnostics())
        inode = f" ino:{path.stat().st_ino:x} "
        descriptors = f"/proc/{self._process.pid}/fdinfo"
        for name in os.listdir(descriptors):
            try:
                with open(os.path.join(descriptors, name), encoding="utf-8") as file:
                    if any(line.startswith("inotify wd:") and inode in line for line in file):
                        return True
            except FileNotFoundError:
                pass  # the descriptor was closed meanwhile
        return False
