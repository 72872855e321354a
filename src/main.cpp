#include "ui/ActivationToken.h"
#include "ui/ApplicationService.h"
#include "ui/ApplicationShell.h"
#include "ui/TerminationSignals.h"
#include "ui/Translation.h"

#include <QApplication>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <unistd.h>

namespace
{

/// Opens /dev/null for closed standard streams. Otherwise the next opened file gets such a descriptor, and
/// printed text is written into it.
void openStandardStreams()
{
    int fd = ::open("/dev/null", O_RDWR);
    while (fd >= 0 && fd <= STDERR_FILENO)
        fd = ::dup(fd);
    if (fd >= 0) ::close(fd);
}

} // namespace

int main(int argc, char** argv)
{
    openStandardStreams();
    // A closed reader of standard output must not end the program.
    std::signal(SIGPIPE, SIG_IGN);
    // A copy that exceeds the file size limit then fails with an error in the log.
    std::signal(SIGXFSZ, SIG_IGN);

    const QString activationToken = harbex::activationTokenOfEnvironment();
    QApplication application(argc, argv);
    QApplication::setApplicationName(QStringLiteral("harbex"));
    QApplication::setApplicationDisplayName(QStringLiteral("Harbex"));
    QApplication::setDesktopFileName(QStringLiteral("org.harbex.Harbex"));
    QApplication::setQuitOnLastWindowClosed(false);

    const QDBusConnection bus =
        QDBusConnection::connectToBus(QDBusConnection::SessionBus, QStringLiteral("harbex"));
    harbex::ApplicationService service(bus);
    switch (service.start(activationToken)) {
    case harbex::ApplicationService::Start::first:
        break;
    case harbex::ApplicationService::Start::handedOver:
    case harbex::ApplicationService::Start::onlyToQuit:
        return EXIT_SUCCESS;
    case harbex::ApplicationService::Start::refused:
        std::fputs("Harbex runs already, but does not answer.\n", stderr);
        return EXIT_FAILURE;
    }

    const harbex::Translation translation;
    harbex::ApplicationShell shell(bus, service);
    const harbex::TerminationSignals signals;
    QObject::connect(&signals, &harbex::TerminationSignals::received, &shell,
                     &harbex::ApplicationShell::quit);
    shell.applicationDidFinishLaunching(service.activationToken());
    const int status = QApplication::exec();

    // The destructors wait for running moves, which stop at once. A move that hangs in a file system must not
    // keep the process alive.
    ::alarm(3);
    return status;
}
