#include "support/ContentStateFixture.h"
#include "support/TestMain.h"

#include <QSignalSpy>

#include <unistd.h>

using namespace harbex;
using namespace harbex::test;

namespace
{

FileUrl urlOf(const char* name)
{
    return FileUrl::fromPath(QDir::homePath().toStdString() + '/' + name);
}

QByteArray storedText()
{
    QFile file(preferencesPath());
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

/// Marks the stored file in a way that a save wipes out.
void markStore()
{
    QFile file(preferencesPath());
    QVERIFY(file.open(QIODevice::Append));
    file.write("\n\n");
}

bool isStoreMarked()
{
    return storedText().endsWith("\n\n");
}

} // namespace

/// What the window edits: what restarts the engine, what writes the store, and what is selected.
class TestContentState : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    // Appearing and disappearing.
    void nothingIsThereBeforeTheFirstAppearance();
    void theFirstAppearanceOfAllStartsTheEngineWithoutFoldersAndSavesNothing();
    void appearingLoadsAndStartsTheEngineWithWhatWasLoaded();
    void theFirstAppearanceWithAStoredSelectionSavesItStraightBack();
    void appearingAgainWithTheSameSelectionSavesNothing();
    void appearingAgainWhileTheEngineRunsDoesNotRestartIt();
    void appearingAgainReadsTheStoreAgain();
    void appearingAgainWithAnotherStoredSelectionSaves();
    void appearingStartsAnEngineThatWasStopped();
    void disappearingSavesAndLeavesTheEngineRunning();
    void anEngineWhoseWindowIsClosedGoesOnMoving();
    void theEndOfTheStateSavesNothing();

    // Selecting.
    void selectingAnotherFolderSavesWithTheEditsMadeBefore();
    void selectingTheSelectedFolderSavesNothing();
    void selectingNothingSavesWithoutASelection();
    void selectingRestartsNothing();
    void aSelectionThatNamesNoFolderIsLikeNone();
    void ofTwoFoldersWithOneIdTheFirstIsSelected();

    // Adding and deleting folders.
    void anAddedFolderIsSelectedHasOneDefaultRuleAndIsSaved();
    void anAddedFolderComesLast();
    void theSameFolderAddedTwiceIsTwoEntries();
    void aFolderWithoutABookmarkIsAdded();
    void deletingTheSelectedFolderOfThreeSelectsTheFirst();
    void deletingTheSelectedFirstFolderSelectsTheNewFirst();
    void deletingAnUnselectedFolderKeepsTheSelectionAndSavesNothing();
    void deletingTheOnlyFolderLeavesNoSelection();
    void deletingWithoutASelectionSelectsNothing();
    void deletingAFolderThatIsGoneDoesNothing();
    void aFolderIsDeletedByTheIdInTheListItself();
    void ofTwoFoldersWithOneIdTheFirstIsDeletedAndTheSelectionStays();
    void ofTwoFoldersWithOneIdBehindAnotherTheFirstIsDeletedAndTheSelectionMoves();
    void whatWasDeletedUnsavedIsMissingFromTheNextSave();

    // Rules.
    void twoAddedRulesLookAlikeAndHaveDifferentIds();
    void anAddedRuleNeitherRestartsNorSaves();
    void deletingTheSecondOfThreeRulesRemovesExactlyThatOne();
    void deletingTheOnlyRuleLeavesAFolderWithoutRules();
    void deletingARuleRestartsOnceAndDoesNotSave();
    void deletingARuleThatIsGoneDoesNothing();
    void everyPickerRestartsOnceAndSavesNothing();
    void choosingWhatIsChosenDoesNothing();
    void choosingKindClearsTheValueAndRestartsOnce();
    void leavingKindKeepsTheOperatorAndAnEmptyValue();
    void changingBetweenNameAndExtensionKeepsTheValue();
    void theKindIsKeptWhileAnotherFieldIsChosen();
    void typingReachesTheFoldersAtOnceAndRestartsNothing();
    void theEngineGetsWhatWasTypedWithTheNextRestart();
    void submittingRestartsEvenWhenNothingChanged();
    void aChosenDestinationRestartsAndDoesNotSave();
    void theSameDestinationRenewsTheBookmarkOnly();
    void theSameDestinationWithoutABookmarkClearsTheBookmarkOnly();
    void nothingIsMovedFromANewFolderUntilADestinationIsSet();
    void aBookmarkThatCouldNotBeMadeClearsTheOldOne();
    void anEditOfARuleThatIsGoneDoesNothing();
    void anEditWithoutASelectionDoesNothing();
    void anEditChangesNoOtherRule();
};

void TestContentState::nothingIsThereBeforeTheFirstAppearance()
{
    const ContentStateFixture bench;
    QVERIFY(bench.state.folders().empty());
    QVERIFY(!bench.state.selectedFolderID());
    QVERIFY(!bench.state.selectedFolder());
}

