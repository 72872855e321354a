#include "support/FolderDialogUser.h"
#include "support/FuseMount.h"
#include "support/SyscallInterceptor.h"
#include "support/WindowTestMain.h"
#include "ui/FolderDialog.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace harbex;
using namespace harbex::test;

namespace
{

/// Opens the dialog over a window and calls `answer` with it. Returns the chosen folder.
std::optional<ChosenFolder> ask(const std::function<void(QFileDialog&)>& answer,
                                const std::optional<FileUrl>& present = {})
{
    const QWidget window;
    const FolderDialogUser user(answer);
    auto folder = askForFolder(window, present);
    QCoreApplication::processEvents();
    if (user.dialogs() != 1) qFatal("%d dialogs were shown", user.dialogs());
    return folder;
}

/// Creates a folder in the home directory and returns its path.
std::string makeFolder(const char* name)
{
    const std::string path = QDir::homePath().toStdString() + '/' + name;
    if (::mkdir(path.c_str(), 0700) != 0) qFatal("cannot create %s", path.c_str());
    return path;
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
    void theModalDialogTakesOneFolderAndBeginsInTheHomeDirectory()
    {
        const auto folder = ask([](QFileDialog& dialog) {
            const auto close = qScopeGuard([&] { dialog.reject(); });
            auto* button = dialog.findChild<QDialogButtonBox*>()->button(QDialogButtonBox::Open);
            QCOMPARE(button->text().remove(u'&'), "Select Focus Folder");
            QCOMPARE(dialog.fileMode(), QFileDialog::Directory);
            QVERIFY(dialog.testOption(QFileDialog::ShowDirsOnly));
            QVERIFY(dialog.isModal());
            QCOMPARE(dialog.directory().path(), QDir::homePath());
        });
        QVERIFY(!folder);
    }

    void itBeginsInThePresentFolderOrElseInTheLastOne()
    {
        const FileUrl present = FileUrl::fromPath(makeFolder("present"));
        const FileUrl last = FileUrl::fromPath(makeFolder("last"));
        QVERIFY(ask(FolderDialogUser::chooser(last)));
        const FileUrl file = FileUrl::fromPath(last.path() + "/file");
        QVERIFY(QFile(QString::fromStdString(file.path())).open(QIODevice::WriteOnly));

        const auto startFor = [](const std::optional<FileUrl>& folder) {
            std::string start;
            (void)ask(
                [&](QFileDialog& dialog) {
                    start = dialog.directory().path().toStdString();
                    dialog.reject();
                },
                folder);
            return start;
        };
        QCOMPARE(startFor(present), present.path());
        for (const auto& unusable :
             {std::optional<FileUrl>(), std::optional(FileUrl::fromPath(present.path() + "/missing")),
              std::optional(file), FileUrl::fromString("https://example.org/a"),
              std::optional(FileUrl::fromPath(makeFolder("no \xff text")))})
            QCOMPARE(startFor(unusable), last.path());
        // A cancelled dialog chooses nothing.
        QCOMPARE(startFor(std::nullopt), last.path());

        // A server may not answer.
        if (const QString reason = FuseMount::reasonAgainst(); !reason.isEmpty()) QSKIP(qPrintable(reason));
        const std::string remote = makeFolder("remote");
        const FuseMount server(present.path(), remote);
        const FuseMount::Silence silence(server);
        QCOMPARE(startFor(FileUrl::fromPath(remote)), last.path());
        QVERIFY(silence.holds());
    }

    void aFolderWithoutABookmarkIsChosenAnyway()
    {
        const std::string path = makeFolder("Anyway");
        const auto url = FileUrl::fromPath(path);
        const auto chooseIt = [&]() -> Outcome<void> {
            const auto folder = ask(FolderDialogUser::chooser(url));
            if (!folder || folder->url != url) return SystemError{ENOENT};
            if (folder->bookmarkData) return SystemError{EEXIST};
            return {};
        };
        // Only the bookmark opens the folder with O_PATH.
        const auto run = runIntercepted({"openat"}, chooseIt, [&](const InterceptedCall& call) {
            const bool isBookmark = call.text(1) == path && (call.arguments[2] & O_PATH) != 0;
            return isBookmark ? Answer::fail(EMFILE) : Answer::proceed();
        });
        QVERIFY(!run.wasKilled);
        QCOMPARE(run.error, 0);
    }

    void afterTheDialogTheWindowIsActive()
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
        // The window outlives the dialog.
        QTRY_VERIFY(!window.findChild<QFileDialog*>());
    }

