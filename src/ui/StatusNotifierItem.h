#pragma once

#include "ui/DBusMenu.h"

#include <QByteArray>
#include <QDBusArgument>
#include <QDBusConnection>
#include <QDBusContext>
#include <QDBusObjectPath>
#include <QDBusServiceWatcher>
#include <QIcon>
#include <QList>
#include <QObject>
#include <QPoint>
#include <QString>

#include <optional>

class QMenu;

namespace harbex
{

/// Wire types of org.kde.StatusNotifierItem: an image with 4 bytes per pixel (alpha, red, green, blue), and a
/// tool tip.
struct StatusNotifierPixmap {
    int width = 0;
    int height = 0;
    QByteArray pixels;
};
struct StatusNotifierToolTip {
    QString iconName;
    QList<StatusNotifierPixmap> iconPixmap;
    QString title;
    QString text;
};

QDBusArgument& operator<<(QDBusArgument& argument, const StatusNotifierPixmap& pixmap);
const QDBusArgument& operator>>(const QDBusArgument& argument, StatusNotifierPixmap& pixmap);
QDBusArgument& operator<<(QDBusArgument& argument, const StatusNotifierToolTip& toolTip);
const QDBusArgument& operator>>(const QDBusArgument& argument, StatusNotifierToolTip& toolTip);

/// Exports the status item as org.kde.StatusNotifierItem on a bus. Left and right click open the menu.
/// Registers with every StatusNotifierWatcher that appears. Main thread only.
class StatusNotifierItem : public QObject, protected QDBusContext
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.kde.StatusNotifierItem")
    Q_PROPERTY(QString Category READ category CONSTANT SCRIPTABLE true)
    Q_PROPERTY(QString Id READ id CONSTANT SCRIPTABLE true)
    Q_PROPERTY(QString Title READ title CONSTANT SCRIPTABLE true)
    Q_PROPERTY(QString Status READ status CONSTANT SCRIPTABLE true)
    Q_PROPERTY(int WindowId READ windowId CONSTANT SCRIPTABLE true)
    Q_PROPERTY(QString IconName READ iconName CONSTANT SCRIPTABLE true)
    Q_PROPERTY(QList<harbex::StatusNotifierPixmap> IconPixmap READ iconPixmap CONSTANT SCRIPTABLE true)
    Q_PROPERTY(QString IconThemePath READ nothing CONSTANT SCRIPTABLE true)
    Q_PROPERTY(QString OverlayIconName READ nothing CONSTANT SCRIPTABLE true)
    Q_PROPERTY(QList<harbex::StatusNotifierPixmap> OverlayIconPixmap READ noPixmap CONSTANT SCRIPTABLE true)
    Q_PROPERTY(QString AttentionIconName READ nothing CONSTANT SCRIPTABLE true)
    Q_PROPERTY(QList<harbex::StatusNotifierPixmap> AttentionIconPixmap READ noPixmap CONSTANT SCRIPTABLE true)
    Q_PROPERTY(harbex::StatusNotifierToolTip ToolTip READ toolTip CONSTANT SCRIPTABLE true)
    Q_PROPERTY(bool ItemIsMenu READ itemIsMenu CONSTANT SCRIPTABLE true)
    Q_PROPERTY(QDBusObjectPath Menu READ menu CONSTANT SCRIPTABLE true)

public:
    /// `title` is the name of the item. The panel draws `iconName` from its theme, or else `icon`. `menu`
    /// must be complete and live longer.
    StatusNotifierItem(const QDBusConnection& bus, const QString& title, const QString& iconName,
                       const QIcon& icon, const QMenu& menu, QObject* parent = nullptr);

    /// Leaves the menu to the panel (false at first): a panel that asks for it with a left click gets an
    /// error. Some panels then open the menu themselves.
    void setMenuOfPanelOnly(bool isOnly) { m_isMenuOfPanelOnly = isOnly; }

    /// Returns the activation token of the latest click and clears it. May be empty.
    [[nodiscard]] QString takeActivationToken();

    [[nodiscard]] QString category() const { return QStringLiteral("ApplicationStatus"); }
    [[nodiscard]] QString id() const { return QStringLiteral("harbex"); }
    [[nodiscard]] QString title() const { return m_title; }
    [[nodiscard]] QString status() const { return QStringLiteral("Active"); }
    [[nodiscard]] int windowId() const { return 0; }
    [[nodiscard]] QString iconName() const { return m_iconName; }
    [[nodiscard]] QList<StatusNotifierPixmap> iconPixmap() const;
    [[nodiscard]] StatusNotifierToolTip toolTip() const { return {{}, {}, m_title, {}}; }
    [[nodiscard]] bool itemIsMenu() const { return true; }
    [[nodiscard]] QDBusObjectPath menu() const;
    [[nodiscard]] QString nothing() const { return {}; }
    [[nodiscard]] QList<StatusNotifierPixmap> noPixmap() const { return {}; }

    // D-Bus methods. Positions are screen coordinates in the panel's pixels. Middle button and wheel do
    // nothing.
    Q_SCRIPTABLE void Activate(int x, int y);
    Q_SCRIPTABLE void ContextMenu(int x, int y);
    Q_SCRIPTABLE void SecondaryActivate(int x, int y);
    Q_SCRIPTABLE void Scroll(int delta, const QString& orientation);
    Q_SCRIPTABLE void ProvideXdgActivationToken(const QString& token);

Q_SIGNALS:
    /// Tells whether a panel shows status items. Emitted when this is first known and at each change.
    void shownChanged(bool isShown);
    /// A panel that does not draw the menu itself asks to open it at `position`.
    void menuRequested(const QPoint& position);

private Q_SLOTS:
    void askWhetherShown();

private:
    void registerAtWatcher();
    void setShown(bool isShown);

    QDBusConnection m_bus;
    QString m_title;
    QString m_iconName;
    QIcon m_icon;
    DBusMenu m_dbusMenu;
    QDBusServiceWatcher m_watcherOwner;
    QString m_activationToken;
    std::optional<bool> m_isShown;
    bool m_isMenuOfPanelOnly = false;
};

} // namespace harbex
