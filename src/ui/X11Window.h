#pragma once

#include <QByteArray>
#include <QtGui/qwindowdefs.h>

namespace harbex
{

// What Qt cannot do with a window on X11. On other platforms these functions do nothing. Main thread only.

/// Leaves a window out of taskbars and pagers, or shows it there. `isManaged` says whether the window is
/// mapped: the window manager reads the property when it maps a window, and takes requests afterwards.
void leaveOutOfTaskbar(WId window, bool isLeftOut, bool isManaged);

/// Moves an open window to the virtual desktop in front, if it is on another one.
void moveToDesktopInFront(WId window);

/// Raises an open window above the other windows, and gives it the focus.
void bringToFront(WId window);

/// Ends the startup notification with this id. `window` is any window of the process. Qt ends only the
/// notification of its own process.
void endStartup(WId window, QByteArray id);

} // namespace harbex
