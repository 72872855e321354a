#include "ui/StatusItem.h"

#include "ui/Desktop.h"

#include <QCursor>
#include <QSystemTrayIcon>

#include <utility>

namespace harbex
{

namespace
{

/// Panels draw a symbolic icon in their own colour. A coloured folder would look like a file manager.
constexpr QLatin1String panelIconName("folder-symbolic");
/// A coloured icon, because the text colour of an XEmbed tray is not known.
constexpr QLatin1String trayIconName("folder");

} // namespace

StatusItem::StatusItem(const QDBusConnection& bus, QObject* parent)
    : QObject(parent), m_icon(QStringLiteral(":/icons/panel-folder.svg"))
{
    //: Entry of the menu in the tray. "Harbex" is the name of the program.
    connect(m_menu.addAction(tr("Open Harbex")), &QAction::triggered, this,
            [this] { Q_EMIT openRequested(m_notifierItem->takeActivationToken()); });
    m_menu.addSeparator();
    //: Entry of the menu in the tray: ends the program.
    connect(m_menu.addAction(tr("Quit")), &QAction::triggered, this, &StatusItem::quitRequested);

    //: The name of the program. It stays in Latin letters.
    m_notifierItem = std::make_unique<StatusNotifierItem>(bus, tr("Harbex"), panelIconName, m_icon, m_menu);
    // On Wayland a program cannot place a menu. Plasma 5 asks for it all the same, and opens the menu itself
    // after an error. Other panels would then do nothing.
    m_notifierItem->setMenuOfPanelOnly(isWayland() && isPlasma());
    connect(m_notifierItem.get(), &StatusNotifierItem::menuRequested, this, &StatusItem::popUp);
    connect(m_notifierItem.get(), &StatusNotifierItem::shownChanged, this, [this](bool isShown) {
        m_isInPanel = isShown;
        showInXEmbedTray(!isShown);
        update();
    });
    connect(&m_xembedTray, &XEmbedTray::changed, this, &StatusItem::update);
}

void StatusItem::popUp(const QPoint& position)
{
    // On Wayland a menu without a parent window would cover the screen. Panels there draw the menu
    // themselves. If a panel cannot draw the context menu, open the window instead.
    if (isWayland())
        Q_EMIT openRequested(m_notifierItem->takeActivationToken());
    else
        m_menu.popup(position);
}

void StatusItem::showInXEmbedTray(bool isShown)
{
    if (isWayland()) return; // Wayland has no XEmbed tray.

    // Qt chooses the tray protocol once per process, when the first icon is created. Without a panel that
    // supports the status-notifier protocol it chooses XEmbed, and then follows all XEmbed trays itself.
    if (isShown && !m_trayIcon) {
        m_trayIcon = new QSystemTrayIcon(QIcon::fromTheme(trayIconName, m_icon), this);
        m_trayIcon->setToolTip(tr("Harbex"));
        m_trayIcon->setContextMenu(&m_menu);
        connect(m_trayIcon, &QSystemTrayIcon::activated, this,
                [this](QSystemTrayIcon::ActivationReason reason) {
                    if (reason == QSystemTrayIcon::Trigger) popUp(QCursor::pos());
                });
    }
    if (m_trayIcon) m_trayIcon->setVisible(isShown);
}

void StatusItem::update()
{
    const bool isDocked = m_trayIcon && m_trayIcon->isVisible() && m_xembedTray.isThere();
    const bool isShown = m_isInPanel || isDocked;
    if (std::exchange(m_isShown, isShown) != isShown) Q_EMIT shownChanged(isShown);
}

} // namespace harbex
