#include "support/FuseMount.h"
#include "support/MovePlaces.h"
#include "support/PrivateMounts.h"
#include "support/Stress.h"
#include "support/TestMain.h"

#include <filesystem>

using namespace harbex;
using namespace harbex::test;

/// Moves on a real FUSE file system, which lacks some operations of Linux file systems.
class TestForeignFileSystem : public QObject, private MovePlaces
{
    Q_OBJECT

private Q_SLOTS:
    void moves_data()
    {
        QTest::addColumn<QByteArray>("kind");
        QTest::addColumn<bool>("isFromInside");
        QTest::addColumn<bool>("isIntoInside");
        for (const char* kind : {"file", "folder", "full folder", "link", "dangling link"}) {
            QTest::addRow("%s, inside", kind) << QByteArray(kind) << true << true;
            QTest::addRow("%s, to the outside", kind) << QByteArray(kind) << true << false;
            QTest::addRow("%s, from the outside", kind) << QByteArray(kind) << false << true;
        }
    }

    void moves()
    {
        QFETCH(const QByteArray, kind);
        QFETCH(const bool, isFromInside);
        QFETCH(const bool, isIntoInside);
        const ScratchFolder real;
        const ScratchFolder served;
        const FuseMount mount(real.path(), served.path());
        makePlaces(isIntoInside ? served.path() : std::string(),
                   isFromInside ? served.path() : std::string());
        const auto tryMove = [this] {
            remember();
            return result(errorOfMove(source, target));
        };
        makeObstacle(kind.toStdString(), source);
        for (const char* obstacle : obstacleKinds) {
            makeObstacle(obstacle, target);
            QCOMPARE(obstacle + tryMove(), obstacle + kept(EEXIST));
            std::filesystem::remove_all(target);
        }
        QCOMPARE(tryMove(), moved());
        reportRuns(std::size(obstacleKinds) + 1);
    }
};

HARBEX_MAIN(TestForeignFileSystem)
{
    if (!FuseMount::isPossible(argc, argv)) return notPossibleHere;
    return runTest<QCoreApplication, TestForeignFileSystem>(argc, argv);
}

#include "tst_ForeignFileSystem.moc"