void TestContentState::theFirstAppearanceOfAllStartsTheEngineWithoutFoldersAndSavesNothing()
{
    ContentStateFixture bench;
    bench.state.appear();
    bench.settle();
    QVERIFY(bench.engine.isRunning());
    QVERIFY(bench.engine.activeFDs().empty());
    QVERIFY(!bench.wasSaved());
}

void TestContentState::appearingLoadsAndStartsTheEngineWithWhatWasLoaded()
{
    ContentStateFixture bench;
    const auto a = ContentStateFixture::makeFolder(QStringLiteral("A"), 2);
    const auto b = ContentStateFixture::makeFolder(QStringLiteral("B"));
    bench.store.saveState({{a, b}, b.id});
    bench.state.appear();
    QCOMPARE(bench.state.folders().size(), 2U);
    QCOMPARE(bench.folder(0).id, a.id);
    QCOMPARE(bench.folder(0).rules, a.rules);
    QCOMPARE(bench.state.selectedFolderID(), b.id);
    bench.settle();
    QVERIFY(bench.engine.isRunning());
    QCOMPARE(bench.engine.activeFDs().size(), 2U);
    QCOMPARE(bench.restarts(), 0);
}

void TestContentState::theFirstAppearanceWithAStoredSelectionSavesItStraightBack()
{
    ContentStateFixture bench;
    const auto a = ContentStateFixture::makeFolder(QStringLiteral("A"));
    bench.store.saveState({{a}, a.id});
    markStore();
    bench.state.appear();
    QVERIFY(!isStoreMarked());
    QCOMPARE(bench.takeSaved()->selectedFolderID, a.id);
}

void TestContentState::appearingAgainWithTheSameSelectionSavesNothing()
{
    ContentStateFixture bench;
    const auto a = ContentStateFixture::makeFolder(QStringLiteral("A"));
    bench.appearWith({a}, a.id);
    bench.state.disappear();
    markStore();
    bench.state.appear();
    QVERIFY(isStoreMarked());
}

void TestContentState::appearingAgainWhileTheEngineRunsDoesNotRestartIt()
{
    ContentStateFixture bench;
    const auto a = ContentStateFixture::makeFolder(QStringLiteral("A"));
    bench.appearWith({a}, a.id);
    const auto lines = bench.engine.logs();
    bench.state.disappear();
    bench.state.appear();
    QCOMPARE(bench.restarts(), 0);
    QCOMPARE(bench.engine.logs(), lines);
    QVERIFY(bench.engine.isRunning());
}

void TestContentState::appearingAgainReadsTheStoreAgain()
{
    ContentStateFixture bench;
    const auto a = ContentStateFixture::makeFolder(QStringLiteral("A"));
    const auto b = ContentStateFixture::makeFolder(QStringLiteral("B"));
    bench.appearWith({a}, a.id);
    bench.state.disappear();
    bench.store.saveState({{b, a}, a.id});
    bench.state.appear();
    QCOMPARE(bench.state.folders().size(), 2U);
    QCOMPARE(bench.folder(0).id, b.id);
    QCOMPARE(bench.state.selectedFolderID(), a.id);
}

void TestContentState::appearingAgainWithAnotherStoredSelectionSaves()
{
    ContentStateFixture bench;
    const auto a = ContentStateFixture::makeFolder(QStringLiteral("A"));
    const auto b = ContentStateFixture::makeFolder(QStringLiteral("B"));
    bench.appearWith({a, b}, a.id);
    bench.state.disappear();
    bench.store.saveState({{a, b}, b.id});
    markStore();
    bench.state.appear();
    QCOMPARE(bench.state.selectedFolderID(), b.id);
    QVERIFY(!isStoreMarked());
}

void TestContentState::appearingStartsAnEngineThatWasStopped()
{
    ContentStateFixture bench;
    bench.appearWith({ContentStateFixture::makeFolder(QStringLiteral("A"))});
    bench.state.disappear();
    bench.engine.stop();
    bench.settle();
    QVERIFY(!bench.engine.isRunning());
    bench.state.appear();
    bench.settle();
    QVERIFY(bench.engine.isRunning());
}

void TestContentState::disappearingSavesAndLeavesTheEngineRunning()
{
    ContentStateFixture bench;
    const auto a = ContentStateFixture::makeFolder(QStringLiteral("A"));
    bench.appearWith({a}, a.id);
    bench.state.addRule();
    bench.state.setValue(bench.rule(0).id, QStringLiteral("invoice"));
    bench.state.disappear();
    const auto saved = bench.takeSaved();
    QVERIFY(saved);
    QCOMPARE(saved->selectedFolderID, a.id);
    QCOMPARE(saved->folders.at(0).rules, bench.folder(0).rules);
    QCOMPARE(saved->folders.at(0).rules.at(0).value, QStringLiteral("invoice"));
    QVERIFY(bench.engine.isRunning());
    QCOMPARE(bench.restarts(), 0);
}

