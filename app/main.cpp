#include "app/Appearance.h"
#include "app/SelvaroRecorderApp.h"
#include "app/Snapshot.h"
#include "common/Logging.h"

#include <QApplication>

int main(int argc, char *argv[])
{
    Logging::installJournalHandler();
    QApplication application(argc, argv);
    SelvaroRecorderApp::describe();
    Appearance::apply(application);

    if (Snapshot::runIfAsked(QApplication::arguments()))
        return 0;

    SelvaroRecorderApp recorder;
    recorder.show();
    return QApplication::exec();
}
