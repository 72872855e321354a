#include "model/FilterRule.h"
#include "model/WatchedFolder.h"
#include "support/TestMain.h"

#include <functional>

using namespace harbex;

namespace
{

FilterRule fullRule()
{
    FilterRule rule;
    rule.value = QStringLiteral("\u00e9");
    rule.destination = FileUrl::fromPath("/home/u/Invoices");
    rule.destinationBookmarkData = QByteArray("bookmark");
    return rule;
}

/// Whether the cases have these raw values, separated by spaces, in this order, and no others.
template <class Cases>
bool haveRawValues(const Cases& cases, const char* expected)
{
    QStringList values;
    for (const auto each : cases) {
        values.append(rawValue(each));
        if (fromRawValue<typename Cases::value_type>(values.last()) != each) return false;
    }
    return values == QString::fromLatin1(expected).split(u' ');
}

using Change = std::function<void(FilterRule&)>;

} // namespace

Q_DECLARE_METATYPE(Change)

class TestFilterRule : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void rawValuesAreTheStoredTextsInTheOrderOfThePickers()
    {
        QVERIFY(haveRawValues(allRuleFields, "Name Extension Kind"));
        QVERIFY(haveRawValues(allRuleOperators, "contains is"));
        QVERIFY(haveRawValues(allRuleKinds, "Image Video Document Folder Audio Application"));
    }

    void otherTextsAreNoRawValues()
    {
        for (const char* other : {"", "Pictures", "Name ", " Name", "Nam", "Names", "Image\n", "name", "KIND",
                                  "Contains", "Is", "image", "isEqual", "fileExtension"}) {
            const QString text = QString::fromLatin1(other);
            QVERIFY2(!fromRawValue<RuleField>(text), other);
            QVERIFY2(!fromRawValue<RuleOperator>(text), other);
            QVERIFY2(!fromRawValue<RuleKind>(text), other);
        }
        // A raw value of another enumeration is none.
        QVERIFY(!fromRawValue<RuleField>(u"Image"));
        QVERIFY(!fromRawValue<RuleKind>(u"Kind"));
        QVERIFY(!fromRawValue<RuleOperator>(u"Name"));
    }

    void newIdsAreDifferent()
    {
        QVERIFY(!FilterRule().id.isNull());
        QVERIFY(FilterRule().id != FilterRule().id);
        const auto newFolder = [] {
            return WatchedFolder{.url = FileUrl::fromPath("/a"), .bookmarkData = {}, .rules = {}};
        };
        QVERIFY(!newFolder().id.isNull());
        QVERIFY(newFolder().id != newFolder().id);
    }

    void ruleIsUnequalAfterAChangeOfAnyField_data()
    {
        QTest::addColumn<Change>("change");
        const auto row = [](const char* name, const Change& change) { QTest::newRow(name) << change; };
        row("id", [](FilterRule& rule) { rule.id = QUuid::createUuid(); });
        row("field", [](FilterRule& rule) { rule.field = RuleField::kind; });
        row("operatorType", [](FilterRule& rule) { rule.operatorType = RuleOperator::isEqual; });
        row("value", [](FilterRule& rule) { rule.value += u' '; });
        row("upper-case value", [](FilterRule& rule) { rule.value = QStringLiteral("\u00c9"); });
        row("decomposed value", [](FilterRule& rule) { rule.value = QStringLiteral("e\u0301"); });
        row("destination", [](FilterRule& rule) { rule.destination = FileUrl::fromPath("/home/u/Other"); });
        row("no destination", [](FilterRule& rule) { rule.destination.reset(); });
        row("bookmark", [](FilterRule& rule) { rule.destinationBookmarkData = QByteArray("Bookmark"); });
        row("empty bookmark", [](FilterRule& rule) { rule.destinationBookmarkData = QByteArray(); });
        row("no bookmark", [](FilterRule& rule) { rule.destinationBookmarkData.reset(); });
        row("kind", [](FilterRule& rule) { rule.kind = RuleKind::application; });
    }

    void ruleIsUnequalAfterAChangeOfAnyField()
    {
        QFETCH(const Change, change);
        const FilterRule rule = fullRule();
        FilterRule changed = rule;
        QVERIFY(changed == rule);
        change(changed);
        QVERIFY(changed != rule);
    }

    void absentBookmarkIsNotAnEmptyBookmark()
    {
        const FilterRule absent;
        FilterRule empty = absent;
        empty.destinationBookmarkData = QByteArray();
        QVERIFY(empty != absent);
    }
};

HARBEX_TEST(TestFilterRule)

#include "tst_FilterRule.moc"