void TestContentState::anEngineWhoseWindowIsClosedGoesOnMoving()
{
    ContentStateFixture bench;
    const auto inbox = ContentStateFixture::makeFolder(QStringLiteral("Inbox"));
    const auto outbox = ContentStateFixture::makeFolder(QStringLiteral("Outbox"));
    bench.appearWith({inbox}, inbox.id);
    bench.state.setDestination(bench.rule(0).id, outbox.url, {});
    bench.settle();
    bench.state.disappear();
    QFile file(QDir::homePath() + QStringLiteral("/Inbox/a.txt"));
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.close();
    QTRY_VERIFY_WITH_TIMEOUT(QFile::exists(QDir::homePath() + QStringLiteral("/Outbox/a.txt")), 20000);
}

void TestContentState::theEndOfTheStateSavesNothing()
{
    {
        ContentStateFixture bench;
        bench.appearWith({ContentStateFixture::makeFolder(QStringLiteral("A"))});
        bench.state.addRule();
    }
    QVERIFY(!QFile::exists(preferencesPath()));
}

void TestContentState::selectingAnotherFolderSavesWithTheEditsMadeBefore()
{
    ContentStateFixture bench;
    const auto a = ContentStateFixture::makeFolder(QStringLiteral("A"));
    const auto b = ContentStateFixture::makeFolder(QStringLiteral("B"));
    bench.appearWith({a, b}, a.id);
    bench.state.setValue(bench.rule(0).id, QStringLiteral("invoice"));
    QVERIFY(!bench.wasSaved());
    bench.state.select(b.id);
    const auto saved = bench.takeSaved();
    QVERIFY(saved);
    QCOMPARE(saved->selectedFolderID, b.id);
    QCOMPARE(saved->folders.at(0).rules.at(0).value, QStringLiteral("invoice"));
}

void TestContentState::selectingTheSelectedFolderSavesNothing()
{
    ContentStateFixture bench;
    const auto a = ContentStateFixture::makeFolder(QStringLiteral("A"));
    bench.appearWith({a}, a.id);
    bench.state.select(a.id);
    QVERIFY(!bench.wasSaved());
}

void TestContentState::selectingNothingSavesWithoutASelection()
{
    ContentStateFixture bench;
    bench.appearWith({ContentStateFixture::makeFolder(QStringLiteral("A"))});
    bench.state.select(std::nullopt);
    QVERIFY(!bench.state.selectedFolder());
    const QByteArray text = storedText();
    QVERIFY(text.contains("savedWatchedFolders"));
    QVERIFY(!text.contains("selectedWatchedFolderID"));
}

void TestContentState::selectingRestartsNothing()
{
    ContentStateFixture bench;
    const auto a = ContentStateFixture::makeFolder(QStringLiteral("A"));
    const auto b = ContentStateFixture::makeFolder(QStringLiteral("B"));
    bench.appearWith({a, b}, a.id);
    bench.state.select(b.id);
    QCOMPARE(bench.restarts(), 0);
}

void TestContentState::aSelectionThatNamesNoFolderIsLikeNone()
{
    ContentStateFixture bench;
    bench.appearWith({ContentStateFixture::makeFolder(QStringLiteral("A"))});
    const QUuid unknown = QUuid::createUuid();
    bench.state.select(unknown);
    QVERIFY(!bench.state.selectedFolder());
    // It is not repaired either.
    QCOMPARE(bench.state.selectedFolderID(), unknown);
}

void TestContentState::ofTwoFoldersWithOneIdTheFirstIsSelected()
{
    ContentStateFixture bench;
    const auto a = ContentStateFixture::makeFolder(QStringLiteral("A"));
    auto b = ContentStateFixture::makeFolder(QStringLiteral("B"));
    b.id = a.id;
    bench.appearWith({a, b}, a.id);
    QCOMPARE(bench.state.selectedFolder()->url, a.url);
}

void TestContentState::anAddedFolderIsSelectedHasOneDefaultRuleAndIsSaved()
{
    ContentStateFixture bench;
    bench.appearWith({});
    bench.state.addFolder(ContentStateFixture::makeFolder(QStringLiteral("A")).url, QByteArray("bookmark"));

    QCOMPARE(bench.state.folders().size(), 1U);
    const WatchedFolder& folder = bench.folder(0);
    QCOMPARE(folder.url, urlOf("A"));
    QCOMPARE(folder.bookmarkData, QByteArray("bookmark"));
    QVERIFY(!folder.id.isNull());
    QCOMPARE(bench.state.selectedFolderID(), folder.id);
    QCOMPARE(folder.rules.size(), 1U);
    const FilterRule& rule = folder.rules.at(0);
    QCOMPARE(rule.field, RuleField::name);
    QCOMPARE(rule.operatorType, RuleOperator::contains);
    QCOMPARE(rule.value, QString());
    QVERIFY(!rule.destination);
    QVERIFY(!rule.destinationBookmarkData);
    QCOMPARE(rule.kind, RuleKind::image);

    QCOMPARE(bench.restarts(), 1);
    QCOMPARE(bench.engine.activeFDs().size(), 1U);
    const auto saved = bench.takeSaved();
    QVERIFY(saved);
    QCOMPARE(saved->selectedFolderID, folder.id);
    QCOMPARE(saved->folders.size(), 1U);
}

