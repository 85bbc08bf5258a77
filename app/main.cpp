#include "app/Appearance.h"
#include "app/SelvaroRecorderApp.h"
#include "app/Snapshot.h"
#include "common/Logging.h"

#include <QApplication>

int main(int argc, char *argv[])
{
    Logging::installJournalHandler();

    // Snapshots need no screen and must look the same everywhere: they render
    // offscreen unless the caller picked a platform.
    QStringList arguments;
    for (int i = 0; i < argc; ++i)
        arguments.append(QString::fromLocal8Bit(argv[i]));
    if (Snapshot::requestedDirectory(arguments) && !qEnvironmentVariableIsSet("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");

    QApplication application(argc, argv);
    SelvaroRecorderApp::describe();
    Appearance::apply(application);

    if (Snapshot::runIfAsked(QApplication::arguments()))
        return 0;

    SelvaroRecorderApp recorder;
    recorder.show();
    return QApplication::exec();
}
