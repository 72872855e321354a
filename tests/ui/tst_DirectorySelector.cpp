#include "store/Bookmark.h"
#include "support/FolderDialogUser.h"
#include "support/WindowTestMain.h"
#include "ui/DirectorySelector.h"
#include "ui/Icons.h"

#include <QAccessible>
#include <QDir>
#include <QFile>
#include <QHelpEvent>
#include <QLabel>
#include <QPointer>
#include <QTemporaryDir>
#include <QTextDocument>
#include <QToolButton>
#include <QToolTip>

#include <memory>
#include <vector>

using namespace harbex;
using namespace harbex::test;

namespace
{

QString labelOf(const char* path)
{
    return folderLabel(FileUrl::fromPath(path));
}

QString labelOfUrl(const char* url)
{
    return folderLabel(FileUrl::fromString(QString::fromUtf8(url)).value_or(FileUrl::fromPath("/")));
}

/// A path of `count` characters, each written as `character`, whose last component is "end".
QString pathOf(int count, const QString& character)
{
    return QLatin1Char('/') + character.repeated(count - 5) + QStringLiteral("/end");
}

void hover(QWidget* widget)
{
    QHelpEvent event(QEvent::ToolTip, QPoint(5, 5), widget->mapToGlobal(QPoint(5, 5)));
    QApplication::sendEvent(widget, &event);
}

/// The tooltip as it is read, not as it is written.
QString shownToolTip()
{
    QTextDocument shown;
    if (Qt::mightBeRichText(QToolTip::text()))
        shown.setHtml(QToolTip::text());
    else
        shown.setPlainText(QToolTip::text());
    return shown.toPlainText();
}

} // namespace

class TestDirectorySelector : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init() { qputenv("HOME", "/Users/a"); }

    // How a folder is written.
    void aPathIsWrittenAsAPathUpTo40Characters_data();
    void aPathIsWrittenAsAPathUpTo40Characters();
    void theHomeFolderIsWrittenAsATilde();
    void everyOccurrenceOfTheHomeFolderIsReplaced();
    void aHomeFolderWithATrailingSlashIsReplacedToo();
    void theRootAsHomeFolderReplacesNothing();
    void theLengthIsThatOfTheWholePath();
    void theRootIsWritten();
    void aTrailingSlashIsNotWritten();
    void aLinkIsWrittenByItsOwnPath();
    void percentEncodingIsDecoded();
    void bytesThatAreNoTextAreShownAndCounted();
    void aLineBreakInANameStaysOnTheLine();
    void anotherSchemeIsWrittenByItsLastComponent();

    // What is shown.
    void withoutAFolderThePromptIsShown();
    void theLabelIsNoRichText();
    void aTextWithoutRoomIsShortenedAndToldInFull();
    void theTooltipIsNoRichText();
    void theButtonNamesWhatItDoes();
    void theButtonTakesTheFocusAndTheLabelDoesNot();

    // Choosing.
    void thePressIsOverBeforeTheDialogIsThere();
    void aChosenFolderIsReportedOnceInALaterTurn();
    void cancellingReportsNothing();
    void theSelectorMayGoWhileTheDialogIsUp();
    void itsWindowMayGoWhileTheDialogIsUp();
};

void TestDirectorySelector::aPathIsWrittenAsAPathUpTo40Characters_data()
{
    QTest::addColumn<QString>("character");
    QTest::newRow("letters") << QStringLiteral("x");
    QTest::newRow("letter with a combining mark") << QStringLiteral("e\u0301");
    QTest::newRow("emoji of one code point") << QStringLiteral("\U0001F4C1");
    QTest::newRow("emoji with a colour") << QStringLiteral("\U0001F44D\U0001F3FD");
    QTest::newRow("family joined of four") << QString::fromUtf8("👨‍👩‍👧‍👦");
    QTest::newRow("flag") << QString::fromUtf8("🇪🇺");
    QTest::newRow("Hangul in parts") << QStringLiteral("\u1100\u1161\u11A8");
}

void TestDirectorySelector::aPathIsWrittenAsAPathUpTo40Characters()
{
    QFETCH(QString, character);
    const QString path40 = pathOf(40, character);
    const QString path41 = pathOf(41, character);
    QCOMPARE(labelOf(path40.toUtf8().constData()), path40);
    QCOMPARE(labelOf(path41.toUtf8().constData()), QStringLiteral("end"));
}

void TestDirectorySelector::theHomeFolderIsWrittenAsATilde()
{
    QCOMPARE(labelOf("/Users/a/Pictures"), QStringLiteral("~/Pictures"));
    QCOMPARE(labelOf("/Users/a"), QStringLiteral("~"));
    QCOMPARE(labelOf("/Users/b/Pictures"), QStringLiteral("/Users/b/Pictures"));
}

void TestDirectorySelector::everyOccurrenceOfTheHomeFolderIsReplaced()
{
    QCOMPARE(labelOf("/Users/a/mirror/Users/a/Pictures"), QStringLiteral("~/mirror~/Pictures"));
}

