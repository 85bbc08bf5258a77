#pragma once

class HttpFront;
class ServiceState;

// The API the recorder calls: /pair, /pair/token, a session's refresh, the upload
// target and the note. Reads each request's members, asks ServiceState, and makes
// the wire records of what it answers.
class PublicRoutes
{
public:
    // Registers the routes on `front`; both must outlive serving.
    PublicRoutes(HttpFront &front, ServiceState &state);

private:
    HttpFront &m_front;
    ServiceState &m_state;
};
