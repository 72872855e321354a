#include "support/FolderDialogUser.h"
#include "support/Widgets.h"
#include "support/WindowTestMain.h"
#include "ui/DimmedInk.h"
#include "ui/DirectorySelector.h"
#include "ui/Icons.h"
#include "ui/PathText.h"

using namespace harbex;
using namespace harbex::test;

namespace
{

/// Returns a path of `count` characters, whose last component is "end". The others are `character`.
QByteArray pathOf(int count, const QByteArray& character)
{
    return '/' + character.repeated(count - 5) + "/end";
}

/// A selector on screen that shows a folder.
struct SelectorFixture {
    SelectorFixture(const char* path, int width)
    {
        selector.showUrl(FileUrl::fromPath(path));
        selector.resize(width, selector.sizeHint().height());
        selector.show();
        QVERIFY(QTest::qWaitForWindowExposed(&selector));
    }

    [[nodiscard]] QLabel* label() const { return selector.findChild<QLabel*>(); }

    DirectorySelector selector;
};

/// Returns the tooltip as the user sees it, without markup.
QString shownToolTip()
{
    QTextDocument shown;
    if (Qt::mightBeRichText(QToolTip::text()))
        shown.setHtml(QToolTip::text());
    else
        shown.setPlainText(QToolTip::text());
    return shown.toPlainText();
}

void press(const DirectorySelector& selector)
{
    selector.findChild<QToolButton*>()->click();
}

} // namespace