void TestContentState::anAddedFolderComesLast()
{
    ContentStateFixture bench;
    const auto a = ContentStateFixture::makeFolder(QStringLiteral("A"));
    bench.appearWith({a, ContentStateFixture::makeFolder(QStringLiteral("B"))}, a.id);
    bench.state.addFolder(ContentStateFixture::makeFolder(QStringLiteral("C")).url, {});
    QCOMPARE(bench.state.folders().size(), 3U);
    QCOMPARE(bench.folder(2).url, urlOf("C"));
    QCOMPARE(bench.restarts(), 1);
    QCOMPARE(bench.engine.activeFDs().size(), 3U);
}

void TestContentState::theSameFolderAddedTwiceIsTwoEntries()
{
    ContentStateFixture bench;
    bench.appearWith({});
    const auto url = ContentStateFixture::makeFolder(QStringLiteral("A")).url;
    bench.state.addFolder(url, {});
    bench.state.addFolder(url, {});
    QCOMPARE(bench.state.folders().size(), 2U);
    QCOMPARE(bench.folder(0).url, bench.folder(1).url);
    QVERIFY(bench.folder(0).id != bench.folder(1).id);
    QCOMPARE(bench.folder(0).rules.size(), 1U);
    QCOMPARE(bench.folder(1).rules.size(), 1U);
    QVERIFY(bench.folder(0).rules.at(0).id != bench.folder(1).rules.at(0).id);
    QCOMPARE(bench.state.selectedFolderID(), bench.folder(1).id);
}

void TestContentState::aFolderWithoutABookmarkIsAdded()
{
    ContentStateFixture bench;
    bench.appearWith({});
    bench.state.addFolder(ContentStateFixture::makeFolder(QStringLiteral("A")).url, {});
    QVERIFY(!bench.folder(0).bookmarkData);
}

void TestContentState::deletingTheSelectedFolderOfThreeSelectsTheFirst()
{
    ContentStateFixture bench;
    const auto a = ContentStateFixture::makeFolder(QStringLiteral("A"));
    const auto b = ContentStateFixture::makeFolder(QStringLiteral("B"));
    const auto c = ContentStateFixture::makeFolder(QStringLiteral("C"));
    bench.appearWith({a, b, c}, b.id);
    bench.state.deleteFolder(b.id);
    QCOMPARE(bench.state.selectedFolderID(), a.id);
    QCOMPARE(bench.state.folders().size(), 2U);
    QCOMPARE(bench.folder(0).id, a.id);
    QCOMPARE(bench.folder(1).id, c.id);
    QCOMPARE(bench.restarts(), 1);
    QCOMPARE(bench.engine.activeFDs().size(), 2U);
    const auto saved = bench.takeSaved();
    QVERIFY(saved);
    QCOMPARE(saved->selectedFolderID, a.id);
    QCOMPARE(saved->folders.size(), 2U);
}

void TestContentState::deletingTheSelectedFirstFolderSelectsTheNewFirst()
{
    ContentStateFixture bench;
    const auto a = ContentStateFixture::makeFolder(QStringLiteral("A"));
    const auto b = ContentStateFixture::makeFolder(QStringLiteral("B"));
    bench.appearWith({a, b}, a.id);
    bench.state.deleteFolder(a.id);
    QCOMPARE(bench.state.selectedFolderID(), b.id);
    QVERIFY(bench.wasSaved());
}

void TestContentState::deletingAnUnselectedFolderKeepsTheSelectionAndSavesNothing()
{
    ContentStateFixture bench;
    const auto a = ContentStateFixture::makeFolder(QStringLiteral("A"));
    const auto b = ContentStateFixture::makeFolder(QStringLiteral("B"));
    const auto c = ContentStateFixture::makeFolder(QStringLiteral("C"));
    bench.appearWith({a, b, c}, c.id);
    bench.state.deleteFolder(b.id);
    QCOMPARE(bench.state.selectedFolderID(), c.id);
    QCOMPARE(bench.restarts(), 1);
    QVERIFY(!bench.wasSaved());
}

void TestContentState::deletingTheOnlyFolderLeavesNoSelection()
{
    ContentStateFixture bench;
    const auto a = ContentStateFixture::makeFolder(QStringLiteral("A"));
    bench.appearWith({a}, a.id);
    bench.state.deleteFolder(a.id);
    QVERIFY(!bench.state.selectedFolderID());
    QVERIFY(bench.state.folders().empty());
    QCOMPARE(bench.restarts(), 1);
    const QByteArray text = storedText();
    QVERIFY(text.contains("savedWatchedFolders"));
    QVERIFY(!text.contains("selectedWatchedFolderID"));
}

