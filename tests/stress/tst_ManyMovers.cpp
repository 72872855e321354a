#include "fs/FileMove.h"
#include "fs/FreeName.h"
#include "support/MoveFixture.h"
#include "support/Stress.h"
#include "support/TestMain.h"

#include <fcntl.h>
#include <set>

using namespace harbex;
using namespace harbex::test;

namespace
{

constexpr size_t moverCount = 4;

std::string nameOf(size_t i)
{
    return "photo " + std::to_string(i) + (i % 3 == 0 ? "" : ".jpg");
}

/// Moves all files of a list into a folder, under any free name. Fails if a move fails for another reason
/// than a race.
Outcome<void> moveAll(const std::string& from, const std::string& into, size_t count)
{
    FileMove fileMove;
    for (size_t i = 0; i < count; ++i) {
        const std::string source = from + '/' + nameOf(i);
        Outcome<void> moved = SystemError{EEXIST};
        // Another process can take the name first.
        while (!moved && moved.error().code == EEXIST)
            moved = fileMove.moveItem(source, uniqueDestination(source, into));
        // Another process has moved the same file, or is moving it.
        if (!moved && moved.error().code != ENOENT && moved.error().code != EBUSY) return moved;
    }
    return {};
}

} // namespace

/// Several processes that move into the same folder at the same time.
class TestManyMovers : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void filesArriveOnce_data()
    {
        QTest::addColumn<MoveCase>("on");
        QTest::addColumn<bool>("isShared");
        for (const MoveCase& each : allMoveCases()) {
            if (each.kind != "file" || each.isPretended || each.isTouched) continue;
            QTest::addRow("%s, the same names from many folders", each.name) << each << false;
            QTest::addRow("%s, the same files", each.name) << each << true;
        }
    }

    void filesArriveOnce()
    {
        QFETCH(const MoveCase, on);
        QFETCH(const bool, isShared);
        const size_t count =
            isShared ? stressSize(size_t(300), size_t(20'000)) : stressSize(size_t(100), size_t(5000));
        const ScratchFolder here;
        const ScratchFolder there(on.acrossVolumes ? folderOnAnotherVolume() : std::string());
        const std::string out = there.makeFolder("out");
        std::vector<std::string> inboxes;
        std::multiset<std::string> all;
        for (size_t mover = 0; mover < (isShared ? 1 : moverCount); ++mover) {
            inboxes.push_back(here.makeFolder("in " + std::to_string(mover)));
            for (size_t i = 0; i < count; ++i) {
                const std::string content = std::to_string(mover) + ':' + std::to_string(i);
                writeFile(inboxes.back() + '/' + nameOf(i), content);
                all.insert(content);
            }
        }
        inboxes.resize(moverCount, inboxes.front());
        const auto interceptor = [&on](const InterceptedCall& call) {
            // The first rename across volumes uses paths, and the kernel rejects it with EXDEV. The later
            // ones use open folders on one volume.
            const bool isAcrossVolumes = on.acrossVolumes && static_cast<int>(call.arguments[0]) == AT_FDCWD;
            if (call.name == "renameat2" && isAcrossVolumes) return Answer::proceed();
            return on.lacks.refuses(call).value_or(Answer::proceed());
        };
        std::vector<InterceptedWork> works;
        for (const std::string& inbox : inboxes)
            works.push_back({[&, inbox] { return moveAll(inbox, out, count); }, interceptor});
        // All begin at the same time: the first intercepted call waits until every process has started.
        for (const InterceptedRun& run : runIntercepted({"renameat2", "linkat", "openat"}, works))
            QCOMPARE(run.error, 0);
        for (const std::string& inbox : inboxes)
            QCOMPARE(namesIn(inbox), QByteArrayList());
        std::multiset<std::string> found;
        for (const QByteArray& name : namesIn(out))
            found.insert(contents(out + '/' + name.toStdString()).toStdString());
        QVERIFY(found == all);
        reportRuns(count * moverCount);
    }
};

HARBEX_TEST(TestManyMovers)

#include "tst_ManyMovers.moc"
