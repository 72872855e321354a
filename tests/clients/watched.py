"""A running Harbex, and the folders that it watches."""

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

# Field, operator, value and kind of each rule, and the folder that it names. Sentinels are Harbex's first.
RULES = [("Name", "contains", "sentinel", "Image", "Passed"),
         ("Name", "contains", "film", "Image", "Films"),
         ("Extension", "is", "gz", "Image", "Archives"),
         ("Kind", "contains", "", "Image", "Pictures"),
         ("Name", "contains", "", "Image", "Rest")]


class Folder:
    """A folder to be watched, whose rules name folders below `destination`, and the record of its events."""

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
        """For Harbex's configuration."""
        rules = [{"id": str(uuid.uuid4()).upper(), "field": field, "operatorType": operator, "value": value,
                  "kind": kind, "destination": (self.destination / place).as_uri()}
                 for field, operator, value, kind, place in RULES]
        return {"id": str(uuid.uuid4()).upper(), "url": self.path.as_uri(), "rules": rules}

    def downloads(self):
        """How many browsers' downloads are under way."""
        return sum(path.suffix in (".part", ".crdownload") for path in self.path.iterdir())

    def settle(self):
        """Returns once Harbex is through with all that is in the folder. A sentinel takes two looks of 0.15
        second; what is busy at its first look is judged at most 1.30 seconds after it appeared."""
        for number in range(6):
            name = f"sentinel-{number}"
            (self._staging / name).write_text(name)
            (self._staging / name).rename(self.path / name)
            wait_for((self.destination / "Passed" / name).exists, "Harbex to move a sentinel")
        wait_for(lambda: not any(self.path.glob("sentinel-*")), "the last sentinel's source to go")

    def contents(self):
        """What was moved and what is still in the folder: the bytes of each file, and None for an empty folder."""
        moved, left = self._read(self.destination), self._read(self.path)
        return {path: data for path, data in moved.items() if path.parts[0] != "Passed" and len(path.parts) > 1}, left

    def clear(self):
        """Removes everything, and forgets the events."""
        for place in (self.path, *self.destination.iterdir()):
            for entry in place.iterdir():
                if entry.is_dir():
                    shutil.rmtree(entry)
                else:
                    entry.unlink()
        self.events()

    def events(self):
        """What happened in the folder since the last call, in short."""
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
        """Mask, cookie and name of each event but those of sentinels."""
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
    """The program, on the desktop of the environment, with these folders in its configuration."""

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
        """What it printed since the last call, but of sentinels."""
        with open(self._log_path, "rb") as log:
            log.seek(self._shown)
            data = log.read()
        self._shown += len(data)
        return re.sub(SENTINEL_LINES, "", data.decode(errors="replace"))

    def close(self):
        """Ends it and gives its exit status."""
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
                pass  # closed meanwhile
        return False