void TestContentState::deletingWithoutASelectionSelectsNothing()
{
    ContentStateFixture bench;
    const auto a = ContentStateFixture::makeFolder(QStringLiteral("A"));
    bench.appearWith({a, ContentStateFixture::makeFolder(QStringLiteral("B"))}, a.id);
    bench.state.select(std::nullopt);
    QVERIFY(bench.wasSaved());
    bench.state.deleteFolder(a.id);
    QVERIFY(!bench.state.selectedFolderID());
    QCOMPARE(bench.restarts(), 1);
    QVERIFY(!bench.wasSaved());
}

void TestContentState::deletingAFolderThatIsGoneDoesNothing()
{
    ContentStateFixture bench;
    const auto a = ContentStateFixture::makeFolder(QStringLiteral("A"));
    bench.appearWith({a}, a.id);
    bench.state.deleteFolder(QUuid::createUuid());
    QCOMPARE(bench.state.folders().size(), 1U);
    QCOMPARE(bench.restarts(), 0);
    QVERIFY(!bench.wasSaved());
}

void TestContentState::aFolderIsDeletedByTheIdInTheListItself()
{
    ContentStateFixture bench;
    const auto b = ContentStateFixture::makeFolder(QStringLiteral("B"), 2);
    bench.appearWith({ContentStateFixture::makeFolder(QStringLiteral("A")), b,
                      ContentStateFixture::makeFolder(QStringLiteral("C"))},
                     b.id);
    bench.state.deleteRule(bench.folder(1).rules.at(0).id);
    QCOMPARE(bench.folder(1).rules, std::vector{b.rules.at(1)});
    bench.state.deleteFolder(bench.folder(1).id);
    QCOMPARE(bench.state.selectedFolderID(), bench.folder(0).id);
    QVERIFY(bench.wasSaved());
}

void TestContentState::ofTwoFoldersWithOneIdTheFirstIsDeletedAndTheSelectionStays()
{
    ContentStateFixture bench;
    const auto a = ContentStateFixture::makeFolder(QStringLiteral("A"));
    auto twin = ContentStateFixture::makeFolder(QStringLiteral("Twin"));
    twin.id = a.id;
    bench.appearWith({a, twin}, a.id);
    const QSignalSpy selections(&bench.state, &ContentState::selectionChanged);
    bench.state.deleteFolder(a.id);
    QCOMPARE(bench.state.folders().size(), 1U);
    QCOMPARE(bench.folder(0).url, twin.url);
    QCOMPARE(bench.state.selectedFolderID(), a.id);
    QCOMPARE(selections.count(), 0);
    QCOMPARE(bench.restarts(), 1);
    QVERIFY(!bench.wasSaved());
}

void TestContentState::ofTwoFoldersWithOneIdBehindAnotherTheFirstIsDeletedAndTheSelectionMoves()
{
    ContentStateFixture bench;
    const auto a = ContentStateFixture::makeFolder(QStringLiteral("A"));
    const auto b = ContentStateFixture::makeFolder(QStringLiteral("B"));
    auto twin = ContentStateFixture::makeFolder(QStringLiteral("Twin"));
    twin.id = b.id;
    bench.appearWith({a, b, twin}, b.id);
    bench.state.deleteFolder(b.id);
    QCOMPARE(bench.state.folders().size(), 2U);
    QCOMPARE(bench.folder(1).url, twin.url);
    QCOMPARE(bench.state.selectedFolderID(), a.id);
    QVERIFY(bench.wasSaved());
}

void TestContentState::whatWasDeletedUnsavedIsMissingFromTheNextSave()
{
    ContentStateFixture bench;
    const auto a = ContentStateFixture::makeFolder(QStringLiteral("A"));
    const auto b = ContentStateFixture::makeFolder(QStringLiteral("B"));
    bench.appearWith({a, b}, a.id);
    bench.state.deleteFolder(b.id);
    QVERIFY(!bench.wasSaved());
    bench.state.disappear();
    QCOMPARE(bench.takeSaved()->folders.size(), 1U);
}

void TestContentState::twoAddedRulesLookAlikeAndHaveDifferentIds()
{
    ContentStateFixture bench;
    bench.appearWith({ContentStateFixture::makeFolder(QStringLiteral("A"), 0)});
    bench.state.addRule();
    bench.state.addRule();
    const auto& rules = bench.folder(0).rules;
    QCOMPARE(rules.size(), 2U);
    QVERIFY(rules.at(0).id != rules.at(1).id);
    for (const FilterRule& rule : rules) {
        FilterRule expected;
        expected.id = rule.id;
        QCOMPARE(rule, expected);
    }
}

