#pragma once

#include <QByteArray>
#include <QWidget>

class QLabel;
class QSplitter;
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

    /// Returns the widths of the two columns, which the user can change, in an opaque format.
    [[nodiscard]] QByteArray columnWidths() const;
    /// Sets widths that columnWidths() returned. Ignores other bytes.
    void setColumnWidths(const QByteArray& widths);

protected:
    void showEvent(QShowEvent* event) override;
    void changeEvent(QEvent* event) override;

private:
    void followFont();
    QWidget* sidebar();
    QWidget* detailView();
    QWidget* ruleView();
    void showDetail();
    void dimEmptyText();
    void addFolder();
    void addRule();

    ContentState& m_state;
    QSplitter* m_columns;
    QWidget* m_sidebar = nullptr;
    FlatButton* m_addFolder = nullptr;
    FolderList* m_folderList = nullptr;
    QStackedWidget* m_detail = nullptr;
    QWidget* m_ruleView = nullptr;
    RuleList* m_ruleList = nullptr;
    QLabel* m_emptyText = nullptr;
};

} // namespace harbex
