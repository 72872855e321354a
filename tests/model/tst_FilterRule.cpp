#include "model/FilterRule.h"
#include "model/WatchedFolder.h"
#include "support/TestMain.h"

using namespace harbex;

namespace
{

/// Whether the cases have these raw values, separated by spaces, in this order, and no others.
template <class Cases>
bool haveRawValues(const Cases& cases, const char* expected)
{
    QStringList values;
    for (const auto each : cases) {
        values.append(rawValue(each));
        if (fromRawValue<typename Cases::value_type>(values.last()) != each) return false;
    }
    return values == QString(expected).split(u' ');
}

} // namespace

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
            const QString text = other;
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
};

HARBEX_TEST(TestFilterRule)

#include "tst_FilterRule.moc"
