#include "fs/EntryName.h"
#include "support/TestMain.h"

using namespace harbex;

namespace
{

QByteArray bytes(std::string_view text)
{
    return {text.data(), static_cast<qsizetype>(text.size())};
}

} // namespace

class TestEntryName : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void lastComponentAndParent_data()
    {
        QTest::addColumn<QByteArray>("path");
        QTest::addColumn<QByteArray>("last");
        QTest::addColumn<QByteArray>("parent");
        const auto row = [](const char* tag, const char* path, const char* last, const char* parent) {
            QTest::newRow(tag) << QByteArray(path) << QByteArray(last) << QByteArray(parent);
        };
        row("in a folder", "/a/b/c.txt", "c.txt", "/a/b");
        row("in the root", "/c.txt", "c.txt", "/");
        row("the root", "/", "/", "/");
        row("many slashes are the root", "///", "/", "/");
        row("a slash at the end", "/a/b/", "b", "/a");
        row("doubled slashes", "/a//b", "b", "/a");
        row("a bare name", "c.txt", "c.txt", ".");
        row("nothing", "", "", "");
        row("bytes that are no text", "/a\xff/\x01\n\xfe", "\x01\n\xfe", "/a\xff");
    }

    void lastComponentAndParent()
    {
        QFETCH(const QByteArray, path);
        QFETCH(const QByteArray, last);
        QFETCH(const QByteArray, parent);
        QCOMPARE(bytes(lastPathComponent(path.toStdString())), last);
        QCOMPARE(bytes(parentPath(path.toStdString())), parent);
    }

    void extension_data()
    {
        QTest::addColumn<QByteArray>("name");
        QTest::addColumn<QByteArray>("expected");
        const auto row = [](const char* tag, const char* name, const char* expected) {
            QTest::newRow(tag) << QByteArray(name) << QByteArray(expected);
        };
        row("plain", "report.pdf", "pdf");
        row("the last of two", "archive.tar.gz", "gz");
        row("case is kept", "IMAGE.JPeG", "JPeG");
        row("none", "README", "");
        row("only a leading dot", ".env", "");
        row("a leading dot and another", ".config.json", "json");
        row("two leading dots", "..name", "name");
        row("a dot at the end", "name.", "");
        row("a dot and a dot at the end", "name.pdf.", "");
        row("dots only", "...", "");
        row("spaces", "a b. c", " c");
        row("invalid text", "a.\xff\xfe", "\xff\xfe");
        row("a line break", "a.p\nng", "p\nng");
        row("nothing", "", "");
    }

    void extension()
    {
        QFETCH(const QByteArray, name);
        QFETCH(const QByteArray, expected);
        const std::string text = name.toStdString();
        QCOMPARE(bytes(pathExtension(text)), expected);
    }
};

HARBEX_TEST(TestEntryName)

#include "tst_EntryName.moc"
