#include "ui/X11Window.h"

#include "ui/Xcb.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <optional>

namespace harbex
{

namespace
{

/// The source indication of a request that the user made. A window manager grants such a request.
constexpr uint32_t byUser = 2;
/// The desktop of a window that is on all desktops.
constexpr uint32_t allDesktops = 0xffffffff;

/// Returns the first number of a property. Empty if there is no such property.
std::optional<uint32_t> numberOf(xcb_window_t window, std::string_view property)
{
    const auto cookie =
        xcb_get_property(x11::connection(), 0, window, x11::atom(property), XCB_ATOM_CARDINAL, 0, 1);
    const x11::Reply<xcb_get_property_reply_t> reply(
        xcb_get_property_reply(x11::connection(), cookie, nullptr));
    if (!reply || reply->format != 32 || reply->value_len < 1) return std::nullopt;
    return *static_cast<const uint32_t*>(xcb_get_property_value(reply.get()));
}

/// Asks the window manager for something about a window.
void request(xcb_window_t window, std::string_view type, const std::array<uint32_t, 5>& data)
{
    xcb_client_message_event_t event = {};
    event.response_type = XCB_CLIENT_MESSAGE;
    event.format = 32;
    event.window = window;
    event.type = x11::atom(type);
    std::ranges::copy(data, event.data.data32);
    xcb_send_event(x11::connection(), 0, x11::root(),
                   XCB_EVENT_MASK_SUBSTRUCTURE_REDIRECT | XCB_EVENT_MASK_SUBSTRUCTURE_NOTIFY,
                   reinterpret_cast<const char*>(&event));
    // Qt flushes the connection only after requests of its own.
    xcb_flush(x11::connection());
}

} // namespace

void leaveOutOfTaskbar(WId window, bool isLeftOut, bool isManaged)
{
    if (!x11::connection()) return;
    const auto id = static_cast<xcb_window_t>(window);
    const std::array states{x11::atom("_NET_WM_STATE_SKIP_TASKBAR"), x11::atom("_NET_WM_STATE_SKIP_PAGER")};
    if (isManaged)
        request(id, "_NET_WM_STATE", {isLeftOut ? 1U : 0U, states[0], states[1], byUser, 0});
    else
        xcb_change_property(x11::connection(), XCB_PROP_MODE_REPLACE, id, x11::atom("_NET_WM_STATE"),
                            XCB_ATOM_ATOM, 32, isLeftOut ? uint32_t{states.size()} : 0U, states.data());
}

void moveToDesktopInFront(WId window)
{
    if (!x11::connection()) return;
    const auto id = static_cast<xcb_window_t>(window);
    const auto current = numberOf(x11::root(), "_NET_CURRENT_DESKTOP");
    const auto own = numberOf(id, "_NET_WM_DESKTOP");
    if (current && own && own != current && own != allDesktops)
        request(id, "_NET_WM_DESKTOP", {*current, byUser, 0, 0, 0});
}

void bringToFront(WId window)
{
    if (!x11::connection()) return;
    const auto id = static_cast<xcb_window_t>(window);
    request(id, "_NET_ACTIVE_WINDOW", {byUser, XCB_CURRENT_TIME, 0, 0, 0});
}

void endStartup(WId window, QByteArray id)
{
    if (!x11::connection()) return;
    id.replace('\\', "\\\\").replace('"', "\\\"");
    // Sent in pieces of 20 bytes, padded with NUL. The message needs a final NUL.
    const QByteArray message = "remove: ID=\"" + id + "\"" + '\0';
    xcb_client_message_event_t event = {};
    constexpr qsizetype pieceSize = sizeof(event.data.data8);
    event.response_type = XCB_CLIENT_MESSAGE;
    event.format = 8;
    event.window = static_cast<xcb_window_t>(window);
    event.type = x11::atom("_NET_STARTUP_INFO_BEGIN");
    for (qsizetype sent = 0; sent < message.size(); sent += pieceSize) {
        std::ranges::copy(message.mid(sent, pieceSize).leftJustified(pieceSize, '\0'), event.data.data8);
        xcb_send_event(x11::connection(), 0, x11::root(), XCB_EVENT_MASK_PROPERTY_CHANGE,
                       reinterpret_cast<const char*>(&event));
        event.type = x11::atom("_NET_STARTUP_INFO");
    }
}

} // namespace harbex
