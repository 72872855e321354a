#include "ui/RuleRow.h"

#include "ui/ContentState.h"
#include "ui/DimmedInk.h"
#include "ui/DirectorySelector.h"
#include "ui/FlatButton.h"
#include "ui/Icons.h"
#include "ui/Metrics.h"
#include "ui/Picker.h"

#include <QEvent>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QSignalBlocker>
#include <QStyle>
#include <QStyleOptionFrame>

#include <algorithm>
#include <array>
#include <cstddef>
#include <limits>

namespace harbex
{

namespace
{

// Marks the raw values, which are also the labels, for lupdate. It cannot find them through the call in
// makePicker(), so a raw value that is missing here has no translation.
//
// A row reads as a sentence, for example: [Name] [contains] [invoice] move to [~/Invoices].
[[maybe_unused]] constexpr std::array labels{
    //: What a rule compares, at the start of its row: [Name] [contains] [value] move to [folder].
    QT_TRANSLATE_NOOP("harbex::RuleRow", "Name"),
    //: What a rule compares, at the start of its row: [Extension] [is] [pdf] move to [folder].
    QT_TRANSLATE_NOOP("harbex::RuleRow", "Extension"),
    //: What a rule compares, at the start of its row: [Kind] [Image] move to [folder].
    QT_TRANSLATE_NOOP("harbex::RuleRow", "Kind"),
    //: Between two controls of a row, and part of its sentence: [Name] [contains] [value] move to [folder].
    QT_TRANSLATE_NOOP("harbex::RuleRow", "contains"),
    //: Between two controls of a row, and part of its sentence: [Extension] [is] [pdf] move to [folder].
    QT_TRANSLATE_NOOP("harbex::RuleRow", "is"),
    //: A kind of file: [Kind] [Image] move to [folder].
    QT_TRANSLATE_NOOP("harbex::RuleRow", "Image"),
    //: A kind of file: [Kind] [Video] move to [folder].
    QT_TRANSLATE_NOOP("harbex::RuleRow", "Video"),
    //: A kind of file: [Kind] [Document] move to [folder].
    QT_TRANSLATE_NOOP("harbex::RuleRow", "Document"),
    //: A folder, as a kind of what a rule moves: [Kind] [Folder] move to [folder].
    QT_TRANSLATE_NOOP("harbex::RuleRow", "Folder"),
    //: A kind of file: [Kind] [Audio] move to [folder].
    QT_TRANSLATE_NOOP("harbex::RuleRow", "Audio"),
    //: A program, as a kind of file: [Kind] [Application] move to [folder].
    QT_TRANSLATE_NOOP("harbex::RuleRow", "Application")};

template <class Cases>
Picker* makePicker(const Cases& cases, const QString& title, QWidget* parent)
{
    auto* picker = new Picker(title, parent);
    picker->setSizeAdjustPolicy(QComboBox::AdjustToContents);
    for (const auto value : cases)
        picker->addItem(RuleRow::tr(rawValue(value).toUtf8().constData()));
    return picker;
}

template <class Cases, class Case>
void showCase(Picker* picker, const Cases& cases, Case shown)
{
    picker->setCurrentIndex(static_cast<int>(std::ranges::find(cases, shown) - cases.begin()));
}

/// Passes the user's choice to the setter `set` of the state.
template <class Case, std::size_t Count>
void setOnChoice(Picker* picker, const std::array<Case, Count>& cases, ContentState& state,
                 void (ContentState::*set)(QUuid, Case), QUuid ruleID)
{
    QObject::connect(picker, &Picker::activated, &state, [&cases, &state, set, ruleID](int index) {
        (state.*set)(ruleID, cases.at(static_cast<std::size_t>(index)));
    });
}

} // namespace

RuleRow::RuleRow(ContentState& state, const FilterRule& rule, QWidget* parent)
    : QWidget(parent), m_ruleID(rule.id),
      //: Read by screen readers: the list with Name, Extension and Kind.
      m_field(makePicker(allRuleFields, tr("Field"), this)),
      //: Read by screen readers: the list with "contains" and "is".
      m_operator(makePicker(allRuleOperators, tr("Operator"), this)), m_value(new QLineEdit(this)),
      m_kind(makePicker(allRuleKinds, tr("Kind"), this)), m_destination(nullptr), m_delete(nullptr)
{
    //: Shown in the empty value field: without a value, a rule takes all files.
    m_value->setPlaceholderText(tr("Default: All Files"));
    //: Read by screen readers: the field after "contains" or "is".
    m_value->setAccessibleName(tr("Value"));
    // QLineEdit would cut a longer value from the store, and the next edit would change the rule.
    m_value->setMaxLength(std::numeric_limits<int>::max());
    // The hidden field keeps its place, so that the controls after it are aligned in all rows.
    QSizePolicy policy = m_value->sizePolicy();
    policy.setRetainSizeWhenHidden(true);
    m_value->setSizePolicy(policy);

    //: Between two controls of a row, and part of its sentence: [Name] [contains] [value] move to [folder].
    auto* moveTo = new QLabel(tr("move to"), this);
    m_destination = new DirectorySelector(this);
    m_delete = new FlatButton(this);
    m_delete->setIcon(symbolIcon(Symbol::minusCircle));
    m_delete->setSizePolicy(QSizePolicy::Fixed, QSizePolicy::Ignored);
    //: Read by screen readers: the button that deletes a rule.
    m_delete->setAccessibleName(tr("Delete"));

    auto* layout = new QHBoxLayout(this);
    layout->setContentsMargins({});
    layout->addWidget(m_field);
    layout->addWidget(m_operator);
    layout->addWidget(m_kind);
    layout->addWidget(m_value);
    layout->addWidget(moveTo);
    layout->addWidget(m_destination, 1);
    layout->addWidget(m_delete);
    followFont();
    followPalette();
    showRule(rule);

    setOnChoice(m_field, allRuleFields, state, &ContentState::setField, m_ruleID);
    setOnChoice(m_operator, allRuleOperators, state, &ContentState::setOperator, m_ruleID);
    setOnChoice(m_kind, allRuleKinds, state, &ContentState::setKind, m_ruleID);
    // textEdited is not emitted when assistive technology changes the text.
    connect(m_value, &QLineEdit::textChanged, &state,
            [&state, id = m_ruleID](const QString& text) { state.setValue(id, text); });
    connect(m_value, &QLineEdit::returnPressed, &state, &ContentState::submitValue);
    connect(m_destination, &DirectorySelector::chosen, &state,
            [&state, id = m_ruleID](const ChosenFolder& folder) {
                state.setDestination(id, folder.url, folder.bookmarkData);
            });
    connect(m_delete, &FlatButton::clicked, &state, [&state, id = m_ruleID] { state.deleteRule(id); });
}

void RuleRow::changeEvent(QEvent* event)
{
    QWidget::changeEvent(event);
    if (changesMetrics(*event)) followFont();
    if (event->type() == QEvent::PaletteChange) followPalette();
}

/// Sets the widths. The pickers have one width, so that the controls after them are aligned in all rows.
void RuleRow::followFont()
{
    int pickerWidth = scaledToFont(*this, 120);
    for (const Picker* picker : {m_field, m_operator, m_kind})
        pickerWidth = std::max(pickerWidth, picker->sizeHint().width());
    for (Picker* picker : {m_field, m_operator, m_kind})
        picker->setFixedWidth(pickerWidth);

    QStyleOptionFrame frame;
    frame.initFrom(m_value);
    frame.lineWidth = style()->pixelMetric(QStyle::PM_DefaultFrameWidth, &frame, m_value);
    // Room for the cursor and for the padding of QLineEdit.
    constexpr int padding = 6;
    const QSize text(m_value->fontMetrics().horizontalAdvance(m_value->placeholderText()) + padding,
                     m_value->fontMetrics().height());
    const int textWidth = style()->sizeFromContents(QStyle::CT_LineEdit, &frame, text, m_value).width();
    m_value->setFixedWidth(std::max(scaledToFont(*this, 180), textWidth));

    m_destination->setMinimumWidth(
        std::max(scaledToFont(*this, 220), m_destination->layout()->minimumSize().width()));
    m_delete->setIconSize(iconSizeFor(*this));
}

void RuleRow::followPalette()
{
    QPalette placeholder;
    placeholder.setColor(QPalette::PlaceholderText, dimmedInk(palette(), QPalette::Text, QPalette::Base));
    m_value->setPalette(placeholder);
}

void RuleRow::showRule(const FilterRule& rule)
{
    showCase(m_field, allRuleFields, rule.field);
    showCase(m_operator, allRuleOperators, rule.operatorType);
    showCase(m_kind, allRuleKinds, rule.kind);
    if (m_value->text() != rule.value) {
        const QSignalBlocker blocker(m_value);
        m_value->setText(rule.value);
    }
    const bool isOfKind = rule.field == RuleField::kind;
    m_operator->setVisible(!isOfKind);
    m_value->setVisible(!isOfKind);
    m_kind->setVisible(isOfKind);
    m_destination->showUrl(rule.destination, rule.destinationBookmarkData);
}

QList<QWidget*> RuleRow::controls() const
{
    return {m_field, m_operator, m_kind, m_value, m_destination->button(), m_delete};
}

void RuleRow::focusDeleteButton()
{
    m_delete->setFocus(Qt::OtherFocusReason);
}

} // namespace harbex