void TestDirectorySelector::aHomeFolderWithATrailingSlashIsReplacedToo()
{
    qputenv("HOME", "/Users/a/");
    QCOMPARE(labelOf("/Users/a/Pictures"), QStringLiteral("~/Pictures"));
}

void TestDirectorySelector::theRootAsHomeFolderReplacesNothing()
{
    qputenv("HOME", "/");
    QCOMPARE(labelOf("/srv/Pictures"), QStringLiteral("/srv/Pictures"));
}

void TestDirectorySelector::theLengthIsThatOfTheWholePath()
{
    // 41 characters, though only 34 would be left of them.
    const char* path = "/Users/a/0123456789/0123456789/0123456789";
    QCOMPARE(qstrlen(path), 41U);
    QCOMPARE(labelOf(path), QStringLiteral("0123456789"));
}

void TestDirectorySelector::theRootIsWritten()
{
    QCOMPARE(labelOf("/"), QStringLiteral("/"));
}

void TestDirectorySelector::aTrailingSlashIsNotWritten()
{
    QCOMPARE(labelOfUrl("file:///srv/Pictures/"), QStringLiteral("/srv/Pictures"));
    QCOMPARE(labelOfUrl("file:///srv/0123456789012345678901234567890123456789/Pictures/"),
             QStringLiteral("Pictures"));
    // 40 characters and a slash.
    const QString path = pathOf(40, QStringLiteral("x"));
    QCOMPARE(labelOfUrl((QStringLiteral("file://") + path + QLatin1Char('/')).toUtf8().constData()), path);
}

void TestDirectorySelector::aLinkIsWrittenByItsOwnPath()
{
    const QTemporaryDir folder;
    QVERIFY(QDir(folder.path()).mkdir(QStringLiteral("target")));
    QVERIFY(QFile::link(folder.filePath(QStringLiteral("target")), folder.filePath(QStringLiteral("link"))));
    const QString label = labelOf(folder.filePath(QStringLiteral("link")).toUtf8().constData());
    QVERIFY2(label.endsWith(QStringLiteral("link")), qPrintable(label));
}

void TestDirectorySelector::percentEncodingIsDecoded()
{
    QCOMPARE(labelOfUrl("file:///srv/My%20%C3%A9tudes"), QStringLiteral("/srv/My \u00e9tudes"));
}

void TestDirectorySelector::bytesThatAreNoTextAreShownAndCounted()
{
    QCOMPARE(labelOf("/srv/caf\xe9"), QStringLiteral("/srv/caf\uFFFD"));
    const std::string path40 = "/" + std::string(35, '\xe9') + "/end";
    QCOMPARE(labelOf(path40.c_str()), QLatin1Char('/') + QString(35, QChar(0xFFFD)) + QStringLiteral("/end"));
    const std::string path41 = "/" + std::string(36, '\xe9') + "/end";
    QCOMPARE(labelOf(path41.c_str()), QStringLiteral("end"));
}

void TestDirectorySelector::aLineBreakInANameStaysOnTheLine()
{
    QCOMPARE(labelOf("/srv/a\nb"), QStringLiteral("/srv/a\\nb"));
}

void TestDirectorySelector::anotherSchemeIsWrittenByItsLastComponent()
{
    QCOMPARE(labelOfUrl("smb://server/share/Pictures"), QStringLiteral("Pictures"));
}

void TestDirectorySelector::withoutAFolderThePromptIsShown()
{
    DirectorySelector selector;
    QCOMPARE(selector.text(), QStringLiteral("Select destination..."));
    selector.showUrl(FileUrl::fromPath("/srv/Pictures"));
    QCOMPARE(selector.text(), QStringLiteral("/srv/Pictures"));
    selector.showUrl(std::nullopt);
    QCOMPARE(selector.text(), QStringLiteral("Select destination..."));
}

void TestDirectorySelector::theLabelIsNoRichText()
{
    DirectorySelector selector;
    selector.showUrl(FileUrl::fromPath("/srv/<b>bold"));
    QCOMPARE(selector.text(), QStringLiteral("/srv/<b>bold"));
    QCOMPARE(selector.findChild<QLabel*>()->textFormat(), Qt::PlainText);
}

void TestDirectorySelector::aTextWithoutRoomIsShortenedAndToldInFull()
{
    DirectorySelector selector;
    selector.showUrl(FileUrl::fromPath("/srv/0123456789/0123456789/0123456789"));
    selector.resize(120, selector.sizeHint().height());
    selector.show();
    QVERIFY(QTest::qWaitForWindowExposed(&selector));
    auto* label = selector.findChild<QLabel*>();
    QVERIFY(label->width() < label->sizeHint().width());
    QVERIFY(label->geometry().right() < selector.findChild<QToolButton*>()->geometry().left());
    QCOMPARE(selector.text(), QStringLiteral("/srv/0123456789/0123456789/0123456789"));
    QAccessibleInterface* spoken = QAccessible::queryAccessibleInterface(label);
    QCOMPARE(spoken->text(QAccessible::Name), selector.text());

    hover(label);
    QCOMPARE(shownToolTip(), selector.text());
    // Where all of it can be read, nothing repeats it.
    selector.resize(600, selector.height());
    QToolTip::hideText();
    hover(label);
    QCOMPARE(label->toolTip(), QString());
    QTRY_VERIFY(!QToolTip::isVisible());
}

