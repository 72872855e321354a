#include "ui/XEmbedTray.h"

#include "ui/Xcb.h"

#include <QCoreApplication>

namespace harbex
{

XEmbedTray::XEmbedTray(QObject* parent) : QObject(parent)
{
    if (!x11::connection()) return;
    m_selection = x11::atom("_NET_SYSTEM_TRAY_S0");
    m_manager = x11::atom("MANAGER");
    QCoreApplication::instance()->installNativeEventFilter(this);
    find();
}

XEmbedTray::~XEmbedTray()
{
    if (QCoreApplication::instance()) QCoreApplication::instance()->removeNativeEventFilter(this);
}

bool XEmbedTray::nativeEventFilter(const QByteArray& type, void* message, qintptr* /*result*/)
{
    if (type != "xcb_generic_event_t") return false;
    const auto* event = static_cast<const xcb_generic_event_t*>(message);
    const int kind = event->response_type & 0x7f;
    // Qt gets the messages for the root window, because it looks for trays too.
    const bool hasAppeared = kind == XCB_CLIENT_MESSAGE &&
                             reinterpret_cast<const xcb_client_message_event_t*>(event)->type == m_manager;
    const bool hasGone = kind == XCB_DESTROY_NOTIFY &&
                         reinterpret_cast<const xcb_destroy_notify_event_t*>(event)->window == m_window;
    if (hasAppeared || hasGone) find();
    return false;
}

void XEmbedTray::find()
{
    const auto cookie = xcb_get_selection_owner(x11::connection(), m_selection);
    const x11::Reply<xcb_get_selection_owner_reply_t> reply(
        xcb_get_selection_owner_reply(x11::connection(), cookie, nullptr));
    const xcb_window_t window = reply ? reply->owner : static_cast<xcb_window_t>(XCB_WINDOW_NONE);
    if (window == m_window) return;
    m_window = window;
    if (window != XCB_WINDOW_NONE) {
        // Tells when the tray disappears. Qt selects the same events, so this takes none from it.
        const uint32_t mask = XCB_EVENT_MASK_STRUCTURE_NOTIFY;
        xcb_change_window_attributes(x11::connection(), window, XCB_CW_EVENT_MASK, &mask);
    }
    Q_EMIT changed();
}

} // namespace harbex
