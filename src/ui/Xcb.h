#pragma once

#include <string_view>
#include <xcb/xcb.h>

/// The connection of Qt to the X11 server. Main thread only.
namespace harbex::x11
{

/// Returns the connection; null on other platforms. The other functions need one.
[[nodiscard]] xcb_connection_t* connection();

/// Returns the root window of the screen.
[[nodiscard]] xcb_window_t root();

/// Returns the number of a name. Waits for the server.
[[nodiscard]] xcb_atom_t atom(std::string_view name);

} // namespace harbex::x11