    void onlyOneDialogIsOpenAtATime()
    {
        const QWidget window;
        bool isOther = false;
        bool isPressAnswered = false;
        const FolderDialogUser user([&](QFileDialog& dialog) {
            FolderDialogUser::choose(dialog, QDir::homePath());
            if (isPressAnswered || isOther) return;
            isOther = askForFolder(window).has_value();
            // Like a button that is pressed now. It is handled after the dialog has closed.
            const auto press = [&] { isPressAnswered = !askForFolder(window); };
            QMetaObject::invokeMethod(qApp, press, Qt::QueuedConnection);
        });
        QVERIFY(askForFolder(window));
        QVERIFY(!isOther);
        QTRY_VERIFY(isPressAnswered);
        QCOMPARE(user.dialogs(), 1);
        QVERIFY(askForFolder(window));
        QCOMPARE(user.dialogs(), 2);
    }

    void aDestroyedWindowDestroysTheDialog()
    {
        auto window = std::make_unique<QWidget>();
        const auto* asker = new QWidget(window.get());
        const FolderDialogUser user([&](QFileDialog& /*dialog*/) { window.reset(); });
        QVERIFY(!askForFolder(*asker));
        QVERIFY(!QApplication::activeModalWidget());
        QCoreApplication::processEvents();
        // Another dialog can be opened.
        const QWidget another;
        const FolderDialogUser next(FolderDialogUser::cancel);
        QVERIFY(!askForFolder(another));
        QCOMPARE(next.dialogs(), 1);
    }

    void anAnswerNamesAnExistingFolder()
    {
        const std::string path = makeFolder("a%b c");
        const std::string link = QDir::homePath().toStdString() + "/link";
        QVERIFY(::symlink("a%b c", link.c_str()) == 0);
        const auto pathOf = [](const QUrl& answer) {
            const auto folder = folderOfAnswer(answer);
            return folder ? folder->url.path() : std::string();
        };
        QCOMPARE(pathOf(urlOfBytes(path)), path);
        QCOMPARE(pathOf(QUrl::fromLocalFile(QString::fromStdString(path))), path);
        QCOMPARE(pathOf(urlOfBytes(path + '/')), path);
        // A link to a folder is not resolved.
        QCOMPARE(pathOf(urlOfBytes(link)), link);
        QCOMPARE(pathOf(urlOfBytes("/")), std::string("/"));

        QFile file(QDir::homePath() + "/file");
        QVERIFY(file.open(QIODevice::WriteOnly));
        QVERIFY(!folderOfAnswer(QUrl::fromLocalFile(file.fileName())));
        QVERIFY(!folderOfAnswer(urlOfBytes("/nowhere/at/all")));
        QVERIFY(!folderOfAnswer(QUrl("smb://server/share")));
        QVERIFY(!folderOfAnswer(QUrl()));

        const std::string bytes = makeFolder("caf\xe9");
        QCOMPARE(pathOf(urlOfBytes(bytes)), bytes);
        // A dialog that works with text has lost the bytes.
        QCOMPARE(pathOf(QUrl::fromLocalFile(QString::fromUtf8(bytes.c_str()))), std::string());
        // QTemporaryDir cannot remove such a name.
        QVERIFY(::rmdir(bytes.c_str()) == 0);
    }

    void theMainLoopRunsWhileAServerIsSilent()
    {
        if (const QString reason = FuseMount::reasonAgainst(); !reason.isEmpty()) QSKIP(qPrintable(reason));
        const std::string remote = makeFolder("silent");
        const FuseMount server(makeFolder("served"), remote);
        FuseMount::Silence silence(server);
        bool wasSilent = false;
        QTimer::singleShot(0, qApp, [&] {
            wasSilent = silence.holds();
            silence.end();
        });
        const auto folder = folderOfAnswer(urlOfBytes(remote));
        QVERIFY(wasSilent);
        QVERIFY(folder);
        QCOMPARE(folderOf(folder->bookmarkData), FileUrl::fromPath(remote));
    }

    void anEndOfTheMainLoopEndsTheWaitForAServer()
    {
        if (const QString reason = FuseMount::reasonAgainst(); !reason.isEmpty()) QSKIP(qPrintable(reason));
        const std::string remote = makeFolder("silent until the end");
        const FuseMount server(makeFolder("served until the end"), remote);
        const FuseMount::Silence silence(server);
        bool isChosen = true;
        QTimer::singleShot(0, qApp, [&] { isChosen = folderOfAnswer(urlOfBytes(remote)).has_value(); });
        QTimer::singleShot(0, qApp, [] { QCoreApplication::exit(); });
        QCoreApplication::exec();
        QVERIFY(silence.holds());
        QVERIFY(!isChosen);
    }
};

HARBEX_WINDOW_TEST(TestFolderDialog)
#include "tst_FolderDialog.moc"