void TestContentState::anAddedRuleNeitherRestartsNorSaves()
{
    ContentStateFixture bench;
    bench.appearWith({ContentStateFixture::makeFolder(QStringLiteral("A"))});
    bench.state.addRule();
    QCOMPARE(bench.folder(0).rules.size(), 2U);
    QCOMPARE(bench.restarts(), 0);
    QVERIFY(!bench.wasSaved());
}

void TestContentState::deletingTheSecondOfThreeRulesRemovesExactlyThatOne()
{
    ContentStateFixture bench;
    bench.appearWith({ContentStateFixture::makeFolder(QStringLiteral("A"), 3)});
    const auto before = bench.folder(0).rules;
    bench.state.deleteRule(before.at(1).id);
    QCOMPARE(bench.folder(0).rules, (std::vector{before.at(0), before.at(2)}));
}

void TestContentState::deletingTheOnlyRuleLeavesAFolderWithoutRules()
{
    ContentStateFixture bench;
    bench.appearWith({ContentStateFixture::makeFolder(QStringLiteral("A"))});
    bench.state.deleteRule(bench.rule(0).id);
    QVERIFY(bench.state.selectedFolder());
    QVERIFY(bench.state.selectedFolder()->rules.empty());
}

void TestContentState::deletingARuleRestartsOnceAndDoesNotSave()
{
    ContentStateFixture bench;
    bench.appearWith({ContentStateFixture::makeFolder(QStringLiteral("A"), 2)});
    bench.state.deleteRule(bench.rule(0).id);
    QCOMPARE(bench.restarts(), 1);
    QVERIFY(!bench.wasSaved());
}

void TestContentState::deletingARuleThatIsGoneDoesNothing()
{
    ContentStateFixture bench;
    bench.appearWith({ContentStateFixture::makeFolder(QStringLiteral("A"), 2)});
    bench.state.deleteRule(QUuid::createUuid());
    QCOMPARE(bench.folder(0).rules.size(), 2U);
    QCOMPARE(bench.restarts(), 0);
}

void TestContentState::everyPickerRestartsOnceAndSavesNothing()
{
    ContentStateFixture bench;
    bench.appearWith({ContentStateFixture::makeFolder(QStringLiteral("A"))});
    const QUuid id = bench.rule(0).id;
    bench.state.setField(id, RuleField::fileExtension);
    QCOMPARE(bench.rule(0).field, RuleField::fileExtension);
    QCOMPARE(bench.restarts(), 1);
    bench.state.setOperator(id, RuleOperator::isEqual);
    QCOMPARE(bench.rule(0).operatorType, RuleOperator::isEqual);
    QCOMPARE(bench.restarts(), 1);
    bench.state.setKind(id, RuleKind::audio);
    QCOMPARE(bench.rule(0).kind, RuleKind::audio);
    QCOMPARE(bench.restarts(), 1);
    QVERIFY(!bench.wasSaved());
}

void TestContentState::choosingWhatIsChosenDoesNothing()
{
    ContentStateFixture bench;
    bench.appearWith({ContentStateFixture::makeFolder(QStringLiteral("A"))});
    const QUuid id = bench.rule(0).id;
    bench.state.setField(id, RuleField::name);
    bench.state.setOperator(id, RuleOperator::contains);
    bench.state.setKind(id, RuleKind::image);
    QCOMPARE(bench.restarts(), 0);
}

void TestContentState::choosingKindClearsTheValueAndRestartsOnce()
{
    ContentStateFixture bench;
    bench.appearWith({ContentStateFixture::makeFolder(QStringLiteral("A"))});
    const QUuid id = bench.rule(0).id;
    bench.state.setValue(id, QStringLiteral("invoice"));
    bench.state.setField(id, RuleField::kind);
    QCOMPARE(bench.rule(0).field, RuleField::kind);
    QCOMPARE(bench.rule(0).value, QString());
    QCOMPARE(bench.restarts(), 1);
}

void TestContentState::leavingKindKeepsTheOperatorAndAnEmptyValue()
{
    ContentStateFixture bench;
    bench.appearWith({ContentStateFixture::makeFolder(QStringLiteral("A"))});
    const QUuid id = bench.rule(0).id;
    bench.state.setOperator(id, RuleOperator::isEqual);
    bench.state.setValue(id, QStringLiteral("invoice"));
    bench.state.setField(id, RuleField::kind);
    bench.state.setField(id, RuleField::fileExtension);
    QCOMPARE(bench.rule(0).operatorType, RuleOperator::isEqual);
    QCOMPARE(bench.rule(0).value, QString());
}

