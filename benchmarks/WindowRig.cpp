#include "WindowRig.h"

#include "EngineRig.h"
#include "store/FolderStore.h"
#include "ui/ContentState.h"
#include "ui/FolderList.h"
#include "ui/MainWindow.h"
#include "ui/RuleList.h"

#include <QApplication>
#include <QMouseEvent>
#include <QScrollBar>

#include <cstdlib>

namespace harbex::bench
{

namespace
{

/// Measures the time until a widget is painted.
class PaintCount : public QObject
{
public:
    explicit PaintCount(QWidget* widget) { widget->installEventFilter(this); }

    /// Returns the milliseconds from the call of `change` until the widget has been painted.
    template <class Change>
    double timeOf(const Change& change)
    {
        m_isPainted = false;
        const auto begin = Clock::now();
        change();
        wait();
        return secondsSince(begin) * 1000;
    }

    /// Waits until the widget has been painted.
    void wait() const
    {
        while (!m_isPainted)
            QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
    }

protected:
    bool eventFilter(QObject* /*watched*/, QEvent* event) override
    {
        m_isPainted = m_isPainted || event->type() == QEvent::Paint;
        return false;
    }

private:
    bool m_isPainted = false;
};

/// Returns the milliseconds until the folder list has been painted. Opening the window creates the list.
double timeToOpen(MainWindow& window)
{
    const auto begin = Clock::now();
    window.open();
    const PaintCount paints(window.findChild<FolderList*>()->viewport());
    paints.wait();
    return secondsSince(begin) * 1000;
}

void click(QListWidget& list, int row)
{
    const QPoint place = list.visualItemRect(list.item(row)).center();
    const QPoint onScreen = list.viewport()->mapToGlobal(place);
    for (const auto type : {QEvent::MouseButtonPress, QEvent::MouseButtonRelease}) {
        QMouseEvent event(type, place, onScreen, Qt::LeftButton,
                          type == QEvent::MouseButtonPress ? Qt::LeftButton : Qt::NoButton, Qt::NoModifier);
        QCoreApplication::sendEvent(list.viewport(), &event);
    }
}

/// Scrolls from the top to the end in 100 steps. Returns the median time of a step in milliseconds.
double scrolling(QScrollBar& bar, PaintCount& paints)
{
    std::vector<double> times;
    for (int step = 1; step <= 100; ++step)
        times.push_back(paints.timeOf([&] { bar.setValue(bar.maximum() * step / 100); }));
    return median(times);
}

} // namespace

void measureWindow(Table& table)
{
    constexpr int many = 1000;
    const ScratchFolder scratch;
    ::setenv("XDG_CONFIG_HOME", scratch.folder("config").c_str(), 1);
    FolderState stored;
    for (int i = 0; i < many; ++i)
        stored.folders.push_back(
            picturesRule(scratch.folder("in" + std::to_string(i)), scratch.folder("out")));
    stored.folders[1].rules.assign(many, stored.folders[1].rules.front());
    for (FilterRule& rule : stored.folders[1].rules)
        rule.id = QUuid::createUuid();
    stored.selectedFolderID = stored.folders[0].id;
    FolderStore store;
    store.saveState(stored);

    DownloadImageRedirector engine;
    ContentState state(engine, store);
    MainWindow window(state);
    // The first opening also starts the engine, which is not part of the measurement.
    (void)timeToOpen(window);
    EngineRig::settle(std::chrono::seconds(2));
    window.close();
    EngineRig::settle(std::chrono::milliseconds(500));
    table.addLimit("window opened with 1,000 folders", "ms", timeToOpen(window), 100);

    auto* list = window.findChild<FolderList*>();
    auto* rules = window.findChild<RuleList*>();
    PaintCount listPaints(list->viewport());
    PaintCount rulePaints(rules->widget());

    std::vector<double> clicks;
    for (int i = 0; i < 11; ++i) {
        EngineRig::settle(std::chrono::milliseconds(100));
        click(*list, 0);
        EngineRig::settle(std::chrono::milliseconds(100));
        clicks.push_back(rulePaints.timeOf([&] { click(*list, 1); }));
    }
    table.addLimit("click on a folder with 1,000 rules to its rules painted", "ms", median(clicks), 100);
    // One frame at 60 frames per second.
    table.addLimit("    scrolling through the rules, one step", "ms",
                   scrolling(*rules->verticalScrollBar(), rulePaints), 16.7);
    table.addLimit("    scrolling through the folders, one step", "ms",
                   scrolling(*list->verticalScrollBar(), listPaints), 16.7);
}

} // namespace harbex::bench
