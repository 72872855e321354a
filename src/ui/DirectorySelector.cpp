#include "ui/DirectorySelector.h"

#include "ui/DimmedInk.h"
#include "ui/Icons.h"
#include "ui/Metrics.h"
#include "ui/PathText.h"

#include <QEvent>
#include <QHBoxLayout>
#include <QLabel>
#include <QPainter>
#include <QPointer>
#include <QStyle>
#include <QToolButton>

namespace harbex
{

/// One line on a rounded background: a path, or a prompt in its place. Elided in the middle, because the end
/// of a path says most.
class PathLabel : public QLabel
{
public:
    explicit PathLabel(QWidget* parent) : QLabel(parent)
    {
        setTextFormat(Qt::PlainText);
        setContentsMargins(7, 3, 7, 3);
    }

    void showPath(const QString& path)
    {
        m_isPath = true;
        setText(path);
    }

    void showPrompt(const QString& prompt)
    {
        m_isPath = false;
        setText(prompt);
    }

    [[nodiscard]] QSize minimumSizeHint() const override { return {0, sizeHint().height()}; }

protected:
    void paintEvent(QPaintEvent* /*event*/) override
    {
        QPainter painter(this);
        painter.setRenderHint(QPainter::Antialiasing);
        QColor background = palette().color(QPalette::WindowText);
        background.setAlphaF(0.08F);
        painter.setPen(Qt::NoPen);
        painter.setBrush(background);
        painter.drawRoundedRect(rect(), 5, 5);
        painter.setPen(m_isPath ? palette().color(QPalette::WindowText)
                                : dimmedInk(palette(), QPalette::WindowText, QPalette::Window));
        int flags =
            static_cast<int>(QStyle::visualAlignment(layoutDirection(), Qt::AlignLeading | Qt::AlignVCenter));
        // A path reads from left to right in every language.
        if (m_isPath) flags |= Qt::TextForceLeftToRight;
        painter.drawText(contentsRect(), flags | Qt::TextSingleLine,
                         fontMetrics().elidedText(text(), Qt::ElideMiddle, contentsRect().width()));
    }

private:
    bool m_isPath = false;
};

DirectorySelector::DirectorySelector(QWidget* parent)
    : QWidget(parent), m_label(new PathLabel(this)), m_button(new QToolButton(this))
{
    m_label->setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Preferred);
    m_button->setIcon(symbolIcon(Symbol::folder));
    m_button->setFocusPolicy(Qt::StrongFocus);
    //: Read by screen readers, and shown in place of the destination of a rule that has none yet.
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
    followFont();
}

void DirectorySelector::changeEvent(QEvent* event)
{
    QWidget::changeEvent(event);
    if (changesMetrics(*event)) followFont();
}

void DirectorySelector::followFont()
{
    m_button->setIconSize(iconSizeFor(*this));
    // The prompt is never elided.
    const QMargins margins = m_label->contentsMargins();
    m_label->setMinimumWidth(fontMetrics().horizontalAdvance(tr("Select destination...")) + margins.left() +
                             margins.right());
}

void DirectorySelector::showUrl(const std::optional<FileUrl>& url, const std::optional<QByteArray>& bookmark)
{
    m_url = url;
    const auto shown = url ? std::optional(shownUrl(*url, bookmark)) : std::nullopt;
    if (shown)
        m_label->showPath(folderLabel(*shown));
    else
        m_label->showPrompt(tr("Select destination..."));
    m_label->setToolTip(shown ? pathToolTip(*shown) : QString());
    m_button->setToolTip(m_label->toolTip());
    m_button->setAccessibleDescription(shown ? fullPath(*shown) : QString());
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
    const auto folder = askForFolder(*this, m_url);
    if (!self || !folder) return;
    const auto report = [this, folder = *folder] { Q_EMIT chosen(folder); };
    QMetaObject::invokeMethod(this, report, Qt::QueuedConnection);
}

} // namespace harbex