void TestContentState::changingBetweenNameAndExtensionKeepsTheValue()
{
    ContentStateFixture bench;
    bench.appearWith({ContentStateFixture::makeFolder(QStringLiteral("A"))});
    const QUuid id = bench.rule(0).id;
    bench.state.setValue(id, QStringLiteral("pdf"));
    bench.state.setField(id, RuleField::fileExtension);
    QCOMPARE(bench.rule(0).value, QStringLiteral("pdf"));
    bench.state.setField(id, RuleField::name);
    QCOMPARE(bench.rule(0).value, QStringLiteral("pdf"));
}

void TestContentState::theKindIsKeptWhileAnotherFieldIsChosen()
{
    ContentStateFixture bench;
    bench.appearWith({ContentStateFixture::makeFolder(QStringLiteral("A"))});
    const QUuid id = bench.rule(0).id;
    bench.state.setField(id, RuleField::kind);
    bench.state.setKind(id, RuleKind::video);
    bench.state.setField(id, RuleField::name);
    QCOMPARE(bench.rule(0).kind, RuleKind::video);
}

void TestContentState::typingReachesTheFoldersAtOnceAndRestartsNothing()
{
    ContentStateFixture bench;
    bench.appearWith({ContentStateFixture::makeFolder(QStringLiteral("A"))});
    const QUuid id = bench.rule(0).id;
    QSignalSpy changes(&bench.state, &ContentState::ruleChanged);
    bench.state.setValue(id, QStringLiteral("i"));
    QCOMPARE(bench.folder(0).rules.at(0).value, QStringLiteral("i"));
    bench.state.setValue(id, QStringLiteral("in"));
    QCOMPARE(bench.folder(0).rules.at(0).value, QStringLiteral("in"));
    QCOMPARE(bench.restarts(), 0);
    QVERIFY(!bench.wasSaved());
    QCOMPARE(changes.count(), 0);
}

void TestContentState::theEngineGetsWhatWasTypedWithTheNextRestart()
{
    ContentStateFixture bench;
    const auto inbox = ContentStateFixture::makeFolder(QStringLiteral("Typing"), 2);
    const auto outbox = ContentStateFixture::makeFolder(QStringLiteral("Typed"));
    bench.appearWith({inbox}, inbox.id);
    const QUuid id = bench.rule(0).id;
    bench.state.setValue(id, QStringLiteral("old"));
    bench.state.setDestination(id, outbox.url, {});
    bench.settle();
    bench.state.setValue(id, QStringLiteral("new"));
    bench.settle();

    const auto drop = [](const char* name) {
        QFile file(QDir::homePath() + QStringLiteral("/Typing/") + QLatin1String(name));
        QVERIFY(file.open(QIODevice::WriteOnly));
    };
    const auto isMoved = [](const char* name) {
        return QFile::exists(QDir::homePath() + QStringLiteral("/Typed/") + QLatin1String(name));
    };
    drop("new-1");
    drop("old-1");
    QTRY_VERIFY_WITH_TIMEOUT(isMoved("old-1"), 20000);
    QVERIFY(!isMoved("new-1"));
    // Any edit of any rule that restarts will do.
    bench.state.setOperator(bench.rule(1).id, RuleOperator::isEqual);
    bench.settle();
    drop("old-2");
    drop("new-2");
    QTRY_VERIFY_WITH_TIMEOUT(isMoved("new-2"), 20000);
    QVERIFY(!isMoved("old-2"));
}

void TestContentState::submittingRestartsEvenWhenNothingChanged()
{
    ContentStateFixture bench;
    bench.appearWith({ContentStateFixture::makeFolder(QStringLiteral("A"))});
    bench.state.submitValue();
    QCOMPARE(bench.restarts(), 1);
    QVERIFY(!bench.wasSaved());
}

void TestContentState::aChosenDestinationRestartsAndDoesNotSave()
{
    ContentStateFixture bench;
    bench.appearWith({ContentStateFixture::makeFolder(QStringLiteral("A"))});
    bench.state.setDestination(bench.rule(0).id, urlOf("B"), QByteArray("bookmark"));
    QCOMPARE(bench.rule(0).destination, urlOf("B"));
    QCOMPARE(bench.rule(0).destinationBookmarkData, QByteArray("bookmark"));
    QCOMPARE(bench.restarts(), 1);
    QVERIFY(!bench.wasSaved());
}

void TestContentState::theSameDestinationRenewsTheBookmarkOnly()
{
    ContentStateFixture bench;
    bench.appearWith({ContentStateFixture::makeFolder(QStringLiteral("A"))});
    const QUuid id = bench.rule(0).id;
    bench.state.setDestination(id, urlOf("B"), QByteArray("old"));
    QCOMPARE(bench.restarts(), 1);
    bench.state.setDestination(id, urlOf("B"), QByteArray("new"));
    QCOMPARE(bench.restarts(), 0);
    QCOMPARE(bench.rule(0).destinationBookmarkData, QByteArray("new"));
}

