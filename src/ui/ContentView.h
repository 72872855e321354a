#pragma once

#include <QWidget>

class QLabel;
class QStackedWidget;

namespace harbex
{

class ContentState;
class FlatButton;
class FolderList;
class RuleList;

/// The content of the main window: watched folders on the left, rules of the selected folder on the right.
/// Main thread only. `state` must live longer.
class ContentView : public QWidget
{
    Q_OBJECT

public:
    explicit ContentView(ContentState& state, QWidget* parent = nullptr);

protected:
    void showEvent(QShowEvent* event) override;
    void changeEvent(QEvent* event) override;

private:
    QWidget* sidebar();
    QWidget* detailView();
    QWidget* ruleView();
    void showDetail();
    void dimEmptyText();
    void addFolder();
    void addRule();

    ContentState& m_state;
    FlatButton* m_addFolder = nullptr;
    FolderList* m_folderList = nullptr;
    QStackedWidget* m_detail = nullptr;
    QWidget* m_ruleView = nullptr;
    RuleList* m_ruleList = nullptr;
    QLabel* m_emptyText = nullptr;
};

} // namespace harbex
