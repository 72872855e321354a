#include "store/Bookmark.h"
#include "support/FolderDialogUser.h"
#include "support/WindowTestMain.h"
#include "ui/FolderDialog.h"

#include <QDialogButtonBox>
#include <QDir>
#include <QFile>
#include <QFileDialog>
#include <QPushButton>
#include <QUrl>

#include <fcntl.h>
#include <memory>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace harbex;
using namespace harbex::test;

namespace
{

/// Asks for a folder over a window and has `answer` called with the dialog.
std::optional<ChosenFolder> ask(const std::function<void(QFileDialog&)>& answer)
{
    const QWidget window;
    const FolderDialogUser user(answer);
    auto folder = askForFolder(window);
    QCoreApplication::processEvents();
    if (user.dialogs() != 1) qFatal("%d dialogs came up", user.dialogs());
    return folder;
}

QUrl urlOfBytes(const std::string& path)
{
    return QUrl::fromEncoded("file://" + QByteArray::fromStdString(path).toPercentEncoding("/"));
}

} // namespace

class TestFolderDialog : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void theDialogTakesOneFolderModallyUnderTheStatedText();
    void theChosenFolderIsReportedWithItsBookmark();
    void aFolderWhoseBookmarkCannotBeMadeIsChosenAnyway();
    void cancellingReportsNothing();
    void closingTheDialogReportsNothing();
    void theWindowHasTheKeyboardAgainAfterwards();
    void whileADialogIsUpThereIsNoOther();
    void aWindowThatGoesTakesTheDialogWithIt();

    void anAnswerIsTheFolderItNames();
    void anAnswerThatNamesNoFolderIsNone();
    void bytesThatAreNoTextAreKept();
    void textInPlaceOfSuchBytesIsNoAnswer();
};

void TestFolderDialog::theDialogTakesOneFolderModallyUnderTheStatedText()
{
    const auto folder = ask([](QFileDialog& dialog) {
        QCOMPARE(dialog.labelText(QFileDialog::Accept), QStringLiteral("Select Focus Folder"));
        auto* button = dialog.findChild<QDialogButtonBox*>()->button(QDialogButtonBox::Open);
        QCOMPARE(button->text().remove(QLatin1Char('&')), QStringLiteral("Select Focus Folder"));
        QCOMPARE(dialog.fileMode(), QFileDialog::Directory);
        QCOMPARE(dialog.acceptMode(), QFileDialog::AcceptOpen);
        QVERIFY(dialog.testOption(QFileDialog::ShowDirsOnly));
        QVERIFY(dialog.isModal());
        QCOMPARE(dialog.directory().path(), QDir::homePath());
        dialog.reject();
    });
    QVERIFY(!folder);
}

void TestFolderDialog::theChosenFolderIsReportedWithItsBookmark()
{
    const QString path = QDir::homePath() + QStringLiteral("/My Scans");
    QVERIFY(QDir().mkpath(path));
    const auto folder = ask([&](QFileDialog& dialog) { FolderDialogUser::choose(dialog, path); });
    QVERIFY(folder);
    QCOMPARE(folder->url, FileUrl::fromPath(path.toStdString()));
    QVERIFY(folder->bookmarkData);
    QCOMPARE(resolveBookmark(*folder->bookmarkData, MountTable()), folder->url);
}

void TestFolderDialog::aFolderWhoseBookmarkCannotBeMadeIsChosenAnyway()
{
    const QString path = QDir::homePath() + QStringLiteral("/Anyway");
    QVERIFY(QDir().mkpath(path));
    rlimit former = {};
    QVERIFY(::getrlimit(RLIMIT_NOFILE, &former) == 0);
    const auto folder = ask([&](QFileDialog& dialog) {
        FolderDialogUser::choose(dialog, path);
        // From here on nothing more can be opened.
        const int free = ::open("/", O_PATH | O_CLOEXEC);
        ::close(free);
        const rlimit none{static_cast<rlim_t>(free), former.rlim_max};
        QVERIFY(::setrlimit(RLIMIT_NOFILE, &none) == 0);
    });
    QVERIFY(::setrlimit(RLIMIT_NOFILE, &former) == 0);
    QVERIFY(folder);
    QCOMPARE(folder->url, FileUrl::fromPath(path.toStdString()));
    QVERIFY(!folder->bookmarkData);
}

void TestFolderDialog::cancellingReportsNothing()
{
    const auto folder = ask(FolderDialogUser::cancel);
    QVERIFY(!folder);
}

void TestFolderDialog::closingTheDialogReportsNothing()
{
    const auto folder = ask([](QFileDialog& dialog) { dialog.close(); });
    QVERIFY(!folder);
}

