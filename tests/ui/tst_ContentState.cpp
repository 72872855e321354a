#include "support/ContentStateFixture.h"
#include "support/SameFolders.h"
#include "support/TestMain.h"

using namespace harbex;
using namespace harbex::test;

namespace
{

/// The fields of a rule that an edit can change, with the values of a default rule.
struct Fields {
    RuleField field = RuleField::name;
    RuleOperator operatorType = RuleOperator::contains;
    QString value = "";
    std::optional<FileUrl> destination = std::nullopt;
    std::optional<QByteArray> bookmark = std::nullopt;
    RuleKind kind = RuleKind::image;

    void copyTo(FilterRule& rule) const
    {
        rule = {rule.id, field, operatorType, value, destination, bookmark, kind};
    }
};

/// A deletion. A letter is the id of a folder, and a digit its name and its position before the deletion.
struct Deletion {
    const char* name;
    const char* ids;
    const char* selected;
    int deleted;
    const char* left;
    const char* selectedAfter;
};

/// Edits the rule with this id.
using Edit = std::function<void(ContentState&, const QUuid&)>;

FilterRule defaultRule(const QUuid& id)
{
    FilterRule rule;
    rule.id = id;
    return rule;
}

FileUrl urlOf(const char* name)
{
    return FileUrl::fromPath(QDir::homePath().toStdString() + '/' + name);
}

/// Marks the stored file. The next save removes the mark.
bool markStore()
{
    QFile file(preferencesPath());
    return file.open(QIODevice::Append) && file.write("\n\n") == 2;
}

bool isStoreMarked()
{
    return storedText().endsWith("\n\n");
}

} // namespace

