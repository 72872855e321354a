#include "model/FilterRule.h"
#include "model/WatchedFolder.h"
#include "support/TestMain.h"

#include <functional>
#include <utility>

using namespace harbex;

namespace
{

FilterRule fullRule()
{
    FilterRule rule;
    rule.value = QStringLiteral("invoice");
    rule.destination = FileUrl::fromPath("/home/u/Invoices");
    rule.destinationBookmarkData = QByteArray("bookmark");
    return rule;
}

template <class Cases>
QStringList rawValues(const Cases& cases)
{
    QStringList values;
    for (const auto each : cases)
        values.append(rawValue(each));
    return values;
}

} // namespace

using Change = std::function<void(FilterRule&)>;
Q_DECLARE_METATYPE(Change)

class TestFilterRule : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void fieldsAreNameExtensionKindInThisOrder();
    void operatorsAreContainsAndIsInThisOrder();
    void kindsAreImageVideoDocumentFolderAudioApplicationInThisOrder();
    void everyRawValueGivesItsCase();
    void unknownRawValueGivesNoCase();
    void rawValueIsCaseSensitive();
    void caseNameIsNoRawValue();
    void newRuleHasTheStatedDefaults();
    void newRulesHaveDifferentIds();
    void newFoldersHaveDifferentIds();
    void copiedRuleIsEqual();
    void ruleIsUnequalAfterAChangeOfAnyField_data();
    void ruleIsUnequalAfterAChangeOfAnyField();
    void rulesThatDifferOnlyInTheBytesOfTheBookmarkAreUnequal();
    void rulesWithTheSameFieldsButDifferentIdAreUnequal();
    void valuesAreComparedExactly();
    void rulesAreValues();
};

void TestFilterRule::fieldsAreNameExtensionKindInThisOrder()
{
    QCOMPARE(rawValues(allRuleFields),
             QStringList({QStringLiteral("Name"), QStringLiteral("Extension"), QStringLiteral("Kind")}));
}

void TestFilterRule::operatorsAreContainsAndIsInThisOrder()
{
    QCOMPARE(rawValues(allRuleOperators), QStringList({QStringLiteral("contains"), QStringLiteral("is")}));
}

void TestFilterRule::kindsAreImageVideoDocumentFolderAudioApplicationInThisOrder()
{
    QCOMPARE(rawValues(allRuleKinds),
             QStringList({QStringLiteral("Image"), QStringLiteral("Video"), QStringLiteral("Document"),
                          QStringLiteral("Folder"), QStringLiteral("Audio"), QStringLiteral("Application")}));
}

void TestFilterRule::everyRawValueGivesItsCase()
{
    for (const RuleField field : allRuleFields)
        QVERIFY(fromRawValue<RuleField>(rawValue(field)) == field);
    for (const RuleOperator operatorType : allRuleOperators)
        QVERIFY(fromRawValue<RuleOperator>(rawValue(operatorType)) == operatorType);
    for (const RuleKind kind : allRuleKinds)
        QVERIFY(fromRawValue<RuleKind>(rawValue(kind)) == kind);
}

void TestFilterRule::unknownRawValueGivesNoCase()
{
    for (const char16_t* text : {u"", u"Pictures", u"Name ", u" Name", u"Nam", u"Names", u"Image\n"}) {
        QVERIFY(!fromRawValue<RuleField>(text));
        QVERIFY(!fromRawValue<RuleOperator>(text));
        QVERIFY(!fromRawValue<RuleKind>(text));
    }
    // Each enumeration has its own.
    QVERIFY(!fromRawValue<RuleField>(u"Image"));
    QVERIFY(!fromRawValue<RuleKind>(u"Kind"));
    QVERIFY(!fromRawValue<RuleOperator>(u"Name"));
}

void TestFilterRule::rawValueIsCaseSensitive()
{
    QVERIFY(!fromRawValue<RuleField>(u"name"));
    QVERIFY(!fromRawValue<RuleField>(u"KIND"));
    QVERIFY(!fromRawValue<RuleOperator>(u"Contains"));
    QVERIFY(!fromRawValue<RuleOperator>(u"Is"));
    QVERIFY(!fromRawValue<RuleKind>(u"image"));
}

void TestFilterRule::caseNameIsNoRawValue()
{
    QVERIFY(!fromRawValue<RuleOperator>(u"isEqual"));
    QVERIFY(!fromRawValue<RuleField>(u"fileExtension"));
}

