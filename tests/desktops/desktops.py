"""The desktops: how they start, and how their window manager and their panel are asked."""

import collections
import json
import os
import re
import subprocess
from pathlib import Path

from gi.repository import Gio, GLib

from session import Accessible, Bus, Rectangle, run, wait_for

Window = collections.namedtuple("Window", "pid active minimised here skips_taskbar area")


def window_of(values):
    return Window(*values[:-1], Rectangle(*(round(value) for value in values[-1])))


def environment_of(bus, service):
    """Returns the environment of the process that has this name on the bus: that of the programs of the session."""
    process, = bus.call("org.freedesktop.DBus", "/", "org.freedesktop.DBus.GetConnectionUnixProcessID", "(s)", service)
    lines = Path(f"/proc/{process}/environ").read_text(encoding="utf-8").split("\0")
    return dict(line.split("=", 1) for line in lines if line)


class Plasma:
    """KDE Plasma. KWin runs scripts that are given over D-Bus, which send their result back over D-Bus."""

    _WINDOWS = """
        const all = workspace.windowList ? workspace.windowList() : workspace.clientList();
        const active = workspace.activeWindow || workspace.activeClient;
        result = all.filter(w => %s).map(w => [w.pid, w === active, w.minimized,
            w.desktops ? w.desktops.length == 0 || w.desktops.includes(workspace.currentDesktop)
                       : w.desktop == workspace.currentDesktop, w.skipTaskbar,
            [w.frameGeometry.x, w.frameGeometry.y, w.frameGeometry.width, w.frameGeometry.height]]);"""
    _ANSWER = "<node><interface name='org.harbex.Check'><method name='Answer'><arg type='s'/></method>" \
              "</interface></node>"

    def __init__(self, is_wayland, is_composited):
        self._is_wayland, self._is_composited = is_wayland, is_composited
        self.bus = Bus()
        self.environment = None  # of the programs of the session
        self.skip_note = "Wayland has no request for it" if is_wayland else None
        # The panel is also the taskbar, so nothing is missing.
        self.show_note = "Plasma's tray service outlives its panel"
        self._answer = None
        info = Gio.DBusNodeInfo.new_for_xml(self._ANSWER).interfaces[0]
        self.bus.connection.register_object("/", info, self._receive, None, None)

    def _receive(self, _bus, _sender, _path, _interface, _method, arguments, invocation):
        self._answer = json.loads(arguments[0])
        invocation.return_value(None)

    def _kwin(self, script):
        """Runs a KWin script and returns the value that it has put into `result`."""
        path = Path(os.environ["HOME"], "check.js")
        path.write_text(f"var result = null; {script}\ncallDBus('{self.bus.connection.get_unique_name()}', '/', "
                        "'org.harbex.Check', 'Answer', JSON.stringify(result));", encoding="utf-8")
        self._answer = None
        loaded = self.bus.call("org.kde.KWin", "/Scripting", "org.kde.kwin.Scripting.loadScript", "(s)", str(path))
        number = loaded[0] if loaded else -1  # -1: KWin does not answer
        # The path is that of Plasma 6 or that of Plasma 5.
        for place in f"/Scripting/Script{number}", f"/{number}":
            self.bus.call("org.kde.KWin", place, "org.kde.kwin.Script.run")

        def has_answer():
            while GLib.MainContext.default().iteration(False):
                pass
            return self._answer is not None

        wait_for(has_answer)
        self.bus.call("org.kde.KWin", "/Scripting", "org.kde.kwin.Scripting.unloadScript", "(s)", str(path))
        return self._answer

    def answers(self):
        return self._kwin("result = true;") is True

    def start(self):
        configuration = Path(os.environ["HOME"], ".config")
        configuration.mkdir()
        enabled = str(self._is_composited).lower()
        (configuration / "kwinrc").write_text(f"[Desktops]\nNumber=2\nRows=1\n[Compositing]\nEnabled={enabled}\n")
        (configuration / "ksplashrc").write_text("[KSplash]\nEngine=none\nTheme=None\n")
        kind = "wayland" if self._is_wayland else "x11"
        os.environ.update(XDG_CURRENT_DESKTOP="KDE", XDG_SESSION_DESKTOP="KDE", XDG_SESSION_TYPE=kind)
        # Plasma 6 needs it for keys on X11. With systemd it starts before KWin.
        for shortcuts in Path("/usr/lib").glob("*/libexec/kglobalacceld") if kind == "x11" else ():
            subprocess.Popen([shortcuts])
            wait_for(lambda: self.bus.has("org.kde.kglobalaccel"))
        subprocess.Popen([f"startplasma-{kind}"])
        if not wait_for(lambda: self.bus.has("org.kde.KWin") and self.panel(), 60):
            return False
        self.environment = environment_of(self.bus, "org.kde.plasmashell")
        return True

    def _panel(self):
        """Returns the accessible panel, or None."""
        for program in Accessible.programs(self.bus):
            if program.name() == "plasmashell":
                for frame in program.children():
                    if frame.role() == "frame" and frame.is_showing() and frame.extents().height < 100:
                        return frame
        return None

    def panel(self):
        panel = self._panel()
        return panel and panel.extents()

    def icon(self):
        """Returns the place of the icon in the tray, which is in the right half of the panel, or None."""
        panel = self._panel()
        for button in panel.all("push button") if panel else ():
            place = button.extents()
            if button.name() == "Harbex" and place.x > panel.extents().width // 2:
                return place
        return None

    def windows(self):
        return [window_of(values) for values in self._kwin(self._WINDOWS % "w.normalWindow") or ()]

    def menus(self):
        """Returns the areas of open menus, and of other windows."""
        if self._is_wayland:
            return [window_of(values).area for values in self._kwin(self._WINDOWS % "w.popupWindow") or ()]
        areas = []
        for window in run("xdotool", "search", "--onlyvisible", "--maxdepth", "1", "--name", "").split():
            try:
                report = run("xwininfo", "-id", window).decode()
            except subprocess.CalledProcessError:
                continue  # it has just been closed
            areas.append(Rectangle(*(int(re.search(label + r": +(-?\d+)", report)[1]) for label in
                                     ("Absolute upper-left X", "Absolute upper-left Y", "Width", "Height"))))
        return areas

    def can_minimise(self):
        return True

    def minimise(self):
        self._kwin("(workspace.activeWindow || workspace.activeClient).minimized = true; result = true;")

    def go_to_workspace(self, number):
        self._kwin("workspace.currentDesktop = workspace.desktops > 0 ? %d : workspace.desktops[%d];"
                   "result = true;" % (number, number - 1))

    def set_dark(self, is_dark):
        run("plasma-apply-colorscheme", "BreezeDark" if is_dark else "BreezeLight", environment=self.environment)

    def stop_panel(self):
        self.bus.call("org.kde.plasmashell", "/MainApplication", "org.qtproject.Qt.QCoreApplication.quit")
        wait_for(lambda: not self.bus.has("org.kde.plasmashell"))

    def start_panel(self):
        subprocess.Popen(["plasmashell"], env=self.environment)
        wait_for(self.panel, 60)


