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
std::vector<Case> cases()
{
    const auto name = [](RuleOperator op, const char* value) { return ruleFor(RuleField::name, op, value); };
    const auto extension = [](RuleOperator op, const char* value) {
        return ruleFor(RuleField::fileExtension, op, value);
    };
    const auto kind = [](RuleKind which) { return kindIs(which); };
    return {
        {"only the first stage accepts", extension(contains, "jp"), "a.jpg", Is::file, stays},
        {"only the second stage accepts", extension(isEqual, "jpg"), "a.JPG", Is::file, stays},
        {"the second stage gets a lower-case extension", extension(contains, "jpg"), "a.JPG", Is::file,
         taken},
        {"the second stage gets a composed extension", extension(isEqual, "\xc3\xa9"), "a.e\xcc\x81",
         Is::file, taken},

        {"any name, link", name(contains, ""), "link", Is::link, taken},
        {"any name, folder of a download", name(contains, ""), "a.download", Is::folder, stays},

        {"image, a folder with that extension", kind(RuleKind::image), "album.jpg", Is::folder, taken},
        {"folder", kind(RuleKind::folder), "Tool.app", Is::folder, taken},
        {"folder, but a file", kind(RuleKind::folder), "Notes", Is::file, stays},
        {"folder, but a link to one", kind(RuleKind::folder), "Notes", Is::link, stays},
    };
}

} // namespace

/// The rules seen from outside: where an entry arrives, and what is printed meanwhile.
class TestEngineMatching : public EngineTest
{
    Q_OBJECT

private Q_SLOTS:
    void rulesTakeTheirEntries()
    {
        const std::vector<Case> all = cases();
        std::vector<Inbox> inboxes;
        std::vector<WatchedFolder> folders;
        for (const Case& each : all) {
            const Inbox& inbox = inboxes.emplace_back(*m_scratch, "case " + std::to_string(inboxes.size()));
            FilterRule rule = each.rule;
            rule.destination = FileUrl::fromPath(inbox.out);
            folders.push_back(inbox.with({rule}));
        }
        QVERIFY(start(folders));
        for (size_t i = 0; i < all.size(); ++i) {
            const std::string path = inboxes[i].path + '/' + all[i].entry;
            if (all[i].kind == Is::file) m_scratch->arrive(path, "");
            if (all[i].kind == Is::folder) makeFolder(path);
            if (all[i].kind == Is::link) makeLink(path, m_out);
        }
        QVERIFY(sentinelsPass(inboxes));
        for (size_t i = 0; i < all.size(); ++i) {
            const Case& each = all[i];
            QVERIFY2(exists(inboxes[i].out + '/' + each.entry) == each.isTaken, each.description);
            QVERIFY2(exists(inboxes[i].path + '/' + each.entry) != each.isTaken, each.description);
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
