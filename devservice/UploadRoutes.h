#pragma once

#include <httplib.h>

class HttpFront;
class ObjectStore;
class ServiceState;

// The pre-signed PUT that stores a recording, and /files, which serves it back
// (with Range, so a browser's player can seek). The PUT streams straight into the
// ObjectStore and is recorded in ServiceState only once complete.
class UploadRoutes
{
public:
    // Registers the routes on `front`; all three must outlive serving.
    UploadRoutes(HttpFront &front, ServiceState &state, const ObjectStore &objects);

private:
    void receive(
        const httplib::Request &request, httplib::Response &response, const httplib::ContentReader &reader);
    void serve(const httplib::Request &request, httplib::Response &response);

    HttpFront &m_front;
    ServiceState &m_state;
    const ObjectStore &m_objects;
};
