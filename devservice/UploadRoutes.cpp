#include "UploadRoutes.h"

#include "HttpFront.h"
#include "ObjectStore.h"
#include "ServiceState.h"

#include <QFile>

#include <algorithm>
#include <fcntl.h>
#include <unistd.h>
#include <vector>

UploadRoutes::UploadRoutes(HttpFront &front, ServiceState &state, const ObjectStore &objects)
    : m_front(front)
    , m_state(state)
    , m_objects(objects)
{
    front.server().Put(R"(/uploads/([^/]+))",
        [this](const httplib::Request &request, httplib::Response &response,
            const httplib::ContentReader &reader) { receive(request, response, reader); });
    front.server().Get(
        R"(/files/([^/]+))", [this](const httplib::Request &request, httplib::Response &response) {
            m_front.logRequest(request, 0);
            if (!m_front.applyFault(request, response))
                serve(request, response);
        });
}

void UploadRoutes::receive(
    const httplib::Request &request, httplib::Response &response, const httplib::ContentReader &reader)
{
    qint64 drained = 0;
    const auto drain = [&reader, &drained](qint64 upTo) {
        reader([&drained, upTo](const char *, size_t length) {
            drained += static_cast<qint64>(length);
            return drained <= upTo;
        });
    };
    const auto reject = [&](const Answer &answer) {
        drain(HttpFront::drainLimit);
        m_front.logRequest(request, drained);
        if (drained > HttpFront::drainLimit)
            response.set_header("Connection", "close");
        HttpFront::send(response, answer);
    };
    if (m_front.applyFault(request, response, drain)) {
        m_front.logRequest(request, drained);
        return;
    }
    const QString key = HttpFront::fromStd(request.matches[1]);
    const auto allowed
        = m_state.checkUploadSignature(key, HttpFront::fromStd(request.get_param_value("expires")),
            HttpFront::fromStd(request.get_param_value("signature")));
    if (!allowed)
        return reject(Answer::refusal(allowed.error()));
    const std::string contentType = request.get_header_value("Content-Type");
    if (contentType != "audio/m4a")
        return reject(Answer::error(403, QStringLiteral("wrong_content_type")));
    const qint64 limit = m_state.config().maxUploadBytes;
    if (request.get_header_value<uint64_t>("Content-Length") > static_cast<uint64_t>(limit))
        return reject(Answer::error(413, QStringLiteral("upload_too_large")));
    auto writer = m_objects.create(key);
    if (!writer)
        return reject(Answer::error(500, QStringLiteral("storage_failed")));
    // Streamed straight to disk: the body is never held in memory whole. A body
    // without a length that grows past the limit is drained from there on.
    bool tooLarge = false;
    const bool received = reader([&](const char *data, size_t length) {
        tooLarge = tooLarge || writer->size() + static_cast<qint64>(length) > limit;
        if (!tooLarge)
            return writer->write(data, length);
        drained += static_cast<qint64>(length);
        return drained <= HttpFront::drainLimit;
    });
    m_front.logRequest(request, writer->size() + drained);
    if (tooLarge) {
        writer.reset();
        if (drained > HttpFront::drainLimit)
            response.set_header("Connection", "close");
        return HttpFront::send(response, Answer::error(413, QStringLiteral("upload_too_large")));
    }
    if (!received || !writer->commit())
        return HttpFront::send(response, Answer::error(500, QStringLiteral("storage_failed")));
    m_state.storeUpload({ key, writer->size(), HttpFront::fromStd(contentType) });
    response.status = 200;
}

void UploadRoutes::serve(const httplib::Request &request, httplib::Response &response)
{
    const QString key = HttpFront::fromStd(request.matches[1]);
    const auto upload = m_state.upload(key);
    const int fd
        = upload ? ::open(QFile::encodeName(m_objects.pathOf(key)).constData(), O_RDONLY | O_CLOEXEC) : -1;
    if (fd < 0)
        return HttpFront::send(response, Answer::error(404, QStringLiteral("not_found")));
    // Browsers play "audio/mp4"; the type the uploader declared is kept in the admin view.
    const std::string type
        = key.endsWith(QLatin1String(".m4a")) ? "audio/mp4" : upload->contentType.toStdString();
    response.set_content_provider(
        static_cast<size_t>(upload->size), type,
        [fd](size_t offset, size_t length, httplib::DataSink &sink) {
            std::vector<char> buffer(std::min<size_t>(length, 1024 * 1024));
            const ssize_t got = ::pread(fd, buffer.data(), buffer.size(), static_cast<off_t>(offset));
            if (got <= 0)
                return false;
            return sink.write(buffer.data(), static_cast<size_t>(got));
        },
        [fd](bool) { ::close(fd); });
}