void TestDirectorySelector::theTooltipIsNoRichText()
{
    for (const char* path : {"/srv/<b>bold</b> & more", "/srv/a&amp;b & <c>"}) {
        DirectorySelector selector;
        selector.showUrl(FileUrl::fromPath(path));
        selector.resize(80, selector.sizeHint().height());
        selector.show();
        QVERIFY(QTest::qWaitForWindowExposed(&selector));
        hover(selector.findChild<QLabel*>());
        QCOMPARE(shownToolTip(), QString::fromUtf8(path));
    }
}

void TestDirectorySelector::theButtonNamesWhatItDoes()
{
    DirectorySelector selector;
    selector.showUrl(FileUrl::fromPath("/srv/Pictures"));
    QAccessibleInterface* spoken = QAccessible::queryAccessibleInterface(selector.button());
    QCOMPARE(spoken->role(), QAccessible::Button);
    QCOMPARE(spoken->text(QAccessible::Name), QStringLiteral("Select destination..."));
    QCOMPARE(spoken->text(QAccessible::Description), QStringLiteral("/srv/Pictures"));
}

void TestDirectorySelector::theButtonTakesTheFocusAndTheLabelDoesNot()
{
    DirectorySelector selector;
    QCOMPARE(selector.button()->focusPolicy(), Qt::StrongFocus);
    QCOMPARE(selector.findChild<QLabel*>()->focusPolicy(), Qt::NoFocus);
    QCOMPARE(selector.findChild<QToolButton*>()->icon().pixmap(16).toImage(),
             symbolIcon(Symbol::folder).pixmap(16).toImage());
}

void TestDirectorySelector::thePressIsOverBeforeTheDialogIsThere()
{
    DirectorySelector selector;
    const FolderDialogUser user(FolderDialogUser::cancel);
    selector.findChild<QToolButton*>()->click();
    QCOMPARE(user.dialogs(), 0);
    QTRY_COMPARE(user.dialogs(), 1);
}

void TestDirectorySelector::aChosenFolderIsReportedOnceInALaterTurn()
{
    const QTemporaryDir folder;
    const auto url = FileUrl::fromPath(folder.path().toStdString());
    DirectorySelector selector;
    const FolderDialogUser user(FolderDialogUser::chooser(url));
    std::vector<ChosenFolder> reports;
    connect(&selector, &DirectorySelector::chosen, this, [&](const ChosenFolder& chosen) {
        QVERIFY(!QApplication::activeModalWidget());
        reports.push_back(chosen);
    });
    selector.findChild<QToolButton*>()->click();
    QTRY_COMPARE(reports.size(), 1U);
    QCoreApplication::processEvents();
    QCOMPARE(reports.size(), 1U);
    QCOMPARE(user.dialogs(), 1);
    QCOMPARE(reports.front().url, url);
    QVERIFY(reports.front().bookmarkData);
    QCOMPARE(resolveBookmark(*reports.front().bookmarkData, MountTable()), url);
}

void TestDirectorySelector::cancellingReportsNothing()
{
    DirectorySelector selector;
    const FolderDialogUser user(FolderDialogUser::cancel);
    int reports = 0;
    connect(&selector, &DirectorySelector::chosen, this, [&] { ++reports; });
    selector.showUrl(FileUrl::fromPath("/srv/Pictures"));
    selector.findChild<QToolButton*>()->click();
    QTRY_COMPARE(user.dialogs(), 1);
    QCoreApplication::processEvents();
    QCOMPARE(reports, 0);
    QCOMPARE(selector.text(), QStringLiteral("/srv/Pictures"));
}

void TestDirectorySelector::theSelectorMayGoWhileTheDialogIsUp()
{
    const QTemporaryDir folder;
    QWidget window;
    QPointer selector = new DirectorySelector(&window);
    int reports = 0;
    connect(selector, &DirectorySelector::chosen, this, [&] { ++reports; });
    const FolderDialogUser user([&](QFileDialog& dialog) {
        delete selector;
        FolderDialogUser::choose(dialog, folder.path());
    });
    selector->findChild<QToolButton*>()->click();
    QTRY_VERIFY(!selector);
    QCoreApplication::processEvents();
    QCOMPARE(user.dialogs(), 1);
    QCOMPARE(reports, 0);
}

void TestDirectorySelector::itsWindowMayGoWhileTheDialogIsUp()
{
    auto window = std::make_unique<QWidget>();
    auto* selector = new DirectorySelector(window.get());
    const FolderDialogUser user([&](QFileDialog& /*dialog*/) { window.reset(); });
    selector->findChild<QToolButton*>()->click();
    QTRY_VERIFY(!window);
    QVERIFY(!QApplication::activeModalWidget());
}

HARBEX_WINDOW_TEST_MAIN(TestDirectorySelector)
#include "tst_DirectorySelector.moc"