void TestFilterRule::newRuleHasTheStatedDefaults()
{
    const FilterRule rule;
    QVERIFY(!rule.id.isNull());
    QVERIFY(rule.field == RuleField::name);
    QVERIFY(rule.operatorType == RuleOperator::contains);
    QCOMPARE(rule.value, QString());
    QVERIFY(!rule.destination);
    QVERIFY(!rule.destinationBookmarkData);
    QVERIFY(rule.kind == RuleKind::image);
}

void TestFilterRule::newRulesHaveDifferentIds()
{
    QVERIFY(FilterRule().id != FilterRule().id);
}

void TestFilterRule::newFoldersHaveDifferentIds()
{
    const auto newFolder = [] {
        return WatchedFolder{.url = FileUrl::fromPath("/a"), .bookmarkData = {}, .rules = {}};
    };
    QVERIFY(!newFolder().id.isNull());
    QVERIFY(newFolder().id != newFolder().id);
}

void TestFilterRule::copiedRuleIsEqual()
{
    const FilterRule rule = fullRule();
    QVERIFY(rule == FilterRule(rule));
    const FilterRule plain;
    QVERIFY(plain == FilterRule(plain));
}

void TestFilterRule::ruleIsUnequalAfterAChangeOfAnyField_data()
{
    QTest::addColumn<Change>("change");
    const auto row = [](const char* name, const Change& change) { QTest::newRow(name) << change; };
    row("id", [](FilterRule& rule) { rule.id = QUuid::createUuid(); });
    row("field", [](FilterRule& rule) { rule.field = RuleField::kind; });
    row("operatorType", [](FilterRule& rule) { rule.operatorType = RuleOperator::isEqual; });
    row("value", [](FilterRule& rule) { rule.value += u' '; });
    row("destination", [](FilterRule& rule) { rule.destination = FileUrl::fromPath("/home/u/Other"); });
    row("no destination", [](FilterRule& rule) { rule.destination.reset(); });
    row("bookmark", [](FilterRule& rule) { rule.destinationBookmarkData = QByteArray("Bookmark"); });
    row("empty bookmark", [](FilterRule& rule) { rule.destinationBookmarkData = QByteArray(); });
    row("no bookmark", [](FilterRule& rule) { rule.destinationBookmarkData.reset(); });
    row("kind", [](FilterRule& rule) { rule.kind = RuleKind::application; });
}

void TestFilterRule::ruleIsUnequalAfterAChangeOfAnyField()
{
    QFETCH(const Change, change);
    const FilterRule rule = fullRule();
    FilterRule changed = rule;
    change(changed);
    QVERIFY(!(changed == rule));
    QVERIFY(changed != rule);
}

void TestFilterRule::rulesThatDifferOnlyInTheBytesOfTheBookmarkAreUnequal()
{
    const FilterRule rule = fullRule();
    FilterRule other = rule;
    other.destinationBookmarkData = QByteArray("bookmarl");
    QVERIFY(other != rule);
    // Absent is not the same as empty.
    FilterRule without = rule;
    without.destinationBookmarkData.reset();
    other.destinationBookmarkData = QByteArray();
    QVERIFY(other != without);
}

void TestFilterRule::rulesWithTheSameFieldsButDifferentIdAreUnequal()
{
    FilterRule rule;
    FilterRule other;
    QVERIFY(rule != other);
    other.id = rule.id;
    QVERIFY(rule == other);
}

void TestFilterRule::valuesAreComparedExactly()
{
    FilterRule composed;
    composed.value = QStringLiteral("\u00e9");
    FilterRule decomposed = composed;
    decomposed.value = QStringLiteral("e\u0301");
    QVERIFY(composed != decomposed);
    FilterRule upper = composed;
    upper.value = QStringLiteral("\u00c9");
    QVERIFY(composed != upper);
}

void TestFilterRule::rulesAreValues()
{
    WatchedFolder folder{.url = FileUrl::fromPath("/a"), .bookmarkData = {}, .rules = {fullRule()}};
    const WatchedFolder copy = folder;
    folder.rules.front().value = QStringLiteral("changed");
    folder.url = FileUrl::fromPath("/b");
    QCOMPARE(copy.rules.front().value, QStringLiteral("invoice"));
    QCOMPARE(copy.url.path(), std::string("/a"));
    QCOMPARE(copy.id, folder.id);
}

HARBEX_TEST_MAIN(TestFilterRule)

#include "tst_FilterRule.moc"
