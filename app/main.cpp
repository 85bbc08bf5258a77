#include "common/Logging.h"

#include <QApplication>
#include <QLabel>

int main(int argc, char *argv[])
{
    Logging::installJournalHandler();
    QApplication app(argc, argv);
    QLabel placeholder(QStringLiteral("Selvaro Recorder"));
    placeholder.setFixedSize(380, 430);
    placeholder.show();
    return app.exec();
}
