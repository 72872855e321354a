#include "ui/DirectorySelector.h"

#include "base/ReadableText.h"
#include "ui/Icons.h"

#include <QDir>
#include <QHBoxLayout>
#include <QHelpEvent>
#include <QLabel>
#include <QPainter>
#include <QPointer>
#include <QStyle>
#include <QTextBoundaryFinder>
#include <QTextDocument>
#include <QToolButton>
#include <QToolTip>

namespace harbex
{

namespace
{

constexpr int longestPath = 40;

bool hasMoreCharactersThan(int limit, const QString& text)
{
    QTextBoundaryFinder finder(QTextBoundaryFinder::Grapheme, text);
    int count = 0;
    while (count <= limit && finder.toNextBoundary() != -1)
        ++count;
    return count > limit;
}

} // namespace

/// One line of text on a rounded background. Elided in the middle, because the end of a path says most.
class PathLabel : public QLabel
{
public:
    explicit PathLabel(QWidget* parent) : QLabel(parent)
    {
        setTextFormat(Qt::PlainText);
        setContentsMargins(7, 3, 7, 3);
    }

    [[nodiscard]] QSize minimumSizeHint() const override { return {0, sizeHint().height()}; }

protected:
    bool event(QEvent* event) override
    {
        if (event->type() != QEvent::ToolTip) return QLabel::event(event);
        const QPoint position = static_cast<QHelpEvent*>(event)->globalPos();
        // QToolTip would interpret markup in the path.
        QToolTip::showText(position, shownText() == text() ? QString() : Qt::convertFromPlainText(text()),
                           this);
        return true;
    }

    void paintEvent(QPaintEvent* /*event*/) override
    {
        QPainter painter(this);
        painter.setRenderHint(QPainter::Antialiasing);
        QColor background = palette().color(QPalette::WindowText);
        background.setAlphaF(0.08F);
        painter.setPen(Qt::NoPen);
        painter.setBrush(background);
        painter.drawRoundedRect(rect(), 5, 5);
        style()->drawItemText(
            &painter, contentsRect(),
            static_cast<int>(QStyle::visualAlignment(layoutDirection(), Qt::AlignLeading | Qt::AlignVCenter)),
            palette(), isEnabled(), shownText(), QPalette::WindowText);
    }

private:
    [[nodiscard]] QString shownText() const
    {
        return fontMetrics().elidedText(text(), Qt::ElideMiddle, contentsRect().width());
    }
};

QString folderLabel(const FileUrl& url)
{
    const std::string& bytes = url.path();
    const QString path = QString::fromUtf8(bytes.data(), static_cast<qsizetype>(bytes.size()));
    if (path.isEmpty() || hasMoreCharactersThan(longestPath, path))
        return readableName(url.lastPathComponent());
    const QString home = QDir::homePath();
    return readableText(home == QLatin1String("/") ? path : QString(path).replace(home, QStringLiteral("~")));
}

DirectorySelector::DirectorySelector(QWidget* parent)
    : QWidget(parent), m_label(new PathLabel(this)), m_button(new QToolButton(this))
{
    m_label->setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Preferred);
    m_button->setIcon(symbolIcon(Symbol::folder));
    m_button->setFocusPolicy(Qt::StrongFocus);
    m_button->setAccessibleName(tr("Select destination..."));
    // Takes the height of the row.
    m_button->setSizePolicy(QSizePolicy::Fixed, QSizePolicy::Ignored);
    // Queued, because assistive technology waits until the press is handled.
    connect(m_button, &QToolButton::clicked, this, &DirectorySelector::choose, Qt::QueuedConnection);

    auto* layout = new QHBoxLayout(this);
    layout->setContentsMargins({});
    layout->addWidget(m_label);
    layout->addWidget(m_button);
    showUrl(std::nullopt);
}

void DirectorySelector::showUrl(const std::optional<FileUrl>& url)
{
    m_label->setText(url ? folderLabel(*url) : tr("Select destination..."));
    m_button->setAccessibleDescription(m_label->text());
}

QString DirectorySelector::text() const
{
    return m_label->text();
}

QWidget* DirectorySelector::button() const
{
    return m_button;
}

void DirectorySelector::choose()
{
    // The rule may be deleted while the dialog is open, and this widget with it.
    const QPointer self(this);
    const auto folder = askForFolder(*this);
    if (!self || !folder) return;
    const auto report = [this, folder = *folder] { Q_EMIT chosen(folder); };
    QMetaObject::invokeMethod(this, report, Qt::QueuedConnection);
}

} // namespace harbex