void TestFolderDialog::theWindowHasTheKeyboardAgainAfterwards()
{
    QWidget window;
    QWidget other;
    window.show();
    other.show();
    const FolderDialogUser user([&](QFileDialog& dialog) {
        FolderDialogUser::cancel(dialog);
        other.activateWindow();
    });
    QVERIFY(!askForFolder(window));
    QVERIFY(other.isActiveWindow());
    QTRY_VERIFY(window.isActiveWindow());
}

void TestFolderDialog::whileADialogIsUpThereIsNoOther()
{
    const QWidget window;
    bool isOther = false;
    bool isPressAnswered = false;
    const FolderDialogUser user([&](QFileDialog& dialog) {
        FolderDialogUser::choose(dialog, QDir::homePath());
        if (isPressAnswered || isOther) return;
        isOther = askForFolder(window).has_value();
        // As a button that is pressed now: its turn comes when the dialog is gone.
        const auto press = [&] { isPressAnswered = !askForFolder(window); };
        QMetaObject::invokeMethod(&dialog, press, Qt::QueuedConnection);
    });
    QVERIFY(askForFolder(window));
    QVERIFY(!isOther);
    QTRY_VERIFY(isPressAnswered);
    QCOMPARE(user.dialogs(), 1);
    QVERIFY(askForFolder(window));
    QCOMPARE(user.dialogs(), 2);
}

void TestFolderDialog::aWindowThatGoesTakesTheDialogWithIt()
{
    auto window = std::make_unique<QWidget>();
    const auto* asker = new QWidget(window.get());
    const FolderDialogUser user([&](QFileDialog& /*dialog*/) { window.reset(); });
    QVERIFY(!askForFolder(*asker));
    QVERIFY(!QApplication::activeModalWidget());
    QCoreApplication::processEvents();
    // Nothing is left that would count as up.
    const QWidget another;
    const FolderDialogUser next(FolderDialogUser::cancel);
    QVERIFY(!askForFolder(another));
    QCOMPARE(next.dialogs(), 1);
}

void TestFolderDialog::anAnswerIsTheFolderItNames()
{
    const std::string home = QDir::homePath().toStdString();
    QVERIFY(::mkdir((home + "/a%b c").c_str(), 0700) == 0);
    QVERIFY(::symlink("a%b c", (home + "/link").c_str()) == 0);
    QCOMPARE(folderOfAnswer(urlOfBytes(home + "/a%b c")), FileUrl::fromPath(home + "/a%b c"));
    QCOMPARE(folderOfAnswer(QUrl::fromLocalFile(QDir::homePath() + QStringLiteral("/a%b c"))),
             FileUrl::fromPath(home + "/a%b c"));
    QCOMPARE(folderOfAnswer(urlOfBytes(home + "/a%b c/")), FileUrl::fromPath(home + "/a%b c"));
    // A link to a folder is a folder, and stays a link.
    QCOMPARE(folderOfAnswer(urlOfBytes(home + "/link")), FileUrl::fromPath(home + "/link"));
    QCOMPARE(folderOfAnswer(urlOfBytes("/")), FileUrl::fromPath("/"));
}

void TestFolderDialog::anAnswerThatNamesNoFolderIsNone()
{
    QFile file(QDir::homePath() + QStringLiteral("/file"));
    QVERIFY(file.open(QIODevice::WriteOnly));
    QVERIFY(!folderOfAnswer(QUrl::fromLocalFile(file.fileName())));
    QVERIFY(!folderOfAnswer(urlOfBytes("/nowhere/at/all")));
    QVERIFY(!folderOfAnswer(QUrl(QStringLiteral("smb://server/share"))));
    QVERIFY(!folderOfAnswer(QUrl()));
}

void TestFolderDialog::bytesThatAreNoTextAreKept()
{
    const std::string path = QDir::homePath().toStdString() + "/caf\xe9";
    QVERIFY(::mkdir(path.c_str(), 0700) == 0);
    const auto url = folderOfAnswer(urlOfBytes(path));
    QVERIFY(url);
    QCOMPARE(url->path(), path);
}

void TestFolderDialog::textInPlaceOfSuchBytesIsNoAnswer()
{
    const std::string path = QDir::homePath().toStdString() + "/th\xe9";
    QVERIFY(::mkdir(path.c_str(), 0700) == 0);
    // As a dialog answers that works with text.
    QVERIFY(!folderOfAnswer(QUrl::fromLocalFile(QString::fromUtf8(path.c_str()))));
}

HARBEX_WINDOW_TEST_MAIN(TestFolderDialog)
#include "tst_FolderDialog.moc"
