#include "app/Appearance.h"
#include "app/ApplicationInterface.h"
#include "app/CommandLine.h"
#include "app/QuitOnSignals.h"
#include "app/RunningInstance.h"
#include "app/SelvaroRecorderApp.h"
#include "app/Snapshot.h"
#include "common/Logging.h"

#include <QApplication>

#include <cstdio>

int main(int argc, char *argv[])
{
    Logging::installJournalHandler();

    // Options are read before the QApplication exists: "--help" and "--version"
    // need no display, and a mistake ends the program before any window opens.
    QStringList arguments;
    for (int i = 0; i < argc; ++i)
        arguments.append(QString::fromLocal8Bit(argv[i]));
    const CommandLine command = CommandLine::parse(arguments);
    switch (command.action()) {
    case CommandLine::Action::help:
        std::fputs(CommandLine::usage().toLocal8Bit().constData(), stdout);
        return 0;
    case CommandLine::Action::version:
        std::printf("%s\n", CommandLine::versionLine().toLocal8Bit().constData());
        return 0;
    case CommandLine::Action::misuse:
        std::fprintf(stderr, "selvaro-recorder: %s\n\n%s", command.problem().toLocal8Bit().constData(),
            CommandLine::usage().toLocal8Bit().constData());
        return 2;
    case CommandLine::Action::toggle:
    case CommandLine::Action::save: {
        // Answered by the running instance, with no display needed here. Without a
        // session bus this process becomes the recorder and takes the action itself.
        QCoreApplication client(argc, argv);
        if (const std::optional<int> status = RunningInstance::take(command.actionName()))
            return *status;
        break;
    }
    case CommandLine::Action::run:
    case CommandLine::Action::snapshot:
        break;
    }

    // Snapshots need no screen and must look the same everywhere: they render
    // offscreen unless the caller picked a platform.
    if (command.action() == CommandLine::Action::snapshot && !qEnvironmentVariableIsSet("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");

    QApplication application(argc, argv);
    SelvaroRecorderApp::describe();
    Appearance::apply(application);

    if (command.action() == CommandLine::Action::snapshot && Snapshot::runIfAsked(QApplication::arguments()))
        return 0;

    // A signal ends the loop like "Quit": the recorder below is destroyed on the way
    // out, which closes a running recording's files for the next start.
    QuitOnSignals quitOnSignals;
    // One instance per session: a second start raises the first and ends, before it
    // reads the secret store or probes the sound server. Calls arrive from the event
    // loop, so the recorder exists by then.
    std::unique_ptr<SelvaroRecorderApp> recorder;
    ApplicationInterface instance([&recorder](const QString &token) { recorder->raise(token); },
        [&recorder](const QString &name) { return recorder->take(name); });
    if (instance.claim() == ApplicationInterface::Claim::elsewhere)
        return RunningInstance::activate() ? 0 : 1;
    recorder = std::make_unique<SelvaroRecorderApp>();
    recorder->show();
    if (!command.actionName().isEmpty())
        recorder->take(command.actionName());
    return QApplication::exec();
}
