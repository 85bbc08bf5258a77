#include "audio/AudioMixer.h"

#include "audio/DualRecorderError.h"
#include "audio/MixEncoder.h"
#include "audio/MixInput.h"
#include "audio/RecordingsFolder.h"
#include "common/Logging.h"

#include <QFuture>
#include <QObject>
#include <QPromise>
#include <QThread>

#include <qcoro/qcorofuture.h>

#include <cerrno>
#include <cstring>
#include <exception>
#include <memory>
#include <unistd.h>

void AudioMixer::mixOnThisThread(const Files &files, const Transcript &transcript)
{
    const MixEncoder::Line append
        = [&transcript](const QString &line) { transcript(line + QLatin1Char('\n')); };

    MixInput system(files.systemAudio);
    MixInput microphone(files.microphone);
    if (MixEncoder::describeInputs(files, system, microphone, append) == MixEncoder::Inputs::bothEmpty) {
        const int empty = RecordingsFolder::createPrivateFile(files.output);
        if (empty < 0)
            throw DualRecorderError::custom(QString::fromLocal8Bit(std::strerror(errno)));
        ::close(empty);
        return;
    }

    MixEncoder encoder(system, microphone, files.output, append, files.removeSpeakerEcho);
    while (encoder.step()) { }
    encoder.finish(append);
}

QCoro::Task<> AudioMixer::mixAudioFiles(Files files, Transcript transcript)
{
    qCDebug(lcMixer, "mixAudioFiles()");

    // Lives on the awaiting thread as long as this coroutine is suspended. The worker
    // posts each transcript line to it and, last of all, the outcome: so by the time
    // the awaiting code resumes, every line has been handed over, in order.
    QObject mailbox;
    auto outcome = std::make_shared<QPromise<void>>();
    QFuture<void> finished = outcome->future();
    outcome->start();
    auto sink = std::make_shared<const Transcript>(std::move(transcript));

    QThread *worker = QThread::create([files = std::move(files), sink, outcome, mailbox = &mailbox] {
        const Transcript post = [sink, mailbox](const QString &line) {
            QMetaObject::invokeMethod(
                mailbox, [sink, line] { (*sink)(line); }, Qt::QueuedConnection);
        };
        std::exception_ptr failure;
        try {
            mixOnThisThread(files, post);
        } catch (...) {
            failure = std::current_exception();
        }
        QMetaObject::invokeMethod(
            mailbox,
            [outcome, failure] {
                if (failure)
                    outcome->setException(failure);
                outcome->finish();
            },
            Qt::QueuedConnection);
    });
    worker->setObjectName(QString::fromLatin1(queueName));
    QObject::connect(worker, &QThread::finished, worker, &QObject::deleteLater);
    worker->start();

    co_await finished;
}
