#pragma once

#include "Outcome.h"
#include "ServiceRecords.h"

#include <QString>

// state.json: the service's records, each in the one JSON shape of its type.
// Written atomically and for the owner alone, since it holds the signing secret
// and every session's token. Not thread-safe; ServiceState calls it under its lock.
class StateFile
{
public:
    // An empty path keeps nothing: load() finds nothing and save() does nothing.
    explicit StateFile(QString path);

    // The records kept (none when there is no file yet), or the reason the file
    // that is there cannot be read.
    [[nodiscard]] Outcome<ServiceRecords, QString> load() const;
    void save(const ServiceRecords &records) const;

private:
    QString m_path;
};
