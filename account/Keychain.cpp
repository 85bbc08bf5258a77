#include "account/Keychain.h"

#include "common/Logging.h"

#include <qcoro/qcorosignal.h>

#include <memory>

namespace {

// A job is deleted only after it finished: QtKeychain's libsecret callbacks hold a
// raw pointer to it. deleteLater because the coroutine resumes from a call queued
// on the job itself.
struct DeleteLater
{
    void operator()(QObject *object) const { object->deleteLater(); }
};

template <typename Job> using JobPtr = std::unique_ptr<Job, DeleteLater>;

template <typename Job> JobPtr<Job> makeJob(const QString &account)
{
    JobPtr<Job> job(new Job(QLatin1String(Keychain::service)));
    job->setKey(account);
    job->setAutoDelete(false);
    // Never store the token in a plaintext settings file when no secret store answers.
    job->setInsecureFallback(false);
    return job;
}

// Starts the job and resumes once it finished. start() only queues the job, so the
// signal cannot fire before the await has connected to it.
QCoro::Task<> finished(QKeychain::Job &job)
{
    job.start();
    co_await qCoro(&job, &QKeychain::Job::finished);
}

} // namespace

QCoro::Task<std::optional<QByteArray>> Keychain::read(const QString &account)
{
    auto job = makeJob<QKeychain::ReadPasswordJob>(account);
    co_await finished(*job);
    if (job->error() == QKeychain::NoError)
        co_return job->binaryData();
    if (job->error() != QKeychain::EntryNotFound) {
        const KeychainError error { job->error(), job->errorString() };
        qCWarning(lcSession, "keychain read failed: %s", qUtf8Printable(error.description()));
    }
    co_return std::nullopt;
}

QCoro::Task<std::optional<KeychainError>> Keychain::write(const QString &account, const QByteArray &data)
{
    auto job = makeJob<QKeychain::WritePasswordJob>(account);
    // Text mode keeps the item's secret as the bytes themselves, so other Secret Service
    // clients read the JSON as it is; anything that is not UTF-8 goes in binary mode
    // (base64 in the store) rather than being mangled.
    const QString text = QString::fromUtf8(data);
    if (text.toUtf8() == data)
        job->setTextData(text);
    else
        job->setBinaryData(data);
    co_await finished(*job);
    if (job->error() == QKeychain::NoError)
        co_return std::nullopt;
    co_return KeychainError { job->error(), job->errorString() };
}

QCoro::Task<> Keychain::remove(const QString &account)
{
    auto job = makeJob<QKeychain::DeletePasswordJob>(account);
    co_await finished(*job);
}