void TestContentState::theSameDestinationWithoutABookmarkClearsTheBookmarkOnly()
{
    ContentStateFixture bench;
    bench.appearWith({ContentStateFixture::makeFolder(QStringLiteral("A"))});
    const QUuid id = bench.rule(0).id;
    bench.state.setDestination(id, urlOf("B"), QByteArray("bookmark"));
    QCOMPARE(bench.restarts(), 1);
    bench.state.setDestination(id, urlOf("B"), {});
    QCOMPARE(bench.restarts(), 0);
    QCOMPARE(bench.rule(0).destination, urlOf("B"));
    QVERIFY(!bench.rule(0).destinationBookmarkData);
}

void TestContentState::nothingIsMovedFromANewFolderUntilADestinationIsSet()
{
    ContentStateFixture bench;
    // The folder that stands before it shows that the engine runs, and for how long.
    auto other = ContentStateFixture::makeFolder(QStringLiteral("Other"));
    const auto outbox = ContentStateFixture::makeFolder(QStringLiteral("Outbox"));
    other.rules.at(0).destination = outbox.url;
    bench.appearWith({other}, other.id);
    bench.state.addFolder(ContentStateFixture::makeFolder(QStringLiteral("New")).url, {});
    bench.settle();

    const auto pathOf = [](const char* name) {
        return QDir::homePath() + QLatin1Char('/') + QLatin1String(name);
    };
    const auto drop = [&](const char* name) {
        QFile file(pathOf(name));
        QVERIFY(file.open(QIODevice::WriteOnly));
    };
    drop("New/early");
    for (const char* sentinel : {"1", "2"}) {
        drop(qPrintable(QStringLiteral("Other/") + QLatin1String(sentinel)));
        QTRY_VERIFY_WITH_TIMEOUT(QFile::exists(pathOf("Outbox/") + QLatin1String(sentinel)), 20000);
    }
    QVERIFY(QFile::exists(pathOf("New/early")));

    bench.state.setDestination(bench.rule(0).id, outbox.url, {});
    bench.settle();
    drop("New/late");
    QTRY_VERIFY_WITH_TIMEOUT(QFile::exists(pathOf("Outbox/late")), 20000);
    // What was there before stays.
    QVERIFY(QFile::exists(pathOf("New/early")));
}

void TestContentState::aBookmarkThatCouldNotBeMadeClearsTheOldOne()
{
    ContentStateFixture bench;
    bench.appearWith({ContentStateFixture::makeFolder(QStringLiteral("A"))});
    const QUuid id = bench.rule(0).id;
    bench.state.setDestination(id, urlOf("B"), QByteArray("bookmark"));
    bench.state.setDestination(id, urlOf("C"), {});
    QCOMPARE(bench.rule(0).destination, urlOf("C"));
    QVERIFY(!bench.rule(0).destinationBookmarkData);
}

void TestContentState::anEditOfARuleThatIsGoneDoesNothing()
{
    ContentStateFixture bench;
    bench.appearWith({ContentStateFixture::makeFolder(QStringLiteral("A"))});
    const auto before = bench.folder(0).rules;
    const QUuid gone = QUuid::createUuid();
    bench.state.setField(gone, RuleField::kind);
    bench.state.setOperator(gone, RuleOperator::isEqual);
    bench.state.setKind(gone, RuleKind::audio);
    bench.state.setValue(gone, QStringLiteral("x"));
    bench.state.setDestination(gone, urlOf("B"), {});
    QCOMPARE(bench.folder(0).rules, before);
    QCOMPARE(bench.restarts(), 0);
}

void TestContentState::anEditWithoutASelectionDoesNothing()
{
    ContentStateFixture bench;
    bench.appearWith({ContentStateFixture::makeFolder(QStringLiteral("A"))});
    const auto before = bench.folder(0).rules;
    bench.state.select(std::nullopt);
    QVERIFY(bench.wasSaved());
    bench.state.addRule();
    bench.state.deleteRule(before.at(0).id);
    bench.state.setField(before.at(0).id, RuleField::kind);
    QCOMPARE(bench.folder(0).rules, before);
    QCOMPARE(bench.restarts(), 0);
    QVERIFY(!bench.wasSaved());
}

void TestContentState::anEditChangesNoOtherRule()
{
    ContentStateFixture bench;
    const auto a = ContentStateFixture::makeFolder(QStringLiteral("A"), 3);
    bench.appearWith({a, ContentStateFixture::makeFolder(QStringLiteral("B"), 3)}, a.id);
    const auto before = bench.state.folders();
    bench.state.setField(before.at(0).rules.at(1).id, RuleField::kind);
    bench.state.setValue(before.at(0).rules.at(1).id, QStringLiteral("x"));
    QCOMPARE(bench.folder(0).rules.at(0), before.at(0).rules.at(0));
    QCOMPARE(bench.folder(0).rules.at(2), before.at(0).rules.at(2));
    QCOMPARE(bench.folder(1).rules, before.at(1).rules);
}

HARBEX_TEST_MAIN(TestContentState)
#include "tst_ContentState.moc"