/// Which edits restart the engine, which write the store, and which folder is selected.
class TestContentState : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    // Appearing and disappearing.
    void anEmptyStoreStartsTheEngineWithoutFoldersAndIsNotSaved()
    {
        ContentStateFixture fixture;
        QVERIFY(fixture.state.folders().empty());
        QVERIFY(!fixture.state.selectedFolderID());
        QVERIFY(!fixture.state.selectedFolder());
        fixture.state.appear();
        fixture.settle();
        QVERIFY(fixture.engine.isRunning());
        QVERIFY(fixture.engine.activeFDs().empty());
        QVERIFY(!fixture.wasSaved());
    }

    void theFirstAppearanceLoadsStartsTheEngineAndSavesTheSelection()
    {
        ContentStateFixture fixture;
        const auto a = makeFolder("A", 2);
        const auto b = makeFolder("B");
        fixture.store.saveState({{a, b}, b.id});
        QVERIFY(markStore());
        fixture.state.appear();
        QVERIFY(isSame(fixture.state.folders(), {a, b}));
        QCOMPARE(fixture.state.selectedFolderID(), b.id);
        QVERIFY(!isStoreMarked());
        QCOMPARE(fixture.takeSaved()->selectedFolderID, b.id);
        fixture.settle();
        QVERIFY(fixture.engine.isRunning());
        QCOMPARE(fixture.engine.activeFDs().size(), 2U);
        QCOMPARE(fixture.restarts(), 0);
    }

    void appearingAgainLoadsTheStoreAndSavesOnlyAnotherSelection()
    {
        const auto a = makeFolder("A");
        const auto b = makeFolder("B");
        ContentStateFixture fixture({a}, a.id);
        const auto lines = fixture.engine.logs();
        const auto savesAfterLoading = [&](const FolderState& stored) {
            fixture.state.disappear();
            fixture.store.saveState(stored);
            if (!markStore()) qFatal("no stored file");
            fixture.state.appear();
            fixture.settle();
            return !isStoreMarked();
        };
        QVERIFY2(!savesAfterLoading({{a}, a.id}), "an unchanged store");
        QVERIFY2(!savesAfterLoading({{b, a}, a.id}), "another folder");
        QVERIFY(isSame(fixture.state.folders(), {b, a}));
        QCOMPARE(fixture.state.selectedFolderID(), a.id);
        QVERIFY2(savesAfterLoading({{b, a}, b.id}), "another selection");
        QCOMPARE(fixture.state.selectedFolderID(), b.id);
        QCOMPARE(fixture.engine.logs(), lines);

        fixture.engine.stop();
        fixture.settle();
        QVERIFY(!fixture.engine.isRunning());
        QVERIFY(!savesAfterLoading({{b, a}, b.id}));
        QVERIFY2(fixture.engine.isRunning(), "a stopped engine is started");
    }

    // Selecting.
    void selectingSavesEarlierEditsAndRestartsNothing()
    {
        const auto a = makeFolder("A");
        const auto b = makeFolder("B");
        ContentStateFixture fixture({a, b}, a.id);
        fixture.state.setValue(fixture.rule(0).id, "invoice");
        fixture.state.select(a.id);
        QVERIFY(!fixture.wasSaved());

        fixture.state.select(b.id);
        QCOMPARE(fixture.state.selectedFolder()->url, b.url);
        const auto saved = fixture.takeSaved();
        QVERIFY(saved);
        QCOMPARE(saved->selectedFolderID, b.id);
        QCOMPARE(saved->folders.at(0).rules.at(0).value, "invoice");
        QCOMPARE(fixture.restarts(), 0);
    }

    // Adding and deleting folders.
    void anAddedFolderIsLastSelectedAndSavedWithOneDefaultRule()
    {
        ContentStateFixture fixture({makeFolder("A")});
        const FileUrl url = makeFolder("B").url;
        // The second time is a second record.
        for (const auto& bookmark : {std::optional(QByteArray("bookmark")), std::optional<QByteArray>()}) {
            fixture.state.addFolder(url, bookmark);
            const WatchedFolder& folder = fixture.state.folders().back();
            QCOMPARE(folder.url, url);
            QCOMPARE(folder.bookmarkData, bookmark);
            QCOMPARE(folder.rules, std::vector{defaultRule(folder.rules.at(0).id)});
            QCOMPARE(fixture.state.selectedFolderID(), folder.id);
            QCOMPARE(fixture.restarts(), 1);
            QCOMPARE(fixture.engine.activeFDs().size(), fixture.state.folders().size());
            const auto saved = fixture.takeSaved();
            QVERIFY(saved);
            QCOMPARE(saved->selectedFolderID, folder.id);
            QCOMPARE(saved->folders.size(), fixture.state.folders().size());
        }
        QCOMPARE(fixture.state.folders().size(), 3U);
        QVERIFY(fixture.folder(1).id != fixture.folder(2).id);
        QVERIFY(fixture.folder(1).rules.at(0).id != fixture.folder(2).rules.at(0).id);
    }

    void deletingAFolder_data()
    {
        QTest::addColumn<Deletion>("row");
        const Deletion rows[] = {
            {"selected, of three", "abc", "b", 1, "02", "a"},
            {"selected, first", "ab", "a", 0, "1", "b"},
            {"selected, the only one", "a", "a", 0, "", ""},
            {"not selected", "abc", "c", 1, "02", "c"},
            {"nothing is selected", "ab", "", 0, "1", ""},
            {"unknown", "a", "a", -1, "0", "a"},
            {"the first has the same id", "aa", "a", 0, "1", "a"},
            {"a later one has the same id", "abb", "b", 1, "02", "a"},
        };
        for (const Deletion& row : rows)
            QTest::newRow(row.name) << row;
    }

    void deletingAFolder()
    {
        QFETCH(const Deletion, row);
        const QString left = row.left;
        const QByteArray selectedAfter = row.selectedAfter;
        const auto idOf = [](const QByteArray& letter) {
            return letter.isEmpty() ? std::nullopt : std::optional(QUuid::createUuidV5(QUuid(), letter));
        };
        std::vector<WatchedFolder> folders;
        for (const char letter : QByteArray(row.ids)) {
            folders.push_back(makeFolder(QByteArray::number(folders.size())));
            folders.back().id = *idOf(QByteArray(1, letter));
        }
        ContentStateFixture fixture(folders, folders.at(0).id);
        fixture.state.select(idOf(row.selected));
        (void)fixture.wasSaved();

        const QSignalSpy selections(&fixture.state, &ContentState::selectionChanged);
        const bool isKnown = row.deleted >= 0;
        const auto index = static_cast<std::size_t>(row.deleted);
        fixture.state.deleteFolder(isKnown ? fixture.folder(index).id : QUuid::createUuid());
        QString names;
        for (const WatchedFolder& folder : fixture.state.folders())
            names += QString::fromStdString(folder.url.lastPathComponent());
        QCOMPARE(names, left);
        QCOMPARE(fixture.state.selectedFolderID(), idOf(selectedAfter));
        QCOMPARE(fixture.restarts(), isKnown ? 1 : 0);
        QCOMPARE(qsizetype(fixture.engine.activeFDs().size()), left.size());

        // Only a changed selection is saved. The next save has all changes.
        const bool isSelectionChanged = selectedAfter != row.selected;
        QCOMPARE(selections.count(), isSelectionChanged ? 1 : 0);
        QCOMPARE(QFile::exists(preferencesPath()), isSelectionChanged);
        if (!isSelectionChanged) fixture.state.disappear();
        QCOMPARE(storedText().contains("selectedWatchedFolderID"), !selectedAfter.isEmpty());
        const auto saved = fixture.takeSaved();
        if (!selectedAfter.isEmpty()) QCOMPARE(saved->selectedFolderID, idOf(selectedAfter));
        QCOMPARE(qsizetype(saved->folders.size()), left.size());
    }

    // Rules.
    void anAddedRuleIsADefaultRuleAndNeitherRestartsNorSaves()
    {
        ContentStateFixture fixture({makeFolder("A", 0)});
        fixture.state.addRule();
        fixture.state.addRule();
        const auto& rules = fixture.folder(0).rules;
        QCOMPARE(rules.size(), 2U);
        QVERIFY(rules.at(0).id != rules.at(1).id);
        for (const FilterRule& rule : rules)
            QCOMPARE(rule, defaultRule(rule.id));
        QCOMPARE(fixture.restarts(), 0);
        QVERIFY(!fixture.wasSaved());
    }

    void deletingARuleRestartsAndSavesNothing()
    {
        ContentStateFixture fixture({makeFolder("A", 3)});
        const auto before = fixture.folder(0).rules;
        fixture.state.deleteRule(fixture.rule(1).id);
        QCOMPARE(fixture.folder(0).rules, (std::vector{before.at(0), before.at(2)}));
        QCOMPARE(fixture.restarts(), 1);
        QVERIFY(!fixture.wasSaved());

        fixture.state.deleteRule(QUuid::createUuid());
        QCOMPARE(fixture.folder(0).rules.size(), 2U);
        QCOMPARE(fixture.restarts(), 0);

        fixture.state.deleteRule(before.at(0).id);
        fixture.state.deleteRule(before.at(2).id);
        QVERIFY(fixture.state.selectedFolder());
        QVERIFY(fixture.state.selectedFolder()->rules.empty());
    }

    void editingARule_data()
    {
        QTest::addColumn<Fields>("given");
        QTest::addColumn<Fields>("expected");
        QTest::addColumn<int>("restarts");
        QTest::addColumn<Edit>("edit");
        const auto row = [](const char* name, const Fields& given, const Fields& expected, int restarts,
                            const Edit& edit) {
            QTest::newRow(name) << given << expected << restarts << edit;
        };
        const QString text = "invoice";
        const Fields inB{.destination = urlOf("B"), .bookmark = QByteArray("old")};
        const Fields newInB{.destination = urlOf("B"), .bookmark = QByteArray("new")};

        row("operator", {}, {.operatorType = RuleOperator::isEqual}, 1,
            [](auto& state, auto& id) { state.setOperator(id, RuleOperator::isEqual); });
        row("kind", {}, {.kind = RuleKind::audio}, 1,
            [](auto& state, auto& id) { state.setKind(id, RuleKind::audio); });
        row("Name to Extension keeps the value", {.value = text},
            {.field = RuleField::fileExtension, .value = text}, 1,
            [](auto& state, auto& id) { state.setField(id, RuleField::fileExtension); });
        row("Extension to Name keeps the value", {.field = RuleField::fileExtension, .value = text},
            {.value = text}, 1, [](auto& state, auto& id) { state.setField(id, RuleField::name); });
        row("Name to Kind clears the value", {.operatorType = RuleOperator::isEqual, .value = text},
            {.field = RuleField::kind, .operatorType = RuleOperator::isEqual}, 1,
            [](auto& state, auto& id) { state.setField(id, RuleField::kind); });
        row("Kind to Extension keeps operator and kind",
            {.field = RuleField::kind, .operatorType = RuleOperator::isEqual, .kind = RuleKind::video},
            {.field = RuleField::fileExtension,
             .operatorType = RuleOperator::isEqual,
             .kind = RuleKind::video},
            1, [](auto& state, auto& id) { state.setField(id, RuleField::fileExtension); });
        row("the same choices", {.value = text}, {.value = text}, 0, [](auto& state, auto& id) {
            state.setField(id, RuleField::name);
            state.setOperator(id, RuleOperator::contains);
            state.setKind(id, RuleKind::image);
        });
        row("text", {.value = text}, {.value = "in"}, 0,
            [](auto& state, auto& id) { state.setValue(id, "in"); });
        row("destination", {}, newInB, 1,
            [](auto& state, auto& id) { state.setDestination(id, urlOf("B"), QByteArray("new")); });
        row("another destination without a bookmark", inB, {.destination = urlOf("C")}, 1,
            [](auto& state, auto& id) { state.setDestination(id, urlOf("C"), {}); });
        row("the same destination with another bookmark", inB, newInB, 0,
            [](auto& state, auto& id) { state.setDestination(id, urlOf("B"), QByteArray("new")); });
        row("the same destination without a bookmark", inB, {.destination = urlOf("B")}, 0,
            [](auto& state, auto& id) { state.setDestination(id, urlOf("B"), {}); });
        row("an unknown rule", inB, inB, 0, [](auto& state, auto& /*id*/) {
            const QUuid unknown = QUuid::createUuid();
            state.setField(unknown, RuleField::kind);
            state.setOperator(unknown, RuleOperator::isEqual);
            state.setKind(unknown, RuleKind::audio);
            state.setValue(unknown, "x");
            state.setDestination(unknown, urlOf("C"), {});
        });
    }

    void editingARule()
    {
        QFETCH(const Fields, given);
        QFETCH(const Fields, expected);
        QFETCH(const int, restarts);
        QFETCH(const Edit, edit);
        auto a = makeFolder("A", 3);
        given.copyTo(a.rules.at(1));
        ContentStateFixture fixture({a, makeFolder("B", 3)}, a.id);
        auto folders = fixture.state.folders();
        expected.copyTo(folders.at(0).rules.at(1));

        const QSignalSpy changes(&fixture.state, &ContentState::ruleChanged);
        edit(fixture.state, a.rules.at(1).id);
        QVERIFY(isSame(fixture.state.folders(), folders));
        QCOMPARE(changes.count(), restarts);
        QCOMPARE(fixture.restarts(), restarts);
        QVERIFY(!fixture.wasSaved());
    }

    void anEditWithoutASelectionDoesNothing()
    {
        ContentStateFixture fixture({makeFolder("A")});
        const auto before = fixture.folder(0).rules;
        fixture.state.select(std::nullopt);
        QVERIFY(fixture.wasSaved());
        fixture.state.addRule();
        fixture.state.deleteRule(before.at(0).id);
        fixture.state.setField(before.at(0).id, RuleField::kind);
        QCOMPARE(fixture.folder(0).rules, before);
        QCOMPARE(fixture.restarts(), 0);
        QVERIFY(!fixture.wasSaved());
    }
};

HARBEX_TEST(TestContentState)
#include "tst_ContentState.moc"
