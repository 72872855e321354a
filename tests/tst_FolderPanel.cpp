#include "store/Bookmark.h"
#include "support/WindowTestMain.h"
#include "ui/FolderPanel.h"

#include <QDialogButtonBox>
#include <QDir>
#include <QFile>
#include <QFileDialog>
#include <QLineEdit>
#include <QPushButton>
#include <QTimer>
#include <QUrl>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace harbex;

namespace
{

struct Completion {
    int calls = 0;
    std::optional<FileUrl> url;
    std::optional<QByteArray> bookmarkData;
};

/// Shows the panel and has `answer` called with it once it is on screen.
Completion ask(const std::function<void(QFileDialog&)>& answer)
{
    bool isAnswered = false;
    QTimer timer;
    QObject::connect(&timer, &QTimer::timeout, &timer, [&] {
        auto* panel = qobject_cast<QFileDialog*>(QApplication::activeModalWidget());
        if (!panel || isAnswered) return;
        isAnswered = true;
        answer(*panel);
    });
    timer.start(1);

    Completion completion;
    selectDirectory(nullptr, [&](const auto& url, const auto& bookmarkData) {
        ++completion.calls;
        completion.url = url;
        completion.bookmarkData = bookmarkData;
    });
    return completion;
}

void choose(QFileDialog& panel, const QString& path)
{
    panel.findChild<QLineEdit*>(QStringLiteral("fileNameEdit"))->setText(path);
    panel.findChild<QDialogButtonBox*>()->button(QDialogButtonBox::Open)->click();
}

QUrl urlOfBytes(const std::string& path)
{
    return QUrl::fromEncoded("file://" + QByteArray::fromStdString(path).toPercentEncoding("/"));
}

} // namespace

class TestFolderPanel : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void thePanelTakesOneFolderModallyUnderTheStatedText();
    void theChosenFolderIsReportedWithItsBookmark();
    void aFolderWhoseBookmarkCannotBeMadeIsChosenAnyway();
    void cancellingReportsNothing();
    void closingThePanelReportsNothing();

    void anAnswerIsTheFolderItNames();
    void anAnswerThatNamesNoFolderIsNone();
    void bytesThatAreNoTextAreKept();
    void textInPlaceOfSuchBytesIsNoAnswer();
};

void TestFolderPanel::thePanelTakesOneFolderModallyUnderTheStatedText()
{
    const auto completion = ask([](QFileDialog& panel) {
        QCOMPARE(panel.labelText(QFileDialog::Accept), QStringLiteral("Select Focus Folder"));
        auto* button = panel.findChild<QDialogButtonBox*>()->button(QDialogButtonBox::Open);
        QCOMPARE(button->text().remove(QLatin1Char('&')), QStringLiteral("Select Focus Folder"));
        QCOMPARE(panel.fileMode(), QFileDialog::Directory);
        QCOMPARE(panel.acceptMode(), QFileDialog::AcceptOpen);
        QVERIFY(panel.testOption(QFileDialog::ShowDirsOnly));
        QVERIFY(panel.isModal());
        QCOMPARE(panel.directory().path(), QDir::homePath());
        panel.reject();
    });
    QCOMPARE(completion.calls, 1);
}

void TestFolderPanel::theChosenFolderIsReportedWithItsBookmark()
{
    const QString path = QDir::homePath() + QStringLiteral("/My Scans");
    QVERIFY(QDir().mkpath(path));
    const auto completion = ask([&](QFileDialog& panel) { choose(panel, path); });
    QCOMPARE(completion.calls, 1);
    QCOMPARE(completion.url, FileUrl::fromPath(path.toStdString()));
    QVERIFY(completion.bookmarkData);
    QCOMPARE(resolveBookmark(*completion.bookmarkData, MountTable()), completion.url);
}

