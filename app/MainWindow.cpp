#include "app/MainWindow.h"

#include "BuildInfo.h"
#include "app/Updater.h"
#include "audio/SpeakerEchoSetting.h"

#include <QApplication>
#include <QCloseEvent>
#include <QDesktopServices>
#include <QLayout>
#include <QMenuBar>
#include <QMessageBox>
#include <QPushButton>

#include <qcoro/qcorotask.h>

MainWindow::MainWindow(QWidget *content, Updater &updater, QWidget *parent)
    : QMainWindow(parent)
    , m_updater(updater)
{
    setCentralWidget(content);
    // The window takes its content's fixed size and cannot be resized beyond it.
    layout()->setSizeConstraint(QLayout::SetFixedSize);
    setWindowFlag(Qt::MSWindowsFixedSizeDialogHint);

    QMenu *application = menuBar()->addMenu(QApplication::applicationDisplayName());
    m_about = application->addAction(
        tr("About %1").arg(QApplication::applicationDisplayName()), this, &MainWindow::showAbout);
    m_about->setMenuRole(QAction::AboutRole);
    m_checkForUpdates = application->addAction(tr("Check for Updates…"), this, &MainWindow::checkForUpdates);
    m_checkForUpdates->setMenuRole(QAction::ApplicationSpecificRole);
    // Inert without a feed: the build's packages are updated by the system.
    m_checkForUpdates->setEnabled(m_updater.isConfigured());
    application->addSeparator();
    QAction *echo = application->addAction(tr("Remove Speaker Echo"), this, &SpeakerEchoSetting::set);
    echo->setCheckable(true);
    echo->setChecked(SpeakerEchoSetting::isOn());
    // Options added later (addOption) join this group, above the separator.
    m_optionsEnd = application->addSeparator();
    QAction *quit = application->addAction(tr("Quit"), qApp, &QApplication::quit);
    quit->setShortcut(QKeySequence::Quit);
    quit->setMenuRole(QAction::QuitRole);
}

QAction *MainWindow::addOption(const QString &text, bool checked)
{
    auto *option = new QAction(text, this);
    option->setCheckable(true);
    option->setChecked(checked);
    menuBar()->actions().constFirst()->menu()->insertAction(m_optionsEnd, option);
    return option;
}

void MainWindow::closeEvent(QCloseEvent *event)
{
    if (m_mayClose && !m_mayClose())
        event->ignore();
    else
        QMainWindow::closeEvent(event);
}

void MainWindow::showAbout()
{
    QMessageBox::about(this, tr("About %1").arg(QApplication::applicationDisplayName()),
        tr("%1 %2 (%3)\n\nRecords what this computer plays together with your microphone and sends it "
           "to your phone as a note.")
            .arg(QApplication::applicationDisplayName(), QString::fromUtf8(BuildInfo::shortVersion),
                QString::fromUtf8(BuildInfo::buildNumber)));
}

void MainWindow::checkForUpdates()
{
    if (m_checking)
        return;
    m_checking = true;
    // The answer is dropped if the window is gone by then.
    QCoro::connect(m_updater.check(), this, [this](const Updater::Check &check) {
        m_checking = false;
        const QString title = tr("Check for Updates…");
        switch (check.outcome) {
        case Updater::Check::Outcome::upToDate:
            QMessageBox::information(
                this, title, tr("%1 is up to date.").arg(QApplication::applicationDisplayName()));
            break;
        case Updater::Check::Outcome::failed:
            QMessageBox::warning(this, title, tr("Could not check for updates: %1").arg(check.description));
            break;
        case Updater::Check::Outcome::available: {
            QMessageBox box(QMessageBox::Information, title,
                tr("%1 %2 is available.").arg(QApplication::applicationDisplayName(), check.feed.version),
                QMessageBox::Cancel, this);
            QPushButton *download = box.addButton(tr("Download"), QMessageBox::AcceptRole);
            box.exec();
            if (box.clickedButton() == download)
                QDesktopServices::openUrl(check.feed.url);
            break;
        }
        }
    });
}
