#include "ui/ContentView.h"

#include "base/ReadableText.h"
#include "ui/ContentState.h"

#include <QListWidget>
#include <QVBoxLayout>

namespace harbex
{

ContentView::ContentView(ContentState& state, QWidget* parent)
    : QWidget(parent), m_state(state), m_sidebar(new QListWidget(this))
{
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins({});
    layout->addWidget(m_sidebar);
    setMinimumSize(1000, 400);

    connect(&m_state, &ContentState::foldersChanged, this, &ContentView::showFolders);
}

void ContentView::showFolders()
{
    m_sidebar->clear();
    const QIcon icon = QIcon::fromTheme(QStringLiteral("folder"));
    for (const WatchedFolder& folder : m_state.folders())
        new QListWidgetItem(icon, readableName(folder.url.lastPathComponent()), m_sidebar);
}

} // namespace harbex
