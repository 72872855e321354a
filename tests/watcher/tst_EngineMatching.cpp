#include "support/EngineTest.h"

#include <QRegularExpression>

using namespace harbex;
using namespace harbex::test;

/// The rules seen from outside: where an entry arrives, and what is printed meanwhile.
class TestEngineMatching : public EngineTest
{
    Q_OBJECT

private Q_SLOTS:
    /// Cases that need an entry on disk. TestRuleMatching has the many cases of names.
    void rulesTakeTheirEntries()
    {
        enum { aFile, aFolder, aLink };
        struct {
            const char* description;
            FilterRule rule;
            const char* entry;
            int kind;
            bool isTaken;
        } const cases[] = {
            {"only the first stage accepts", extensionContains("jp"), "a.jpg", aFile, false},
            {"only the second stage accepts", extensionIs("jpg"), "a.JPG", aFile, false},
            {"lower-case extension in the second stage", extensionContains("jpg"), "a.JPG", aFile, true},
            {"composed extension in the second stage", extensionIs("\xc3\xa9"), "a.e\xcc\x81", aFile, true},
            {"any name, link", nameContains(""), "link", aLink, true},
            {"any name, folder of a download", nameContains(""), "a.download", aFolder, false},
            {"image, a folder with that extension", kindIs(RuleKind::image), "album.jpg", aFolder, true},
            {"folder", kindIs(RuleKind::folder), "Tool.app", aFolder, true},
            {"folder, but a file", kindIs(RuleKind::folder), "Notes", aFile, false},
            {"folder, but a link to one", kindIs(RuleKind::folder), "Notes", aLink, false},
        };
        std::vector<Inbox> inboxes;
        std::vector<WatchedFolder> folders;
        for (const auto& each : cases) {
            const Inbox& inbox = inboxes.emplace_back(*m_scratch, each.description);
            folders.push_back(inbox.with({each.rule}));
            folders.back().rules.back().destination = FileUrl::fromPath(inbox.out);
        }
        QVERIFY(start(folders));
        for (size_t i = 0; i < inboxes.size(); ++i) {
            const std::string path = inboxes[i].path + '/' + cases[i].entry;
            if (cases[i].kind == aFile) m_scratch->arrive(path, "");
            if (cases[i].kind == aFolder) makeFolder(path);
            if (cases[i].kind == aLink) makeLink(path, m_out);
        }
        QVERIFY(sentinelsPass(inboxes));
        for (size_t i = 0; i < inboxes.size(); ++i) {
            const QByteArrayList entry = {cases[i].entry};
            QVERIFY2(namesIn(inboxes[i].out) == (cases[i].isTaken ? entry : QByteArrayList()),
                     cases[i].description);
            QVERIFY2(namesIn(inboxes[i].path) == (cases[i].isTaken ? QByteArrayList() : entry),
                     cases[i].description);
        }
    }

    /// A rule whose first stage accepts the name is printed, a rule without a destination is not.
    void theStepsOfAnEntryArePrinted()
    {
        struct {
            const char* name;
            QByteArrayList lines;
        } const cases[] = {
            {"report.final.PDF",
             {"[\"report\", \"final\", \"PDF\"]", "Processing: report.final.PDF", "ext pdf", "Kind",
              "Processing: report.final.PDF", "ext pdf", "Kind", "Moving report.final.PDF to Papers..."}},
            {"README.jpg",
             {"[\"README\", \"jpg\"]", "Processing: README.jpg", "ext jpg", "Kind", "Processing: README.jpg",
              "ext jpg", "Extension", "Processing: README.jpg", "ext jpg", "Kind"}},
            // A name without a dot passes as its own extension in the first stage.
            {"jp",
             {"[\"jp\"]", "Processing: jp", "ext ", "Kind", "Processing: jp", "ext ", "Extension",
              "Processing: jp", "ext ", "Kind"}},
            {"film.mp4.CRDOWNLOAD", {"[\"film\", \"mp4\", \"CRDOWNLOAD\"]"}},
            {"a\nb\x1b.t\xff\r",
             {"[\"a\\nb\\u{1b}\", \"t\xef\xbf\xbd\\r\"]", "Processing: a\\nb\\u{1b}.t\xef\xbf\xbd\\r",
              "ext t\xef\xbf\xbd\\r", "Kind", "Processing: a\\nb\\u{1b}.t\xef\xbf\xbd\\r",
              "ext t\xef\xbf\xbd\\r", "Kind", "Processing: a\\nb\\u{1b}.t\xef\xbf\xbd\\r",
              "ext t\xef\xbf\xbd\\r", "Name", "Moving a\\nb\\u{1b}.t\xef\xbf\xbd\\r to o\\nut..."}},
            {"...", {"[]", "Processing: ...", "ext ", "Kind", "Processing: ...", "ext ", "Kind"}},
        };
        FilterRule nowhere = takeAll(m_out);
        nowhere.destination.reset();
        QVERIFY(start({nowhere, nameContains("holiday", m_out), kindIs(RuleKind::video, m_out),
                       extensionContains("jp", m_out), kindIs(RuleKind::document, newFolder("Papers")),
                       nameContains("b", newFolder("o\nut"))}));
        for (const auto& each : cases) {
            const qsizetype before = m_output->lines().size();
            const qsizetype count = each.lines.size();
            arriveFolder(each.name);
            QVERIFY(waitFor([&] { return m_output->lines().size() >= before + count; }));
            QVERIFY(sentinelFoldersPass());
            QCOMPARE(m_output->lines().mid(before, count), each.lines);
            QVERIFY(m_output->lines()[before + count].startsWith("[\"sentinel\""));
        }
        QCOMPARE(log().filter(QRegularExpression(QStringLiteral("^(?!Moved sentinel)"))),
                 QStringList({started, moved("report.final.PDF"), moved("a\\nb\\u{1b}.t\xef\xbf\xbd\\r")}));
    }
};

HARBEX_TEST(TestEngineMatching)

#include "tst_EngineMatching.moc"
