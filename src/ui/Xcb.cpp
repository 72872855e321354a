#include "ui/Xcb.h"

#include <QGuiApplication>

#include <cstdint>

namespace harbex::x11
{

xcb_connection_t* connection()
{
    const auto* application = qGuiApp->nativeInterface<QNativeInterface::QX11Application>();
    // Some other platforms have the interface, but no connection.
    return application ? application->connection() : nullptr;
}

xcb_window_t root()
{
    return xcb_setup_roots_iterator(xcb_get_setup(connection())).data->root;
}

xcb_atom_t atom(std::string_view name)
{
    const auto cookie = xcb_intern_atom(connection(), 0, static_cast<uint16_t>(name.size()), name.data());
    const Reply<xcb_intern_atom_reply_t> reply(xcb_intern_atom_reply(connection(), cookie, nullptr));
    return reply ? reply->atom : static_cast<xcb_atom_t>(XCB_ATOM_NONE);
}

} // namespace harbex::x11
