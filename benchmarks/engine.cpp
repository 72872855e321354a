// The engine as a separate process: harbex_bench_engine IN OUT
// It moves pictures that arrive in IN to OUT. It stops itself with SIGSTOP when it watches IN.

#include "EngineRig.h"

#include <QCoreApplication>

#include <csignal>

using namespace harbex;

int main(int argc, char** argv)
{
    const QCoreApplication application(argc, argv);
    if (argc != 3) return 2;
    DownloadImageRedirector engine;
    QObject::connect(&engine, &DownloadImageRedirector::isRunningChanged, [] { std::raise(SIGSTOP); });
    engine.start({bench::picturesRule(argv[1], argv[2])});
    return QCoreApplication::exec();
}