class Gnome:
    """GNOME Shell. In unsafe mode it runs JavaScript that is given over D-Bus. The AppIndicator extension is its tray."""

    _EXTENSION = "ubuntu-appindicators@ubuntu.com"
    _INTERFACE = "org.gnome.desktop.interface"
    _ICON = """Object.entries(Main.panel.statusArea).filter(([key, item]) =>
        key.startsWith('appindicator') && item.visible && item.mapped).map(([key, item]) => item)"""

    def __init__(self, is_wayland, is_composited):
        assert is_composited
        self._is_wayland = is_wayland
        self.bus = Bus()
        self.environment = None  # of the programs of the session
        self.skip_note = "Wayland has no request for it" if is_wayland else None
        self.show_note = None

    def _shell(self, script):
        """Returns the value of a JavaScript expression, or None if it fails."""
        answer = self.bus.call("org.gnome.Shell", "/org/gnome/Shell", "org.gnome.Shell.Eval", "(s)", script)
        if not answer or not answer[0]:
            return None
        return json.loads(answer[1]) if answer[1] else None

    def answers(self):
        return self._shell("true") is True

    def start(self):
        os.environ.update(XDG_CURRENT_DESKTOP="GNOME", XDG_SESSION_DESKTOP="gnome", XDG_SESSION_CLASS="user",
                          XDG_SESSION_TYPE="wayland" if self._is_wayland else "x11",
                          MUTTER_DEBUG_DUMMY_MODE_SPECS="1280x800")
        run("gsettings", "set", "org.gnome.shell", "welcome-dialog-last-shown-version", "999")
        run("gsettings", "set", "org.gnome.desktop.session", "idle-delay", "0")
        run("gsettings", "set", self._INTERFACE, "enable-animations", "false")
        run("gsettings", "set", "org.gnome.mutter", "dynamic-workspaces", "false")
        self.start_panel()
        kind = ["--nested", "--wayland"] if self._is_wayland else ["--x11"]
        subprocess.Popen(["gnome-shell", "--unsafe-mode", *kind])
        if not wait_for(lambda: self._shell("Main.layoutManager._startingUp") is False, 60):
            return False
        changes = self._shell("['DISPLAY', 'WAYLAND_DISPLAY', 'XAUTHORITY'].map(n => [n, imports.gi.GLib.getenv(n)])")
        self.environment = {**os.environ, **{name: value for name, value in changes if value}}
        self._shell("Main.overview.hide()")
        return wait_for(lambda: self._shell("Main.overview.visible") is False)

    def _areas(self, actors):
        found = self._shell(f"""{actors}.map(actor => [...actor.get_transformed_position(),
            ...actor.get_transformed_size()])""")
        return [Rectangle(*(round(value) for value in area)) for area in found or () if None not in area]

    def icon(self):
        return next(iter(self._areas(self._ICON)), None)

    def menus(self):
        return self._areas(f"{self._ICON}.filter(item => item.menu.isOpen).map(item => item.menu.box)")

    def windows(self):
        found = self._shell("""global.get_window_actors().map(actor => actor.meta_window)
            .filter(w => w.window_type === imports.gi.Meta.WindowType.NORMAL)
            .map(w => [w.get_pid(), w.has_focus(), w.minimized,
                       w.located_on_workspace(global.workspace_manager.get_active_workspace()), w.skip_taskbar,
                       (r => [r.x, r.y, r.width, r.height])(w.get_frame_rect())])""")
        return [window_of(values) for values in found or ()]

    def can_minimise(self):
        return self._shell("global.display.focus_window.can_minimize()")

    def minimise(self):
        self._shell("global.display.focus_window.minimize()")

    def go_to_workspace(self, number):
        self._shell(f"global.workspace_manager.get_workspace_by_index({number - 1})"
                    ".activate(global.get_current_time())")

    def set_dark(self, is_dark):
        run("gsettings", "set", self._INTERFACE, "color-scheme", "prefer-dark" if is_dark else "prefer-light")

    def stop_panel(self):
        run("gsettings", "set", "org.gnome.shell", "enabled-extensions", "[]")

    def start_panel(self):
        run("gsettings", "set", "org.gnome.shell", "enabled-extensions", f"['{self._EXTENSION}']")
