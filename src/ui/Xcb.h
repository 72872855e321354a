#pragma once

#include <cstdlib>
#include <memory>
#include <string_view>
#include <xcb/xcb.h>

/// The connection of Qt to the X11 server. Main thread only.
namespace harbex::x11
{

struct FreeReply {
    void operator()(void* reply) const { std::free(reply); }
};
/// A reply of the server. Null after an error.
template <typename Type>
using Reply = std::unique_ptr<Type, FreeReply>;

/// Returns the connection; null on other platforms. The other functions need one.
[[nodiscard]] xcb_connection_t* connection();

/// Returns the root window of the screen.
[[nodiscard]] xcb_window_t root();

/// Returns the atom of `name`; XCB_ATOM_NONE on failure. Waits for the server.
[[nodiscard]] xcb_atom_t atom(std::string_view name);

} // namespace harbex::x11
