"""Firefox and Chromium with a new profile, controlled by their automation protocols."""

import fcntl
import json
import os
import socket
import subprocess

from downloads import wait_for

PATIENCE = 60  # seconds for the start, a reply or the exit
CLICK = "const a = document.createElement('a'); a.href = {}; document.body.append(a); a.click();"


class Browser:
    """A browser process. Its log is beside its profile."""

    def __init__(self, command, profile, **options):
        with open(profile.with_suffix(".log"), "wb") as log:
            self._process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=log, stderr=log, **options)

    def close(self):
        self._process.terminate()
        self._process.wait(PATIENCE)


class Firefox(Browser):
    """Uses the Marionette protocol: each message is its length, a colon, and JSON."""

    name = "Firefox"
    _PREFERENCES = {
        "browser.download.folderList": 2,  # the folder of browser.download.dir
        "browser.helperApps.neverAsk.saveToDisk": "application/octet-stream",
        "browser.shell.checkDefaultBrowser": False,
        "datareporting.policy.dataSubmissionEnabled": False,
        "marionette.port": 0,  # any free port; Firefox writes it into the profile
        "network.dns.disabled": True,  # only the download server is contacted
    }
    # Does what the button "Cancel" does.
    _CANCEL = """return (async url => {
        const { Downloads } = ChromeUtils.importESModule("resource://gre/modules/Downloads.sys.mjs");
        const all = await (await Downloads.getList(Downloads.ALL)).getAll();
        const download = all.find(each => each.source.url == url);
        await download.cancel();
        await download.removePartialData(); })(arguments[0]);"""

    def __init__(self, profile, folder, page):
        """Starts the browser with `page` open. Downloads go to `folder`."""
        profile.mkdir()
        preferences = self._PREFERENCES | {"browser.download.dir": str(folder)}
        (profile / "user.js").write_text(
            "".join(f"user_pref({json.dumps(key)}, {json.dumps(value)});\n" for key, value in preferences.items()))
        super().__init__(["firefox-esr", "--headless", "--marionette", "--remote-allow-system-access",
                          "--no-remote", "--profile", profile], profile)
        port = profile / "MarionetteActivePort"
        wait_for(lambda: port.exists() and port.read_text(), "Firefox's port", PATIENCE)
        self._socket = socket.create_connection(("127.0.0.1", int(port.read_text())), PATIENCE)
        self._stream = self._socket.makefile("rb")
        self._receive()  # its greeting
        self._ask("WebDriver:NewSession")
        self._ask("WebDriver:Navigate", url=page)

    def click(self, url):
        """Clicks on a link to `url`."""
        self._ask("WebDriver:ExecuteScript", script=CLICK.format(json.dumps(url)), args=[])

    def cancel(self, url):
        """Cancels the download of `url`."""
        self._ask("Marionette:SetContext", value="chrome")
        self._ask("WebDriver:ExecuteScript", script=self._CANCEL, args=[url])
        self._ask("Marionette:SetContext", value="content")

    def close(self):
        super().close()
        self._stream.close()
        self._socket.close()

    def _ask(self, command, **parameters):
        message = json.dumps([0, 1, command, parameters]).encode()
        self._socket.sendall(b"%d:%s" % (len(message), message))
        _, _, error, _ = self._receive()
        if error:
            raise RuntimeError(f"Firefox: {command}: {error['message']}")

    def _receive(self):
        length = b""
        while (byte := self._stream.read(1)) != b":":
            if not byte:
                raise RuntimeError("Firefox has ended")
            length += byte
        return json.loads(self._stream.read(int(length)))


class Chromium(Browser):
    """Uses the DevTools protocol over two pipes: each message is JSON and a NUL."""

    name = "Chromium"
    _OPTIONS = ["--remote-debugging-pipe", "--no-first-run", "--no-default-browser-check", "--disable-gpu",
                "--disable-quic", "--disable-background-networking", "--disable-component-update",
                "--disable-sync", "--password-store=basic",
                "--host-resolver-rules=MAP * ~NOTFOUND, EXCLUDE 127.0.0.1"]

    def __init__(self, profile, folder, page):
        """Starts the browser with `page` open. Downloads go to `folder`."""
        (profile / "Default").mkdir(parents=True)
        (profile / "Default" / "Preferences").write_text(json.dumps(
            {"download": {"default_directory": str(folder), "prompt_for_download": False}}))
        for_commands, for_answers = os.pipe(), os.pipe()
        # Chromium uses the descriptors 3 and 4. Copies above 10 cannot collide with them.
        theirs = [fcntl.fcntl(end, fcntl.F_DUPFD, 10) for end in (for_commands[0], for_answers[1])]
        command = ["bash", "-c", f'exec chromium "$@" 3<&{theirs[0]} 4>&{theirs[1]}', "chromium", *self._OPTIONS,
                   f"--user-data-dir={profile}", *(["--no-sandbox"] if os.geteuid() == 0 else [])]
        super().__init__(command, profile, pass_fds=theirs)
        for end in (for_commands[0], for_answers[1], *theirs):
            os.close(end)
        self._commands, self._answers = os.fdopen(for_commands[1], "wb"), os.fdopen(for_answers[0], "rb")
        self._asked = 0
        self._identifiers = {}  # GUID of each download, by URL
        # Keeps Chromium's own folder and names for downloads, as in normal use.
        self._ask("Browser.setDownloadBehavior", behavior="default", eventsEnabled=True)
        target = self._ask("Target.createTarget", url=page)["targetId"]
        session = self._ask("Target.attachToTarget", targetId=target, flatten=True)["sessionId"]
        self._page = {"sessionId": session}
        loaded = f"document.readyState == 'complete' && location.href == {json.dumps(page)}"
        wait_for(lambda: self._evaluate(loaded)["value"], "Chromium's page", PATIENCE)

    def click(self, url):
        """Clicks on a link to `url`."""
        self._evaluate(f"{{ {CLICK.format(json.dumps(url))} }}")

    def cancel(self, url):
        """Cancels the download of `url`."""
        wait_for(lambda: self._evaluate("0") and url in self._identifiers, f"Chromium to tell of {url}")
        self._ask("Browser.cancelDownload", guid=self._identifiers[url])

    def close(self):
        super().close()
        self._commands.close()
        self._answers.close()

    def _evaluate(self, expression):
        return self._ask("Runtime.evaluate", self._page, expression=expression, userGesture=True)["result"]

    def _ask(self, method, where=None, **parameters):
        self._asked += 1
        message = {"id": self._asked, "method": method, "params": parameters, **(where or {})}
        self._commands.write(json.dumps(message).encode() + b"\0")
        self._commands.flush()
        while (answer := self._receive()).get("id") != self._asked:
            if answer["method"] == "Browser.downloadWillBegin":
                self._identifiers[answer["params"]["url"]] = answer["params"]["guid"]
        if "error" in answer:
            raise RuntimeError(f"Chromium: {method}: {answer['error']['message']}")
        return answer["result"]

    def _receive(self):
        message = bytearray()
        while (byte := self._answers.read(1)) != b"\0":
            if not byte:
                raise RuntimeError("Chromium has ended")
            message += byte
        return json.loads(message)