class TestDirectorySelector : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init() { qputenv("HOME", "/Users/a"); }

    // The label of a folder.
    void aPathIsShownUpTo40Characters()
    {
        const QByteArray characters[] = {
            "x",
            "e\u0301",                   // with a combining mark
            "\U0001F4C1",                // of one code point
            "\U0001F44D\U0001F3FD",      // with a colour
            "👨‍👩‍👧‍👦", // joined of four
            "🇪🇺",
            "\u1100\u1161\u11A8", // Hangul in parts
            "\xe9",               // not UTF-8
        };
        for (const QByteArray& character : characters) {
            const QByteArray path40 = pathOf(40, character);
            const QByteArray path41 = pathOf(41, character);
            QCOMPARE(folderLabel(FileUrl::fromPath(path40.toStdString())), path40);
            QCOMPARE(folderLabel(FileUrl::fromPath(path41.toStdString())), "end");
        }
    }

    void theDestinationIsABoxBesideAButtonOfItsHeight()
    {
        SelectorFixture fixture("/Users/a/Pictures", 400);
        fixture.selector.resize(400, 60);
        QTRY_COMPARE(fixture.selector.findChild<QToolButton*>()->height(), 60);
        const QImage image = fixture.label()->grab().toImage();
        // The box has round corners.
        QVERIFY(image.pixelColor(image.width() - 20, image.height() / 2) != image.pixelColor(0, 0));
    }

    void theLabelOfAFolder()
    {
        const QByteArray path40 = pathOf(40, "x");
        const QByteArray path41 = pathOf(41, "x");
        struct Row {
            QByteArray url;
            QByteArray label;
            QByteArray home = "/Users/a";
        };
        const Row rows[] = {
            {"file:///Users/a/Pictures", "~/Pictures"},
            {"file:///Users/a", "~"},
            {"file:///Users/b/Pictures", "/Users/b/Pictures"},
            {"file:///Users/a/mirror/Users/a/Pictures", "~/mirror~/Pictures"},
            {"file:///Users/a/Pictures", "~/Pictures", "/Users/a/"},
            {"file:///srv/Pictures", "/srv/Pictures", "/"},
            // 41 characters, 34 with a tilde.
            {"file:///Users/a/0123456789/0123456789/0123456789", "0123456789"},
            {"file:///", "/"},
            {"file:///srv/Pictures/", "/srv/Pictures"},
            {"file://" + path40 + '/', path40},
            {"file://" + path41 + '/', "end"},
            {"file:///srv/My%20%C3%A9tudes", "/srv/My \u00e9tudes"},
            {"file:///srv/caf%E9", "/srv/caf\uFFFD"},
            {"file:///srv/a%0Ab", "/srv/a\\nb"},
            {"file:///proc/self", "/proc/self"}, // a link
            {"smb://server/share/Pictures", "Pictures"},
        };
        for (const Row& row : rows) {
            qputenv("HOME", row.home);
            const QString label = folderLabel(*FileUrl::fromString(row.url));
            QVERIFY2(label == row.label, row.url + ": " + label.toUtf8());
        }
    }

    // What is shown.
    void aLabelIsElidedAndHasTheWholePathAsItsTooltip()
    {
        // The first path is elided, the second one is too long for the label, the others look like markup.
        for (const QByteArray& path :
             {pathOf(40, "x"), pathOf(60, "x"), QByteArray("/srv/<b>bold</b> & more"),
              QByteArray("/srv/a&amp;b & <c>")}) {
            SelectorFixture fixture(path.constData(), 120);
            QLabel* label = fixture.label();
            QCOMPARE(label->textFormat(), Qt::PlainText);
            QCOMPARE(label->text(), folderLabel(FileUrl::fromPath(path.toStdString())));
            QVERIFY(label->geometry().right() < fixture.selector.button()->geometry().left());
            QCOMPARE(accessibleName(label), fixture.selector.text());
            QHelpEvent hover(QEvent::ToolTip, QPoint(5, 5), label->mapToGlobal(QPoint(5, 5)));
            QApplication::sendEvent(label, &hover);
            QCOMPARE(shownToolTip(), path);
            fixture.selector.showUrl(std::nullopt);
            QCOMPARE(label->toolTip(), QString());
        }
    }

    void thePromptIsDimmed()
    {
        QPalette palette(QColor(0x1b1e20));
        SelectorFixture fixture("/srv/Pictures", 400);
        fixture.selector.setPalette(palette);
        const auto brightest = [&] {
            const auto brightness = [](const Pixel& pixel) { return qGray(pixel.color.rgb()); };
            return brightness(std::ranges::max(pixelsOf(fixture.label()->grab().toImage()), {}, brightness));
        };
        const int path = brightest();
        QCOMPARE(fixture.selector.text(), "/srv/Pictures");
        fixture.selector.showUrl(std::nullopt);
        QCOMPARE(fixture.selector.text(), "Select destination...");
        const QColor dimmed = dimmedInk(palette, QPalette::WindowText, QPalette::Window);
        QVERIFY(brightest() <= qGray(dimmed.rgb()));
        QVERIFY(path > qGray(dimmed.rgb()));
    }

    void aPathReadsFromLeftToRightInAMirroredLayout()
    {
        // In text that reads from right to left the letters would come first, at the left end.
        SelectorFixture fixture("/. . . . . . . MMMM", 400);
        const auto restore = qScopeGuard([] { QGuiApplication::setLayoutDirection(Qt::LeftToRight); });
        for (const auto direction : {Qt::LeftToRight, Qt::RightToLeft}) {
            QGuiApplication::setLayoutDirection(direction);
            const QImage image = fixture.label()->grab().toImage();
            const QColor ground = image.pixelColor(image.rect().center());
            std::vector<int> ink;
            for (const Pixel& pixel : pixelsOf(image.copy(image.rect().adjusted(6, 6, -6, -6))))
                if (pixel.color != ground) ink.push_back(pixel.place.x());
            QCOMPARE(ink.front() > 194, direction == Qt::RightToLeft);
            // Most of the ink is that of the letters.
            QVERIFY(ink.at(ink.size() / 2) > (ink.front() + ink.back()) / 2);
        }
    }

    void theButtonHasANameAndTheFocus()
    {
        DirectorySelector selector;
        selector.showUrl(FileUrl::fromPath("/srv/Pictures"));
        QCOMPARE(accessible(selector.button()).role(), QAccessible::Button);
        QCOMPARE(accessibleName(selector.button()), "Select destination...");
        QCOMPARE(accessible(selector.button()).text(QAccessible::Description), "/srv/Pictures");
        QCOMPARE(selector.button()->focusPolicy(), Qt::StrongFocus);
        QCOMPARE(selector.findChild<QToolButton*>()->icon().pixmap(16).toImage(),
                 symbolIcon(Symbol::folder).pixmap(16).toImage());
    }

    // Choosing.
    void theDialogBeginsInThePresentFolderAndTheChosenOneIsReportedOnce()
    {
        const QTemporaryDir present;
        const QTemporaryDir folder;
        const auto url = FileUrl::fromPath(folder.path().toStdString());
        DirectorySelector selector;
        selector.showUrl(FileUrl::fromPath(present.path().toStdString()));
        const FolderDialogUser user([&](QFileDialog& dialog) {
            QCOMPARE(dialog.directory().path(), present.path());
            FolderDialogUser::choose(dialog, folder.path());
        });
        std::vector<ChosenFolder> reports;
        connect(&selector, &DirectorySelector::chosen, this, [&](const ChosenFolder& chosen) {
            QVERIFY(!QApplication::activeModalWidget());
            reports.push_back(chosen);
        });
        press(selector);
        QTRY_COMPARE(reports.size(), 1U);
        QCoreApplication::processEvents();
        QCOMPARE(reports.size(), 1U);
        QCOMPARE(user.dialogs(), 1);
        QCOMPARE(reports.front().url, url);
        QCOMPARE(folderOf(reports.front().bookmarkData), url);
    }

    void aCancelledDialogReportsNothing()
    {
        DirectorySelector selector;
        const FolderDialogUser user(FolderDialogUser::cancel);
        const QSignalSpy reports(&selector, &DirectorySelector::chosen);
        selector.showUrl(FileUrl::fromPath("/srv/Pictures"));
        press(selector);
        // The click returns before the dialog opens.
        QCOMPARE(user.dialogs(), 0);
        QTRY_COMPARE(user.dialogs(), 1);
        QCoreApplication::processEvents();
        QCOMPARE(reports.count(), 0);
        QCOMPARE(selector.text(), "/srv/Pictures");
    }

    void theSelectorMayBeDestroyedWhileTheDialogIsOpen()
    {
        const QTemporaryDir folder;
        QWidget window;
        QPointer selector = new DirectorySelector(&window);
        const QSignalSpy reports(selector.data(), &DirectorySelector::chosen);
        const FolderDialogUser user([&](QFileDialog& dialog) {
            delete selector;
            FolderDialogUser::choose(dialog, folder.path());
        });
        press(*selector);
        QTRY_VERIFY(!selector);
        QCoreApplication::processEvents();
        QCOMPARE(user.dialogs(), 1);
        QCOMPARE(reports.count(), 0);
    }
};

HARBEX_WINDOW_TEST(TestDirectorySelector)
#include "tst_DirectorySelector.moc"
