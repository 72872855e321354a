#include "support/EngineTest.h"

#include <QRegularExpression>

using namespace harbex;
using namespace harbex::test;

namespace
{

constexpr auto contains = RuleOperator::contains;
constexpr auto isEqual = RuleOperator::isEqual;

enum class Is { file, folder, link };

/// One entry that arrives in its own inbox, and whether the rule of that inbox takes it.
struct Case {
    const char* description;
    FilterRule rule;
    std::string entry;
    Is kind = Is::file;
    bool isTaken = false;
};

constexpr bool taken = true;
constexpr bool stays = false;

/// Cases that need an entry on disk. TestRuleMatching has the many cases of names. The test sets the
/// destinations.
const std::vector<Case>& cases()
{
    const auto name = [](RuleOperator op, const char* value) { return takeNamed(op, value, "/"); };
    const auto extension = [](RuleOperator op, const char* value) { return takeExtension(op, value, "/"); };
    const auto kind = [](RuleKind which) { return takeKind(which, "/"); };
    static const std::vector<Case> cases = {
        {"only the first stage accepts", extension(contains, "jp"), "a.jpg", Is::file, stays},
        {"only the second stage accepts", extension(isEqual, "jpg"), "a.JPG", Is::file, stays},
        {"both stages accept", extension(isEqual, "jpg"), "a.jpg", Is::file, taken},
        {"the second stage gets a lower-case extension", extension(contains, "jpg"), "a.JPG", Is::file,
         taken},
        {"the second stage gets a composed extension", extension(isEqual, "\xc3\xa9"), "a.e\xcc\x81",
         Is::file, taken},
        {"last of several extensions", extension(isEqual, "gz"), "archive.tar.gz", Is::file, taken},
        {"no extension, folder", extension(isEqual, ""), "Notes", Is::folder, taken},
        {"no extension, hidden file", extension(contains, ""), ".env", Is::file, taken},
        {"no extension, but the file has one", extension(contains, ""), "a.jpg", Is::file, stays},

        {"name of a hidden file", name(isEqual, "env"), ".env", Is::file, taken},
        {"name up to the first dot", name(isEqual, "invoice"), "invoice.2024.pdf", Is::file, taken},
        {"any name, file", name(contains, ""), "...", Is::file, taken},
        {"any name, hidden folder", name(contains, ""), ".config", Is::folder, taken},
        {"any name, link", name(contains, ""), "link", Is::link, taken},
        {"any name, partial download", name(contains, ""), "a.jpg.part", Is::file, stays},
        {"any name, folder of a download", name(contains, ""), "a.download", Is::folder, stays},

        {"image", kind(RuleKind::image), "a.HEIC", Is::file, taken},
        {"image, but a video", kind(RuleKind::image), "a.mov", Is::file, stays},
        {"image, a folder with that extension", kind(RuleKind::image), "album.jpg", Is::folder, taken},
        {"folder", kind(RuleKind::folder), "Notes", Is::folder, taken},
        {"folder with an extension", kind(RuleKind::folder), "Tool.app", Is::folder, taken},
        {"folder, but a file", kind(RuleKind::folder), "Notes", Is::file, stays},
        {"folder, but a link to one", kind(RuleKind::folder), "Notes", Is::link, stays},
        {"folder of a download", kind(RuleKind::folder), "a.download", Is::folder, stays},
        {"application, a folder", kind(RuleKind::application), "Tool.app", Is::folder, taken},
        {"application, a file", kind(RuleKind::application), "setup.EXE", Is::file, taken},
    };
    return cases;
}

} // namespace

/// The rules seen from outside: where an entry arrives, and what is printed meanwhile.
class TestEngineMatching : public EngineTest
{
    Q_OBJECT

private Q_SLOTS:
    void rulesTakeTheirEntries()
    {
        std::vector<Inbox> inboxes;
        std::vector<WatchedFolder> folders;
        for (const Case& each : cases()) {
            const Inbox& inbox = inboxes.emplace_back(*m_scratch, "case " + std::to_string(inboxes.size()));
            FilterRule rule = each.rule;
            rule.destination = FileUrl::fromPath(inbox.out);
            folders.push_back(inbox.with({rule}));
        }
        QVERIFY(start(folders));
        for (size_t i = 0; i < cases().size(); ++i) {
            const std::string path = inboxes[i].path + '/' + cases()[i].entry;
            if (cases()[i].kind == Is::file) m_scratch->arrive(path, "");
            if (cases()[i].kind == Is::folder) makeFolder(path);
            if (cases()[i].kind == Is::link) makeLink(path, m_out);
        }
        QVERIFY(sentinelsPass(inboxes));
        QStringList wrong;
        for (size_t i = 0; i < cases().size(); ++i) {
            const Case& each = cases()[i];
            const bool isTaken = exists(inboxes[i].out + '/' + each.entry);
            QVERIFY2(isTaken != exists(inboxes[i].path + '/' + each.entry), each.description);
            if (isTaken != each.isTaken) wrong << QString::fromUtf8(each.description);
        }
        QCOMPARE(wrong, QStringList());
    }

    void theEarlierOfTwoRulesTakesAnEntry()
    {
        const std::string second = newFolder("second");
        QVERIFY(start({takeKind(RuleKind::image, m_out), takeAll(second)}));
        arrive("photo.jpg");
        QVERIFY(sentinelPasses());
        QCOMPARE(namesIn(m_out), QByteArrayList{"photo.jpg"});
        QCOMPARE(namesIn(second), QByteArrayList());
        QCOMPARE(log("photo"), QStringList{moved("photo.jpg")});
        QCOMPARE(countPrinted("Processing: photo.jpg"), 1);
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
        QVERIFY(
            start({nowhere, takeNamed(contains, "holiday", m_out), takeKind(RuleKind::video, m_out),
                   takeExtension(contains, "jp", m_out), takeKind(RuleKind::document, newFolder("Papers")),
                   takeNamed(contains, "b", newFolder("o\nut"))}));
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
                 QStringList({QStringLiteral("Started watchers."), moved("report.final.PDF"),
                              moved("a\\nb\\u{1b}.t\xef\xbf\xbd\\r")}));
    }
};

HARBEX_ENGINE_TEST(TestEngineMatching)

#include "tst_EngineMatching.moc"