void TestFolderPanel::aFolderWhoseBookmarkCannotBeMadeIsChosenAnyway()
{
    const QString path = QDir::homePath() + QStringLiteral("/Anyway");
    QVERIFY(QDir().mkpath(path));
    rlimit former = {};
    QVERIFY(::getrlimit(RLIMIT_NOFILE, &former) == 0);
    const auto completion = ask([&](QFileDialog& panel) {
        choose(panel, path);
        // From here on nothing more can be opened.
        const int free = ::open("/", O_PATH | O_CLOEXEC);
        ::close(free);
        const rlimit none{static_cast<rlim_t>(free), former.rlim_max};
        QVERIFY(::setrlimit(RLIMIT_NOFILE, &none) == 0);
    });
    QVERIFY(::setrlimit(RLIMIT_NOFILE, &former) == 0);
    QCOMPARE(completion.calls, 1);
    QCOMPARE(completion.url, FileUrl::fromPath(path.toStdString()));
    QVERIFY(!completion.bookmarkData);
}

void TestFolderPanel::cancellingReportsNothing()
{
    const auto completion = ask([](QFileDialog& panel) {
        panel.findChild<QDialogButtonBox*>()->button(QDialogButtonBox::Cancel)->click();
    });
    QCOMPARE(completion.calls, 1);
    QVERIFY(!completion.url);
    QVERIFY(!completion.bookmarkData);
}

void TestFolderPanel::closingThePanelReportsNothing()
{
    const auto completion = ask([](QFileDialog& panel) { panel.close(); });
    QCOMPARE(completion.calls, 1);
    QVERIFY(!completion.url);
}

void TestFolderPanel::anAnswerIsTheFolderItNames()
{
    const std::string home = QDir::homePath().toStdString();
    QVERIFY(::mkdir((home + "/a%b c").c_str(), 0700) == 0);
    QVERIFY(::symlink("a%b c", (home + "/link").c_str()) == 0);
    QCOMPARE(chosenFolder(urlOfBytes(home + "/a%b c")), FileUrl::fromPath(home + "/a%b c"));
    QCOMPARE(chosenFolder(QUrl::fromLocalFile(QDir::homePath() + QStringLiteral("/a%b c"))),
             FileUrl::fromPath(home + "/a%b c"));
    QCOMPARE(chosenFolder(urlOfBytes(home + "/a%b c/")), FileUrl::fromPath(home + "/a%b c"));
    // A link to a folder is a folder, and stays a link.
    QCOMPARE(chosenFolder(urlOfBytes(home + "/link")), FileUrl::fromPath(home + "/link"));
    QCOMPARE(chosenFolder(urlOfBytes("/")), FileUrl::fromPath("/"));
}

void TestFolderPanel::anAnswerThatNamesNoFolderIsNone()
{
    QFile file(QDir::homePath() + QStringLiteral("/file"));
    QVERIFY(file.open(QIODevice::WriteOnly));
    QVERIFY(!chosenFolder(QUrl::fromLocalFile(file.fileName())));
    QVERIFY(!chosenFolder(urlOfBytes("/nowhere/at/all")));
    QVERIFY(!chosenFolder(QUrl(QStringLiteral("smb://server/share"))));
    QVERIFY(!chosenFolder(QUrl()));
}

void TestFolderPanel::bytesThatAreNoTextAreKept()
{
    const std::string path = QDir::homePath().toStdString() + "/caf\xe9";
    QVERIFY(::mkdir(path.c_str(), 0700) == 0);
    const auto url = chosenFolder(urlOfBytes(path));
    QVERIFY(url);
    QCOMPARE(url->path(), path);
}

void TestFolderPanel::textInPlaceOfSuchBytesIsNoAnswer()
{
    const std::string path = QDir::homePath().toStdString() + "/th\xe9";
    QVERIFY(::mkdir(path.c_str(), 0700) == 0);
    // As a panel answers that works with text.
    QVERIFY(!chosenFolder(QUrl::fromLocalFile(QString::fromUtf8(path.c_str()))));
}

HARBEX_WINDOW_TEST_MAIN(TestFolderPanel)
#include "tst_FolderPanel.moc"
