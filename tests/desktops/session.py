"""The screen, the session bus and the accessibility bus of a desktop session."""

import collections
import io
import subprocess
import time

from gi.repository import Gio, GLib
from PIL import Image, ImageChops

WIDTH, HEIGHT = 1280, 800
PATIENCE = 20  # seconds


class Rectangle(collections.namedtuple("Rectangle", "x y width height")):
    def box(self):
        return self.x, self.y, self.x + self.width, self.y + self.height

    def centre(self):
        return self.x + self.width // 2, self.y + self.height // 2

    def moved(self, x, y):
        return Rectangle(self.x + x, self.y + y, self.width, self.height)


def run(*command, environment=None):
    """Returns the output of a command. Raises CalledProcessError if it fails."""
    return subprocess.run(command, check=True, stdout=subprocess.PIPE, env=environment, timeout=PATIENCE).stdout


def wait_for(condition, seconds=PATIENCE):
    """Waits until the condition is true. Returns its last value."""
    end = time.monotonic() + seconds
    while True:
        value = condition()
        if value or time.monotonic() > end:
            return value
        time.sleep(0.1)


class Screen:
    """The X11 screen: pictures, and input as from a mouse and a keyboard."""

    def take(self):
        return Image.open(io.BytesIO(run("import", "-window", "root", "png:-"))).convert("RGB")

    def settled(self):
        """Waits until the screen stops changing, for example for the end of an animation. Returns the picture."""
        pictures = [self.take()]

        def is_still():
            pictures.append(self.take())
            return not ImageChops.difference(*pictures[-2:]).getbbox()

        wait_for(is_still, 5)
        return pictures[-1]

    def point_at(self, x, y):
        run("xdotool", "mousemove", str(x), str(y))

    def click(self, x, y, button="left"):
        # In Qt 6.8 the first click into a menu closes it, unless the pointer has reached it in several steps.
        for step in (-3, -1, 0):
            self.point_at(x + step, y)
        run("xdotool", "click", {"left": "1", "right": "3"}[button])

    def press(self, keys):
        run("xdotool", "key", keys)


class Bus:
    """Calls on a D-Bus connection: that of the session, or the one at an address."""

    def __init__(self, address=None):
        flags = Gio.DBusConnectionFlags.AUTHENTICATION_CLIENT | Gio.DBusConnectionFlags.MESSAGE_BUS_CONNECTION
        self.connection = Gio.DBusConnection.new_for_address_sync(address, flags, None, None) if address \
            else Gio.bus_get_sync(Gio.BusType.SESSION)

    def call(self, service, path, method, signature="()", *arguments):
        """Returns the tuple of results, or None if the call fails. `method` begins with its interface."""
        try:
            return self.connection.call_sync(service, path, *method.rsplit(".", 1), GLib.Variant(signature, arguments),
                                             None, Gio.DBusCallFlags.NONE, 10000, None).unpack()
        except GLib.Error:
            return None

    def get(self, service, path, name):
        """Returns the value of a property, or None. `name` begins with its interface."""
        answer = self.call(service, path, "org.freedesktop.DBus.Properties.Get", "(ss)", *name.rsplit(".", 1))
        return answer and answer[0]

    def owner(self, service):
        """Returns the unique name of the connection that owns the name, or None."""
        answer = self.call("org.freedesktop.DBus", "/", "org.freedesktop.DBus.GetNameOwner", "(s)", service)
        return answer and answer[0]

    def has(self, service):
        return self.owner(service) is not None


class Accessible:
    """An object on the accessibility bus."""

    _ROOT = "org.a11y.atspi.Registry", "/org/a11y/atspi/accessible/root"
    _SHOWING = 25  # ATSPI_STATE_SHOWING

    def __init__(self, bus, service, path, parent=None):
        self._bus, self._service, self._path, self.parent = bus, service, path, parent

    @classmethod
    def programs(cls, bus):
        address, = bus.call("org.a11y.Bus", "/org/a11y/bus", "org.a11y.Bus.GetAddress")
        return cls(Bus(address), *cls._ROOT).children()

    def _ask(self, method, *arguments):
        answer = self._bus.call(self._service, self._path, "org.a11y.atspi." + method, *arguments)
        return answer[0] if answer else ()

    def name(self):
        return self._bus.get(self._service, self._path, "org.a11y.atspi.Accessible.Name")

    def description(self):
        return self._bus.get(self._service, self._path, "org.a11y.atspi.Accessible.Description")

    def text(self):
        """Returns the content of a text field."""
        return self._ask("Text.GetText", "(ii)", 0, -1) or ""

    def role(self):
        role = self._ask("Accessible.GetRoleName")
        return "push button" if role == "button" else role  # renamed after Debian 12

    def is_showing(self):
        states = self._ask("Accessible.GetState")
        return bool(states) and bool(states[0] >> self._SHOWING & 1)

    def extents(self):
        return Rectangle(*self._ask("Component.GetExtents", "(u)", 0))

    def children(self):
        return [Accessible(self._bus, *each, self) for each in self._ask("Accessible.GetChildren")]

    def all(self, role):
        """Yields all objects of a role below this one that are shown."""
        for child in self.children():
            if child.role() == role and child.is_showing():
                yield child
            yield from child.all(role)


class ItemMenu:
    """The menu of Harbex's item in the tray, opened by a click on the icon."""

    def __init__(self, screen, desktop, button):
        """Raises RuntimeError if there is no icon or no menu."""
        self._screen, self._desktop = screen, desktop
        self._icon = wait_for(desktop.icon)
        if not self._icon:
            raise RuntimeError("no icon")
        screen.point_at(640, 300)
        screen.settled()
        self._others = desktop.menus()
        screen.click(*self._icon.centre(), button)
        if not wait_for(self._open):
            raise RuntimeError("no menu")
        screen.settled()
        self.area = self._open()[0]

    def _open(self):
        return [area for area in self._desktop.menus() if area not in self._others and area.height > 40]

    def is_at_icon(self):
        """Whether it touches the icon and is on the screen. GNOME's menus have a margin of 14 pixels."""
        left, top, right, bottom = self.area.box()
        icon_left, icon_top, icon_right, icon_bottom = self._icon.box()
        return left - 14 <= icon_right and icon_left <= right + 14 and \
            top - 14 <= icon_bottom and icon_top <= bottom + 14 and \
            left >= 0 and top >= 0 and right <= WIDTH and bottom <= HEIGHT and right - left < 400

    def choose(self, entry):
        """Clicks "Open Harbex", which is in the upper half, or "Quit", which is in the lower half."""
        quarter = {"Open Harbex": 1, "Quit": 3}[entry]
        self._screen.click(self.area.centre()[0], self.area.y + self.area.height * quarter // 4)

    def leave(self):
        self._screen.press("Escape")
        return wait_for(lambda: not self._open())
