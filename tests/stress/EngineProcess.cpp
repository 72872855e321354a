#include "stress/EngineProcess.h"

#include "base/StandardOutput.h"
#include "support/EngineProbe.h"
#include "support/Eventually.h"

#include <QCoreApplication>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace harbex::test
{

namespace
{

const char* const mark = "--engine";
const char* const prefix = "log: ";

} // namespace

EngineProcess::EngineProcess(const std::vector<Folder>& folders)
    : m_output(::memfd_create("output of an engine", MFD_CLOEXEC))
{
    std::vector<std::string> words = {"engine", mark};
    for (const Folder& folder : folders) {
        words.push_back(folder.from);
        words.push_back(folder.into);
    }
    std::vector<char*> arguments;
    arguments.reserve(words.size() + 1);
    for (std::string& word : words)
        arguments.push_back(word.data());
    arguments.push_back(nullptr);

    m_process = ::fork();
    if (m_process < 0) qFatal("cannot fork");
    if (m_process == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        ::dup2(m_output.get(), STDOUT_FILENO);
        ::execv("/proc/self/exe", arguments.data());
        ::_exit(127);
    }
    if (!eventually([this] { return messages().contains("Started watchers."); }))
        qFatal("no engine has started");
}

EngineProcess::~EngineProcess()
{
    ::kill(m_process, SIGKILL);
    ::waitpid(m_process, nullptr, 0);
}

void EngineProcess::suspend() const
{
    int status = 0;
    if (::kill(m_process, SIGSTOP) != 0 || ::waitpid(m_process, &status, WUNTRACED) != m_process ||
        !WIFSTOPPED(status))
        qFatal("the engine cannot be stopped: %s", std::strerror(errno));
}

void EngineProcess::resume() const
{
    if (::kill(m_process, SIGCONT) != 0) qFatal("the engine cannot go on: %s", std::strerror(errno));
}

QByteArrayList EngineProcess::messages() const
{
    struct stat data;
    if (::fstat(m_output.get(), &data) != 0) qFatal("the output of the engine is lost");
    QByteArray text(data.st_size, '\0');
    text.resize(::pread(m_output.get(), text.data(), size_t(text.size()), 0));
    QByteArrayList messages;
    for (const QByteArray& line : text.split('\n')) {
        // "log: [12:34:56] message"
        if (line.startsWith(prefix)) messages << line.sliced(line.indexOf("] ") + 2);
    }
    return messages;
}

bool EngineProcess::isWanted(int argc, char** argv)
{
    return argc > 1 && std::strcmp(argv[1], mark) == 0;
}

int EngineProcess::runEngine(int argc, char** argv)
{
    const QCoreApplication application(argc, argv);
    std::vector<WatchedFolder> folders;
    for (int i = 2; i + 1 < argc; i += 2)
        folders.push_back(watched(argv[i], {takeAll(argv[i + 1])}));
    DownloadImageRedirector engine;
    QObject::connect(&engine, &DownloadImageRedirector::logsChanged, &application,
                     [&] { printLine((QByteArray(prefix) + engine.logs().first().toUtf8()).toStdString()); });
    engine.start(folders);
    return QCoreApplication::exec();
}

} // namespace harbex::test
