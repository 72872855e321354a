#pragma once

#include <QAbstractNativeEventFilter>
#include <QObject>

#include <cstdint>

namespace harbex
{

/// Tells whether a panel offers the XEmbed tray of X11. Never on other platforms. Main thread only.
class XEmbedTray : public QObject, private QAbstractNativeEventFilter
{
    Q_OBJECT

public:
    explicit XEmbedTray(QObject* parent = nullptr);
    ~XEmbedTray() override;

    /// Returns whether there is a tray now.
    [[nodiscard]] bool isThere() const { return m_window != 0; }

Q_SIGNALS:
    /// A tray has appeared or disappeared, or another one has taken its place.
    void changed();

private:
    bool nativeEventFilter(const QByteArray& type, void* message, qintptr* result) override;
    void find();

    /// The window of the tray, 0 without a tray.
    uint32_t m_window = 0;
    uint32_t m_selection = 0;
    uint32_t m_manager = 0;
};

} // namespace harbex
